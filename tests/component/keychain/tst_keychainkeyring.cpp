// SPDX-License-Identifier: GPL-3.0-or-later
// KeychainHelper's own logic over the in-memory store: strict UTF-8, the delete-then-add save, and what
// a failing keyring leaves behind and reports. The shared KeychainHelper and `quillvox --set-api-key` /
// `--clear-api-key` against gnome-keyring on a private bus, checked from outside with secret-tool and
// the Secret Service's own item list. A whole account session through the real application, after which
// no token may appear in anything it wrote or printed. Each call's failure on a real keyring is
// tst_keychainunavailable's.
#include "DevServer.h"
#include "account/KeychainHelper.h"
#include "keyring/KeyringFixture.h"
#include "platform/null/MemorySecretStore.h"

#include <QDirIterator>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>

#include <optional>

// Readable failure messages for the helper's optional results (found by argument-dependent lookup).
template<typename T> char *toString(const std::optional<T> &value)
{
    return value ? QTest::toString(*value) : qstrdup("nothing");
}

using Status = SecretStore::Status;
using Operation = MemorySecretStore::Operation;

const QString kService = QStringLiteral("com.vantor.quillvox.test.helper");
const QString kAccount = QStringLiteral("openai-api-key");

class TestKeychainKeyring : public QObject
{
    Q_OBJECT

private:
    KeyringFixture m_keyring;
    QString m_service;
    MemorySecretStore *m_store = nullptr;
    std::unique_ptr<KeychainHelper> m_helper;
    DevServer m_server;
    QTemporaryDir m_home;
    QProcessEnvironment m_env;
    QByteArray m_printed;

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

    KeyringFixture::Run quillvox(const QStringList &arguments)
    {
        KeyringFixture::Run run = m_keyring.run(QStringLiteral(QUILLVOX_EXECUTABLE), arguments, {}, m_env);
        m_printed += run.out + run.err;
        return run;
    }
    QJsonObject status() { return QJsonDocument::fromJson(quillvox({"--status"}).out).object(); }

