// SPDX-License-Identifier: GPL-3.0-or-later
// The shared KeychainHelper and `quillvox --set-api-key` / `--clear-api-key` against gnome-keyring on a
// private bus, checked from outside with secret-tool and the Secret Service's own item list.
#include "KeychainTestSupport.h"

#include "account/KeychainHelper.h"
#include "keyring/KeyringFixture.h"

class TestKeychainKeyring : public QObject
{
    Q_OBJECT

private:
    KeyringFixture m_keyring;
    QString m_service;

    QString otherService() const { return m_service + ".other"; }

    QList<KeyringFixture::Item> itemsOf(const QString &account) const
    {
        return m_keyring.items({{"service", m_service}, {"account", account}});
    }

    // The secret as secret-tool reads it, or nothing when it finds no item.
    std::optional<QByteArray> lookup(const QString &account, const QString &service = {}) const
    {
        const KeyringFixture::Run run = m_keyring.secretTool(
            {"lookup", "service", service.isEmpty() ? m_service : service, "account", account});
        return run.finished && run.exitCode == 0 ? std::optional(run.out) : std::nullopt;
    }

    bool storeWithSecretTool(const QString &account, const QByteArray &secret, const QString &service = {},
                             const QString &collection = "login") const
    {
        const KeyringFixture::Run run =
            m_keyring.secretTool({"store", "--label=stored by another tool", "--collection=" + collection,
                                  "service", service.isEmpty() ? m_service : service, "account", account},
                                 secret);
        return run.finished && run.exitCode == 0;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(m_keyring.isReady(), qPrintable(m_keyring.errorString()));
        m_service = qEnvironmentVariable("QUILLVOX_KEYCHAIN_SERVICE");
        QVERIFY2(m_service.startsWith(QLatin1String("com.vantor.quillvox.test.")),
                 "the tests run under a service of their own");
        QCOMPARE(KeychainHelper::shared().service(), m_service);
    }

    // Every test starts with no items of either service, whatever an earlier one left.
    void init()
    {
        for (const QString &service : {m_service, otherService()}) {
            m_keyring.secretTool({"clear", "service", service});
            QVERIFY(m_keyring.items({{"service", service}}).isEmpty());
        }
    }

    // Stored under the service and the key's account, in the login collection, as UTF-8, and read back.
    void savedItemIsFoundByServiceAndAccount_data()
    {
        QTest::addColumn<KeychainKey>("key");
        QTest::addColumn<QString>("account");
        QTest::addColumn<QString>("value");

        const auto row = [](const char *name, KeychainKey key, const char *account, const char *value) {
            QTest::newRow(name) << key << QString::fromLatin1(account) << QString::fromUtf8(value);
        };
        row("api key", KeychainKey::openAIAPIKey, "openai-api-key", "sk-proj-Ab3_x-9");
        row("access token, non-ASCII", KeychainKey::accessToken, "access-token", "Grüße 鍵 🔑");
        row("refresh token, spaces and line break kept", KeychainKey::refreshToken, "refresh-token",
            " two\nlines ");
        row("empty", KeychainKey::refreshToken, "refresh-token", "");
    }

    void savedItemIsFoundByServiceAndAccount()
    {
        QFETCH(KeychainKey, key);
        QFETCH(QString, account);
        QFETCH(QString, value);
        KeychainHelper &keychain = KeychainHelper::shared();

        QVERIFY(keychain.save(value, key));
        QCOMPARE(lookup(account), std::optional<QByteArray>(value.toUtf8()));
        const auto items = itemsOf(account);
        QCOMPARE(items.size(), 1);
        QCOMPARE(items.first().label, "Quillvox: " + account);
        QVERIFY2(items.first().path.startsWith(QLatin1String("/org/freedesktop/secrets/collection/login/")),
                 qPrintable(items.first().path));
        const std::optional<QString> loaded = keychain.load(key);
        QCOMPARE(loaded, std::optional<QString>(value));
        QVERIFY2(!loaded->isNull(), "a stored empty value must not look like a missing one");
        QVERIFY(keychain.lastFailureReason().isEmpty());
    }

