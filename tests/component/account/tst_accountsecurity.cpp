// SPDX-License-Identifier: GPL-3.0-or-later
// A whole account session through the real application: sign-in through the callback URL, token
// refreshes and a service narration. Afterwards no token may appear in anything the application
// wrote or printed.
#include "DevServer.h"
#include "keyring/KeyringFixture.h"

#include <QDirIterator>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>

class TestAccountSecurity : public QObject
{
    Q_OBJECT

    KeyringFixture m_keyring;
    DevServer m_server;
    QTemporaryDir m_home;
    QProcessEnvironment m_env;
    QByteArray m_printed;

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
    void noTokenIsWrittenOrPrinted()
    {
        QVERIFY2(m_keyring.isReady(), qPrintable(m_keyring.errorString()));
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
        QTRY_VERIFY_WITH_TIMEOUT(status().value("balanceSeconds").toInteger() < 1200, 20000);
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

QTEST_GUILESS_MAIN(TestAccountSecurity)
#include "tst_accountsecurity.moc"
