// SPDX-License-Identifier: GPL-3.0-or-later
// The shared KeychainHelper and `quillvox --set-api-key` / `--clear-api-key` against gnome-keyring on a
// private bus, checked from outside with secret-tool and the Secret Service's own item list.
#include "KeychainTestSupport.h"

#include "account/KeychainHelper.h"
#include "keyring/KeyringFixture.h"

#include <memory>

using Item = KeyringFixture::Item;

class TestKeychainKeyring : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<KeyringFixture> m_keyring;
    QString m_service;

    QString otherService() const { return m_service + QStringLiteral(".other"); }

    QList<Item> itemsOf(const QString &account, const QString &service = {}) const
    {
        return m_keyring->items({{QStringLiteral("service"), service.isEmpty() ? m_service : service},
                                 {QStringLiteral("account"), account}});
    }

    // The secret as secret-tool reads it, or nothing when it finds no item.
    std::optional<QByteArray> lookup(const QString &account, const QString &service = {}) const
    {
        const KeyringFixture::Run run = m_keyring->secretTool(
            {QStringLiteral("lookup"), QStringLiteral("service"), service.isEmpty() ? m_service : service,
             QStringLiteral("account"), account});
        if (!run.finished || run.exitCode != 0)
            return std::nullopt;
        return run.out;
    }

    bool storeWithSecretTool(const QString &account, const QByteArray &secret, const QString &service = {},
                             const QString &collection = QStringLiteral("login")) const
    {
        const KeyringFixture::Run run = m_keyring->secretTool(
            {QStringLiteral("store"), QStringLiteral("--label=stored by another tool"),
             QStringLiteral("--collection=") + collection, QStringLiteral("service"),
             service.isEmpty() ? m_service : service, QStringLiteral("account"), account},
            secret);
        return run.finished && run.exitCode == 0;
    }

    KeyringFixture::Run quillvox(const QStringList &arguments, const QByteArray &input) const
    {
        return m_keyring->run(QStringLiteral(QUILLVOX_EXECUTABLE), arguments, input);
    }