    void neverSavedKey()
    {
        KeychainHelper &keychain = KeychainHelper::shared();
        // Another service's item under the same account is not ours.
        QVERIFY(storeWithSecretTool("access-token", "not ours", otherService()));

        QCOMPARE(keychain.load(KeychainKey::accessToken), std::optional<QString>());
        QVERIFY(keychain.lastFailureReason().isEmpty());
        QVERIFY(keychain.remove(KeychainKey::accessToken));
        QVERIFY(keychain.lastFailureReason().isEmpty());
        QCOMPARE(lookup("access-token", otherService()), std::optional<QByteArray>("not ours"));
    }

    // Items are matched by service and account alone, whoever stored them and in whichever collection.
    void itemsOfOtherToolsCount()
    {
        const QString account = "openai-api-key";
        KeychainHelper &keychain = KeychainHelper::shared();
        for (const QString collection : {"login", "session"})
            QVERIFY(storeWithSecretTool(account, "from another tool", {}, collection));
        QCOMPARE(itemsOf(account).size(), 2);

        QCOMPARE(keychain.load(KeychainKey::openAIAPIKey), std::optional<QString>("from another tool"));

        QVERIFY(keychain.save("ours", KeychainKey::openAIAPIKey));
        QCOMPARE(itemsOf(account).size(), 1);
        QCOMPARE(lookup(account), std::optional<QByteArray>("ours"));

        QVERIFY(storeWithSecretTool(account, "again", {}, "session"));
        QVERIFY(keychain.remove(KeychainKey::openAIAPIKey));
        QVERIFY(itemsOf(account).isEmpty());
    }

    // `--set-api-key` takes the first line of its standard input and nothing else; `--clear-api-key`
    // removes the key alone.
    void commandLine_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<std::optional<QByteArray>>("stored");

        const QStringList set{"--set-api-key"};
        const auto row = [](const char *name, const QStringList &arguments, const QByteArray &input,
                            const std::optional<QByteArray> &stored) {
            QTest::newRow(name) << arguments << input << stored;
        };
        row("LF", set, "sk-lf\n", "sk-lf");
        row("CRLF", set, "sk-crlf\r\n", "sk-crlf");
        row("no line end", set, "sk-bare", "sk-bare");
        row("first line only", set, "sk-first\nsecond\n", "sk-first");
        row("UTF-8", set, "sk-\xc3\xbc\n", "sk-\xc3\xbc");
        // Refused, with the key before left as it was.
        row("nothing", set, "", "sk-before");
        row("empty line", set, "\n", "sk-before");
        row("empty CRLF line", set, "\r\n", "sk-before");
        // Arguments are visible to every user in the process list: a key there is not taken.
        row("key in the arguments", set + QStringList{"sk-arg"}, "", "sk-before");
        row("clear", {"--clear-api-key"}, "", std::nullopt);
    }

    void commandLine()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, input);
        QFETCH(std::optional<QByteArray>, stored);
        for (const auto &[account, secret] :
             {std::pair{"openai-api-key", "sk-before"}, {"access-token", "token stays"}})
            QVERIFY(storeWithSecretTool(account, secret));

        const KeyringFixture::Run run = m_keyring.run(QStringLiteral(QUILLVOX_EXECUTABLE), arguments, input);
        QVERIFY(run.finished);
        const bool refused = stored == QByteArray("sk-before");
        QCOMPARE(run.exitCode, refused ? 1 : 0);
        QCOMPARE(run.err.isEmpty(), !refused);
        if (stored && !refused)
            QVERIFY2(!run.out.contains(*stored) && !run.err.contains(*stored), "the key is never echoed");
        QCOMPARE(lookup("openai-api-key"), stored);
        QCOMPARE(itemsOf("openai-api-key").size(), stored ? 1 : 0);
        QCOMPARE(lookup("access-token"), std::optional<QByteArray>("token stays"));
    }
};

QTEST_GUILESS_MAIN(TestKeychainKeyring)
#include "tst_keychainkeyring.moc"
