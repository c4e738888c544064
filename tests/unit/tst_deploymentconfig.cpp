// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/DeploymentConfig.h"

#include <QTest>

namespace {

QString valueOf(const DeploymentConfig &c, const QString &name)
{
    if (name == u"QUILLVOX_SERVICE_ORIGIN")
        return c.serviceOrigin.toString();
    return c.appcastUrl.toString();
}

} // namespace

class TestDeploymentConfig : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // The build's cache variables reach the program as its defaults, and the environment still wins.
    void builtInDefaults_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("builtIn");
        QTest::addColumn<QString>("fromEnvironment");

        QTest::newRow("service origin")
            << "QUILLVOX_SERVICE_ORIGIN" << BUILT_IN_SERVICE_ORIGIN << "http://127.0.0.1:8080";
        QTest::newRow("appcast") << "QUILLVOX_APPCAST_URL" << BUILT_IN_APPCAST_URL
                                 << "http://127.0.0.1:8080/appcast.xml";
    }

    void builtInDefaults()
    {
        QFETCH(QString, name);
        QFETCH(QString, builtIn);
        QFETCH(QString, fromEnvironment);

        QCOMPARE(valueOf(DeploymentConfig::fromEnvironment(QProcessEnvironment()), name), builtIn);
        QProcessEnvironment env;
        env.insert(name, QString());
        QCOMPARE(valueOf(DeploymentConfig::fromEnvironment(env), name), builtIn);
        env.insert(name, fromEnvironment);
        QCOMPARE(valueOf(DeploymentConfig::fromEnvironment(env), name), fromEnvironment);
    }

    void overrides_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("value");
        QTest::addColumn<QString>("serviceOrigin");
        QTest::addColumn<QString>("openAIOrigin");
        QTest::addColumn<QString>("keychainService");
        QTest::addColumn<bool>("nullOutput");

        const QString svc = QStringLiteral("https://quillvox.app");
        const QString oai = QStringLiteral("https://api.openai.com");
        const QString kc = QStringLiteral("com.vantor.quillvox");
        QTest::newRow("trailing slashes dropped")
            << "QUILLVOX_OPENAI_ORIGIN"
            << "http://localhost:9/v//" << svc << "http://localhost:9/v" << kc << false;
        QTest::newRow("not a URL falls back") << "QUILLVOX_SERVICE_ORIGIN"
                                              << "not a url" << svc << oai << kc << false;
        QTest::newRow("keychain service") << "QUILLVOX_KEYCHAIN_SERVICE"
                                          << "demo" << svc << oai << "demo" << false;
        QTest::newRow("null output") << "QUILLVOX_AUDIO_OUTPUT"
                                     << "null" << svc << oai << kc << true;
        QTest::newRow("unknown output") << "QUILLVOX_AUDIO_OUTPUT"
                                        << "alsa" << svc << oai << kc << false;
    }

    void overrides()
    {
        QFETCH(QString, name);
        QFETCH(QString, value);
        QFETCH(QString, serviceOrigin);
        QFETCH(QString, openAIOrigin);
        QFETCH(QString, keychainService);
        QFETCH(bool, nullOutput);

        QProcessEnvironment env;
        env.insert(name, value);
        const DeploymentConfig c = DeploymentConfig::fromEnvironment(env);
        QCOMPARE(c.serviceOrigin.toString(), serviceOrigin);
        QCOMPARE(c.openAIOrigin.toString(), openAIOrigin);
        QCOMPARE(c.keychainService, keychainService);
        QCOMPARE(c.audioOutput == DeploymentConfig::AudioOutput::Null, nullOutput);
    }
};

QTEST_APPLESS_MAIN(TestDeploymentConfig)
#include "tst_deploymentconfig.moc"