private Q_SLOTS:
    void initTestCase()
    {
        m_keyring = std::make_unique<KeyringFixture>();
        QVERIFY2(m_keyring->isReady(), qPrintable(m_keyring->errorString()));
        m_service = qEnvironmentVariable("QUILLVOX_KEYCHAIN_SERVICE");
        QVERIFY2(m_service.startsWith(QLatin1String("com.vantor.quillvox.test.")),
                 "the tests run under a service of their own");
        QCOMPARE(KeychainHelper::shared().service(), m_service);
    }

    void cleanupTestCase() { m_keyring.reset(); }

    // Every test starts with no items of either service, whatever an earlier one left.
    void init()
    {
        for (const QString &service : {m_service, otherService()})
            m_keyring->secretTool({QStringLiteral("clear"), QStringLiteral("service"), service});
        QVERIFY(m_keyring->items({{QStringLiteral("service"), m_service}}).isEmpty());
        QVERIFY(m_keyring->items({{QStringLiteral("service"), otherService()}}).isEmpty());
    }

    void savedItemIsFoundByServiceAndAccount_data()
    {
        QTest::addColumn<KeychainKey>("key");
        QTest::addColumn<QString>("account");

        QTest::newRow("api key") << KeychainKey::openAIAPIKey << "openai-api-key";
        QTest::newRow("access token") << KeychainKey::accessToken << "access-token";
        QTest::newRow("refresh token") << KeychainKey::refreshToken << "refresh-token";
    }

    void savedItemIsFoundByServiceAndAccount()
    {
        QFETCH(KeychainKey, key);
        QFETCH(QString, account);

        QVERIFY(KeychainHelper::shared().save(QStringLiteral("value of ") + account, key));
        QCOMPARE(lookup(account), std::optional<QByteArray>(QByteArray("value of ") + account.toUtf8()));
        const QList<Item> items = itemsOf(account);
        QCOMPARE(items.size(), 1);
        QCOMPARE(items.first().label, QStringLiteral("Quillvox: ") + account);
        QVERIFY2(items.first().path.startsWith(QLatin1String("/org/freedesktop/secrets/collection/login/")),
                 qPrintable(items.first().path));
    }

    void valueRoundTripsAsUtf8_data()
    {
        QTest::addColumn<QString>("value");

        QTest::newRow("empty") << "";
        QTest::newRow("API key") << "sk-proj-Ab3_x-9";
        QTest::newRow("non-ASCII") << QStringLiteral("Grüße 鍵 🔑");
        QTest::newRow("spaces and line break kept") << " two\nlines ";
    }

    void valueRoundTripsAsUtf8()
    {
        QFETCH(QString, value);
        KeychainHelper &keychain = KeychainHelper::shared();

        QVERIFY(keychain.save(value, KeychainKey::accessToken));
        QCOMPARE(lookup(QStringLiteral("access-token")), std::optional<QByteArray>(value.toUtf8()));
        const std::optional<QString> loaded = keychain.load(KeychainKey::accessToken);
        QCOMPARE(loaded, std::optional<QString>(value));
        QVERIFY2(!loaded->isNull(), "a stored empty value must not look like a missing one");
        QVERIFY(keychain.lastFailureReason().isEmpty());
    }

    void savingTwiceLeavesOneItemWithTheSecondValue()
    {
        KeychainHelper &keychain = KeychainHelper::shared();

        QVERIFY(keychain.save(QStringLiteral("first"), KeychainKey::refreshToken));
        QVERIFY(keychain.save(QStringLiteral("second"), KeychainKey::refreshToken));
        QCOMPARE(itemsOf(QStringLiteral("refresh-token")).size(), 1);
        QCOMPARE(lookup(QStringLiteral("refresh-token")), std::optional<QByteArray>("second"));
        QCOMPARE(keychain.load(KeychainKey::refreshToken), std::optional<QString>(QStringLiteral("second")));
    }

    void neverSavedKey_data()
    {
        QTest::addColumn<KeychainKey>("key");
        QTest::newRow("api key") << KeychainKey::openAIAPIKey;
        QTest::newRow("access token") << KeychainKey::accessToken;
        QTest::newRow("refresh token") << KeychainKey::refreshToken;
    }

    void neverSavedKey()
    {
        QFETCH(KeychainKey, key);
        KeychainHelper &keychain = KeychainHelper::shared();
        // Another service's item under the same account is not ours.
        QVERIFY(storeWithSecretTool(accountName(key), "not ours", otherService()));

        QCOMPARE(keychain.load(key), std::optional<QString>());
        QVERIFY(keychain.lastFailureReason().isEmpty());
        QVERIFY(keychain.remove(key));
        QVERIFY(keychain.lastFailureReason().isEmpty());
        QCOMPARE(lookup(accountName(key), otherService()), std::optional<QByteArray>("not ours"));
    }

    // Items are matched by service and account alone, whoever stored them and wherever.
    void itemsOfOtherToolsCount_data()
    {
        QTest::addColumn<QStringList>("collections");
        QTest::newRow("login collection") << QStringList{QStringLiteral("login")};
        QTest::newRow("login and session collections")
            << QStringList{QStringLiteral("login"), QStringLiteral("session")};
    }

    void itemsOfOtherToolsCount()
    {
        QFETCH(QStringList, collections);
        const QString account = QStringLiteral("openai-api-key");
        KeychainHelper &keychain = KeychainHelper::shared();
        for (const QString &collection : collections)
            QVERIFY(storeWithSecretTool(account, "from another tool", {}, collection));
        QCOMPARE(itemsOf(account).size(), collections.size());

        QCOMPARE(keychain.load(KeychainKey::openAIAPIKey),
                 std::optional<QString>(QStringLiteral("from another tool")));

        QVERIFY(keychain.save(QStringLiteral("ours"), KeychainKey::openAIAPIKey));
        const QList<Item> items = itemsOf(account);
        QCOMPARE(items.size(), 1);
        QCOMPARE(items.first().label, QStringLiteral("Quillvox: openai-api-key"));
        QCOMPARE(lookup(account), std::optional<QByteArray>("ours"));

        for (int i = 1; i < collections.size(); ++i)
            QVERIFY(storeWithSecretTool(account, "again", {}, collections.at(i)));
        QVERIFY(keychain.remove(KeychainKey::openAIAPIKey));
        QVERIFY(itemsOf(account).isEmpty());
    }

    void otherItemsAreUntouched()
    {
        KeychainHelper &keychain = KeychainHelper::shared();
        QVERIFY(storeWithSecretTool(QStringLiteral("openai-api-key"), "other service", otherService()));
        QVERIFY(storeWithSecretTool(QStringLiteral("access-token"), "other account"));

        QVERIFY(keychain.save(QStringLiteral("ours"), KeychainKey::openAIAPIKey));
        QVERIFY(keychain.save(QStringLiteral("ours again"), KeychainKey::openAIAPIKey));
        QVERIFY(keychain.remove(KeychainKey::openAIAPIKey));

        QCOMPARE(lookup(QStringLiteral("openai-api-key"), otherService()),
                 std::optional<QByteArray>("other service"));
        QCOMPARE(lookup(QStringLiteral("access-token")), std::optional<QByteArray>("other account"));
        QVERIFY(itemsOf(QStringLiteral("openai-api-key")).isEmpty());
    }

    void itemThatIsNotUtf8LoadsAsNothing()
    {
        QVERIFY(storeWithSecretTool(QStringLiteral("refresh-token"), "\xff\xfe"));
        KeychainHelper &keychain = KeychainHelper::shared();

        QCOMPARE(keychain.load(KeychainKey::refreshToken), std::optional<QString>());
        QVERIFY(!keychain.lastFailureReason().isEmpty());
    }

    void setApiKeyReadsOneLineFromStandardInput_data()
    {
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<QByteArray>("stored");

        QTest::newRow("LF") << QByteArray("sk-lf\n") << QByteArray("sk-lf");
        QTest::newRow("CRLF") << QByteArray("sk-crlf\r\n") << QByteArray("sk-crlf");
        QTest::newRow("no line end") << QByteArray("sk-bare") << QByteArray("sk-bare");
        QTest::newRow("first line only") << QByteArray("sk-first\nsecond\n") << QByteArray("sk-first");
        QTest::newRow("UTF-8") << QByteArray("sk-\xc3\xbc\n") << QByteArray("sk-\xc3\xbc");
    }

    void setApiKeyReadsOneLineFromStandardInput()
    {
        QFETCH(QByteArray, input);
        QFETCH(QByteArray, stored);
        QVERIFY(storeWithSecretTool(QStringLiteral("openai-api-key"), "sk-before"));

        const KeyringFixture::Run run = quillvox({QStringLiteral("--set-api-key")}, input);
        QVERIFY(run.finished);
        QCOMPARE(run.exitCode, 0);
        QVERIFY2(!run.out.contains(stored) && !run.err.contains(stored), "the key is never echoed");
        QCOMPARE(lookup(QStringLiteral("openai-api-key")), std::optional<QByteArray>(stored));
        QCOMPARE(itemsOf(QStringLiteral("openai-api-key")).size(), 1);
    }

    void setApiKeyRefusesEmptyInput_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QByteArray>("input");

        const QStringList set{QStringLiteral("--set-api-key")};
        QTest::newRow("nothing") << set << QByteArray();
        QTest::newRow("LF") << set << QByteArray("\n");
        QTest::newRow("CRLF") << set << QByteArray("\r\n");
        // Arguments are visible to every user in the process list: a key there is not taken.
        QTest::newRow("key in the arguments")
            << QStringList{QStringLiteral("--set-api-key"), QStringLiteral("sk-arg")} << QByteArray();
    }

    void setApiKeyRefusesEmptyInput()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, input);
        QVERIFY(storeWithSecretTool(QStringLiteral("openai-api-key"), "sk-before"));

        const KeyringFixture::Run run = quillvox(arguments, input);
        QVERIFY(run.finished);
        QCOMPARE(run.exitCode, 1);
        QVERIFY(!run.err.isEmpty());
        QCOMPARE(lookup(QStringLiteral("openai-api-key")), std::optional<QByteArray>("sk-before"));
        QCOMPARE(itemsOf(QStringLiteral("openai-api-key")).size(), 1);
    }

    void clearApiKey_data()
    {
        QTest::addColumn<bool>("stored");
        QTest::newRow("stored key") << true;
        QTest::newRow("no key") << false;
    }

    void clearApiKey()
    {
        QFETCH(bool, stored);
        if (stored)
            QVERIFY(storeWithSecretTool(QStringLiteral("openai-api-key"), "sk-gone"));
        QVERIFY(storeWithSecretTool(QStringLiteral("access-token"), "token stays"));

        const KeyringFixture::Run run = quillvox({QStringLiteral("--clear-api-key")}, {});
        QVERIFY(run.finished);
        QCOMPARE(run.exitCode, 0);
        QVERIFY(itemsOf(QStringLiteral("openai-api-key")).isEmpty());
        QCOMPARE(lookup(QStringLiteral("access-token")), std::optional<QByteArray>("token stays"));
    }
};

QTEST_GUILESS_MAIN(TestKeychainKeyring)
#include "tst_keychainkeyring.moc"
