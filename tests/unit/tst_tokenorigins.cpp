// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/DeploymentConfig.h"

#include <QTest>

class TestTokenOrigins : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void serviceAndAuthOrigins_data()
    {
        QTest::addColumn<QString>("origin");
        QTest::addColumn<bool>("accepted");

        QTest::newRow("https") << "https://quillvox.app" << true;
        QTest::newRow("https anywhere") << "https://192.168.1.10:8443" << true;
        QTest::newRow("loopback v4") << "http://127.0.0.1:8080" << true;
        QTest::newRow("all of 127/8") << "http://127.255.0.3" << true;
        QTest::newRow("localhost") << "http://LocalHost:9" << true;
        QTest::newRow("loopback v6") << "http://[::1]:8080" << true;
        QTest::newRow("private network") << "http://192.168.1.10:8080" << false;
        QTest::newRow("internet") << "http://quillvox.app" << false;
        QTest::newRow("loopback-looking name") << "http://127.0.0.1.example.com" << false;
        QTest::newRow("localhost subdomain of another") << "http://localhost.example.com" << false;
        QTest::newRow("not 127") << "http://128.0.0.1" << false;
        QTest::newRow("octet out of range") << "http://127.0.0.256" << false;
        QTest::newRow("other scheme") << "ftp://127.0.0.1" << false;
    }

    void serviceAndAuthOrigins()
    {
        QFETCH(QString, origin);
        QFETCH(bool, accepted);
        QCOMPARE(DeploymentConfig::carriesTokensSafely(QUrl(origin)), accepted);

        for (const QString name : {"QUILLVOX_SERVICE_ORIGIN", "QUILLVOX_AUTH_ORIGIN"}) {
            QProcessEnvironment env;
            env.insert(name, origin);
            const QStringList refusals = DeploymentConfig::fromEnvironment(env).refusals;
            QCOMPARE(refusals.isEmpty(), accepted);
            if (!accepted) {
                QCOMPARE(refusals.size(), 1);
                QVERIFY2(refusals.first().startsWith(name + " is " + QUrl(origin).toString()),
                         qPrintable(refusals.first()));
            }
        }
    }

    // The OpenAI origin carries the user's own key, chosen knowingly; it has rules of its own.
    void otherOriginsAreNotJudgedHere()
    {
        QProcessEnvironment env;
        env.insert("QUILLVOX_OPENAI_ORIGIN", "http://192.168.1.10:8000");
        env.insert("QUILLVOX_APPCAST_URL", "http://updates.example/a.xml");
        QVERIFY(DeploymentConfig::fromEnvironment(env).refusals.isEmpty());
    }
};

QTEST_APPLESS_MAIN(TestTokenOrigins)
#include "tst_tokenorigins.moc"