    // Every bearer token and refresh token the server saw or handed out, found in its request log.
    QSet<QByteArray> tokensSeen() const
    {
        QSet<QByteArray> tokens;
        for (const QJsonObject &record : m_server.requests()) {
            for (const QString &token : {DevServer::header(record, u"Authorization").section(u' ', 1),
                                         DevServer::body(record).value("refresh_token").toString()}) {
                if (!token.isEmpty() && token != u"quillvox-dev-anon-key")
                    tokens << token.toUtf8();
            }
        }
        return tokens;
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

    // Every test starts with no items of either service, whatever an earlier one left, and an in-memory
    // store holding an old key.
    void init()
    {
        for (const QString &service : {m_service, otherService()}) {
            m_keyring.secretTool({"clear", "service", service});
            QVERIFY(m_keyring.items({{"service", service}}).isEmpty());
        }
        auto store = std::make_unique<MemorySecretStore>();
        m_store = store.get();
        m_helper = std::make_unique<KeychainHelper>(kService, std::move(store));
        m_store->insert(kService, kAccount, "old");
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

    // Strict UTF-8 both ways: a stored value that does not decode loads as nothing, and a value that does
    // not encode is not saved, the stored one staying. A null "saved": the row loads "stored".
    void strictUtf8_data()
    {
        QTest::addColumn<QByteArray>("stored");
        QTest::addColumn<QString>("saved");
        QTest::addColumn<std::optional<QString>>("loaded");
        const std::optional<QString> nothing;
        QTest::newRow("leading BOM kept")
            << QByteArray("\xef\xbb\xbfk") << QString() << std::optional<QString>(QStringLiteral("\uFEFFk"));
        QTest::newRow("invalid byte") << QByteArray("ab\xff") << QString() << nothing;
        QTest::newRow("truncated sequence") << QByteArray("ab\xc3") << QString() << nothing;
        QTest::newRow("save lone low surrogate")
            << QByteArray("old") << QStringLiteral("a") + QChar(0xDC00) << nothing;
        QTest::newRow("save high surrogate at the end")
            << QByteArray("old") << QStringLiteral("sk-") + QChar(0xD83D) << nothing;
    }

    void strictUtf8()
    {
        QFETCH(QByteArray, stored);
        QFETCH(QString, saved);
        QFETCH(std::optional<QString>, loaded);
        m_store->insert(kService, kAccount, stored);
        if (saved.isNull())
            QCOMPARE(m_helper->load(KeychainKey::openAIAPIKey), loaded);
        else
            QVERIFY(!m_helper->save(saved, KeychainKey::openAIAPIKey));
        QCOMPARE(m_store->secret(kService, kAccount), std::optional(stored));
        QCOMPARE(m_helper->lastFailureReason().isEmpty(), loaded.has_value());
    }

    // A save deletes, then adds. A failed add comes after the delete, so the old value is gone as well. A
    // refused delete does not decide the save; no keyring, or one that stayed locked, will not take the
    // add either, and the old item is untouched.
    void saveWithAFailingStep_data()
    {
        QTest::addColumn<Operation>("step");
        QTest::addColumn<Status>("failure");
        QTest::addColumn<std::optional<QByteArray>>("left");

        const std::optional<QByteArray> nothing, old("old"), saved("new");
        QTest::newRow("add refused") << Operation::Store << Status::Failed << nothing;
        QTest::newRow("add locked") << Operation::Store << Status::Locked << nothing;
        QTest::newRow("add without keyring") << Operation::Store << Status::Unavailable << nothing;
        QTest::newRow("delete refused") << Operation::Remove << Status::Failed << saved;
        QTest::newRow("delete locked") << Operation::Remove << Status::Locked << old;
        QTest::newRow("delete without keyring") << Operation::Remove << Status::Unavailable << old;
    }

    void saveWithAFailingStep()
    {
        QFETCH(Operation, step);
        QFETCH(Status, failure);
        QFETCH(std::optional<QByteArray>, left);
        m_store->setFailure(step, failure);

        const bool saved = left == QByteArray("new");
        QCOMPARE(m_helper->save(QStringLiteral("new"), KeychainKey::openAIAPIKey), saved);
        QCOMPARE(m_store->secret(kService, kAccount), left);
        QCOMPARE(m_helper->lastFailureReason().isEmpty(), saved);
        const QString reason = failure == Status::Unavailable ? "No keyring is available"
                               : failure == Status::Locked    ? "The keyring is locked"
                                                              : "The keyring refused the request";
        if (!saved)
            QVERIFY2(m_helper->lastFailureReason().startsWith(reason),
                     qPrintable(m_helper->lastFailureReason()));
        // The reason belongs to the last call: it goes once a call succeeds.
        m_store->setFailure(Status::Ok);
        QVERIFY(m_helper->remove(KeychainKey::openAIAPIKey));
        QVERIFY(m_helper->lastFailureReason().isEmpty());
    }

    // Sign-in through the callback URL, token refreshes and a service narration in the real application.
    void noTokenIsWrittenOrPrinted()
    {
        // Tokens live 30 s, inside the one-minute margin: every service request refreshes first.
        QVERIFY2(m_server.start({"--auto-consent", "--token-ttl", "30", "--synth", "sine"}),
                 qPrintable(m_server.errorString()));
        m_env = m_server.appEnvironment(m_keyring.environment());
        for (const char *dir :
             {"XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME", "XDG_STATE_HOME", "XDG_RUNTIME_DIR"})
            m_env.insert(QString::fromLatin1(dir), m_home.filePath(QString::fromLatin1(dir)));
        QDir(m_home.path()).mkpath("XDG_RUNTIME_DIR");
        m_env.insert("QUILLVOX_KEYCHAIN_SERVICE", "com.vantor.quillvox.test.security");

        QProcess app;
        app.setProcessEnvironment(m_env);
        app.setProcessChannelMode(QProcess::MergedChannels);
        app.start(QStringLiteral(QUILLVOX_EXECUTABLE), {});
        QVERIFY(app.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(status().value("auth").toObject().value("state") == "signedOut", 10000);

        // The browser's part: the service's callback page opens the application's callback URL with the
        // tokens in the fragment.
        const QUrlQuery signIn = m_server.signIn();
        QVERIFY(signIn.hasQueryItem("refresh_token"));
        QCOMPARE(quillvox({"quillvox://auth/callback#" + signIn.toString(QUrl::FullyEncoded)}).exitCode, 0);
        QTRY_VERIFY_WITH_TIMEOUT(status().value("auth").toObject().value("email") == "reader@example.com",
                                 10000);
        QTRY_COMPARE_WITH_TIMEOUT(status().value("balanceSeconds").toInteger(), 1200, 10000);

        QCOMPARE(quillvox({"--speak", "Hello there."}).exitCode, 0);
        // Charged here for the seconds heard, and on the server for what it streamed.
        QTRY_VERIFY_WITH_TIMEOUT(status().value("balanceSeconds").toInteger() < 1200, 20000);
        QVERIFY(status().value("balanceSeconds").toInteger() >= 1195);
        QTRY_VERIFY(m_server.control("/dev/state").value("balance_seconds").toInteger() < 1200);
        app.terminate();
        QVERIFY(app.waitForFinished(5000));
        m_printed += app.readAll();

        const QSet<QByteArray> tokens = tokensSeen();
        // Sign-in, then at least one refresh: two generations of access and refresh tokens.
        QVERIFY2(tokens.size() >= 4, qPrintable(QString::number(tokens.size())));
        QStringList written;
        QDirIterator files(m_home.path(), QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
        while (files.hasNext()) {
            QFile file(files.next());
            QVERIFY(file.open(QIODevice::ReadOnly));
            const QByteArray content = file.readAll();
            written << file.fileName();
            for (const QByteArray &token : tokens)
                QVERIFY2(!content.contains(token), qPrintable(file.fileName()));
        }
        QVERIFY2(written.filter(".pcm").size() == 1, qPrintable(written.join(u'\n')));
        for (const QByteArray &token : tokens)
            QVERIFY2(!m_printed.contains(token), m_printed.constData());
    }
};

QTEST_GUILESS_MAIN(TestKeychainKeyring)
#include "tst_keychainkeyring.moc"
