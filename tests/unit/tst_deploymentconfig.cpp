// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/DeploymentConfig.h"

#include <QTest>

class TestDeploymentConfig : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // One variable set: the service origin, the OpenAI origin, the keychain service, the null output, the
    // update feed. The build's cache variables are the defaults, and a blank variable is none. Each
    // variable taken at all: tokenOrigins, tst_settingsservers, tst_keychainkeyring.
    void overrides_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("value");
        QTest::addColumn<QStringList>("expected");

        const auto row = [](const char *name, const char *variable, const char *value,
                            const char *openAI = "https://api.openai.com", const char *null = "") {
            QTest::newRow(name) << QString::fromLatin1(variable) << QString::fromLatin1(value)
                                << QStringList{BUILT_IN_SERVICE_ORIGIN, openAI, "com.vantor.quillvox", null,
                                               BUILT_IN_APPCAST_URL};
        };
        row("trailing slashes dropped", "QUILLVOX_OPENAI_ORIGIN", "http://localhost:9/v//",
            "http://localhost:9/v");
        row("blank service origin", "QUILLVOX_SERVICE_ORIGIN", "");
        row("not a URL falls back", "QUILLVOX_SERVICE_ORIGIN", "not a url");
        row("blank update feed", "QUILLVOX_APPCAST_URL", "");
        row("null output", "QUILLVOX_AUDIO_OUTPUT", "null", "https://api.openai.com", "null");
        row("unknown output", "QUILLVOX_AUDIO_OUTPUT", "alsa");
    }

    void overrides()
    {
        QFETCH(QString, name);
        QFETCH(QString, value);
        QProcessEnvironment env;
        env.insert(name, value);
        const DeploymentConfig c = DeploymentConfig::fromEnvironment(env);
        QTEST((QStringList{c.serviceOrigin.toString(), c.openAIOrigin.toString(), c.keychainService,
                           c.audioOutput == DeploymentConfig::AudioOutput::Null ? "null" : "",
                           c.appcastUrl.toString()}),
              "expected");
    }

    // Tokens go only over https or to this machine. The OpenAI origin carries the user's own key, chosen
    // knowingly, and the appcast no token: neither is judged here.
    void tokenOrigins_data()
    {
        QTest::addColumn<QString>("origin");
        QTest::addColumn<bool>("accepted");

        for (const char *origin :
             {"https://quillvox.app", "https://192.168.1.10:8443", "http://127.0.0.1:8080",
              "http://127.255.0.3", "http://LocalHost:9", "http://[::1]:8080"})
            QTest::newRow(origin) << QString::fromLatin1(origin) << true;
        for (const char *origin :
             {"http://192.168.1.10:8080", "http://quillvox.app", "http://127.0.0.1.example.com",
              "http://localhost.example.com", "http://128.0.0.1", "http://127.0.0.256", "ftp://127.0.0.1"})
            QTest::newRow(origin) << QString::fromLatin1(origin) << false;
    }

    void tokenOrigins()
    {
        QFETCH(QString, origin);
        QFETCH(bool, accepted);
        QCOMPARE(DeploymentConfig::carriesTokensSafely(QUrl(origin)), accepted);

        for (const QString name : {"QUILLVOX_SERVICE_ORIGIN", "QUILLVOX_AUTH_ORIGIN",
                                   "QUILLVOX_OPENAI_ORIGIN", "QUILLVOX_APPCAST_URL"}) {
            QProcessEnvironment env;
            env.insert(name, origin);
            const QStringList refusals = DeploymentConfig::fromEnvironment(env).refusals;
            if (accepted || name == u"QUILLVOX_OPENAI_ORIGIN" || name == u"QUILLVOX_APPCAST_URL") {
                QVERIFY2(refusals.isEmpty(), qPrintable(refusals.join(u'\n')));
            } else {
                QCOMPARE(refusals.size(), 1);
                QVERIFY2(refusals.first().startsWith(name + " is " + QUrl(origin).toString()),
                         qPrintable(refusals.first()));
            }
        }
    }
};

QTEST_APPLESS_MAIN(TestDeploymentConfig)
#include "tst_deploymentconfig.moc"
