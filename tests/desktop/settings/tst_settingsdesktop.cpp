// SPDX-License-Identifier: GPL-3.0-or-later
// The settings window as a user meets it: opened from the widget (shown for the user's own key), every
// section reached by its name, an API key typed and tested against the dev server.
#include "DevServer.h"
#include "X11Desktop.h"

#include "account/KeychainHelper.h"
#include "core/UserDefaults.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDirIterator>
#include <QRect>
#include <QStandardPaths>
#include <QTest>

namespace {

const QString kKey = QStringLiteral("sk-desktop-5678");

bool click(const QString &name)
{
    QPoint at;
    // Hovering can move controls (the widget expands), so the pointer follows until the control stays
    // put. --sync waits for a movement, so the pointer is only sent where it is not.
    for (int look = 0; look < 3; ++look) {
        QRect rect;
        if (!QTest::qWaitFor([&] { return !(rect = findAccessibleControl(name)).isEmpty(); }, 10000))
            return false;
        if (rect.center() == at)
            break;
        at = rect.center();
        xdotool({"mousemove", "--sync", QString::number(at.x()), QString::number(at.y())});
        QTest::qWait(300);
    }
    xdotool({"click", "1"});
    return true;
}

bool shows(const QString &name)
{
    return QTest::qWaitFor([&] { return !findAccessibleControl(name).isEmpty(); }, 10000);
}

} // namespace

class TestSettingsDesktop : public QObject
{
    Q_OBJECT

    DevServer m_server;
    ChildProcess m_accessibility;
    ChildProcess m_app;

private Q_SLOTS:
    void initTestCase()
    {
        if (qEnvironmentVariableIsEmpty("DISPLAY"))
            QSKIP("needs the rig's X server");
        QDBusConnectionInterface *bus = QDBusConnection::sessionBus().interface();
        QVERIFY(bus);
        if (!bus->isServiceRegistered(QStringLiteral("org.a11y.Bus"))) {
            m_accessibility.process.start(QStringLiteral("/usr/libexec/at-spi-bus-launcher"),
                                          {"--launch-immediately"});
            QTRY_VERIFY(bus->isServiceRegistered(QStringLiteral("org.a11y.Bus")));
        }
        QVERIFY2(m_server.start({"--pace", "0", "--openai-key", kKey}), qPrintable(m_server.errorString()));
        QVERIFY(KeychainHelper::shared().save(QStringLiteral("sk-replaced-0000"), KeychainKey::openAIAPIKey));
        UserDefaults::standard().setBoolean(QStringLiteral("hasCompletedOnboarding"), true);
        UserDefaults::standard().setBoolean(QStringLiteral("showWidgetWithOwnKey"), true);
        UserDefaults::standard().sync();

        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("QUILLVOX_AUDIO_OUTPUT"), QStringLiteral("null"));
        env.insert(QStringLiteral("QT_LINUX_ACCESSIBILITY_ALWAYS_ON"), QStringLiteral("1"));
        m_app.process.setProcessEnvironment(env);
        m_app.process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_app.process.start(QStringLiteral(QUILLVOX_EXECUTABLE), QStringList());
        QVERIFY(m_app.process.waitForStarted());
        QVERIFY(click(QStringLiteral("Open Settings")));
        QVERIFY(shows(QStringLiteral("API Keys")));
    }

    void eachSectionByName_data()
    {
        QTest::addColumn<QString>("section");
        QTest::addColumn<QString>("control");
        QTest::newRow("Voice") << "Voice"
                               << "Cedar";
        QTest::newRow("Appearance") << "Appearance"
                                    << "Crimson";
        QTest::newRow("Shortcuts") << "Shortcuts"
                                   << "Narrate Selection shortcut";
        QTest::newRow("API Keys") << "API Keys"
                                  << "OpenAI API key";
        QTest::newRow("History") << "History"
                                 << "Clear All";
        QTest::newRow("Usage") << "Usage"
                               << "This Week";
        QTest::newRow("About") << "About"
                               << "Website";
        QTest::newRow("Account") << "Account"
                                 << "Continue with Google";
    }
    void eachSectionByName()
    {
        QFETCH(QString, section);
        QFETCH(QString, control);
        QVERIFY(click(section));
        QVERIFY2(shows(control), qPrintable(control));
    }

    // The key lands in the keyring and in no file of the profile; "Test" reaches the chosen server.
    void keyAndServer()
    {
        QVERIFY(click(QStringLiteral("API Keys")));
        QVERIFY(click(QStringLiteral("OpenAI API key")));
        xdotool({"type", "--delay", "20", kKey});
        xdotool({"key", "Return"});
        QTRY_COMPARE_WITH_TIMEOUT(KeychainHelper::shared().load(KeychainKey::openAIAPIKey), kKey, 10000);
        for (const auto location :
             {QStandardPaths::GenericConfigLocation, QStandardPaths::GenericDataLocation}) {
            QDirIterator files(QStandardPaths::writableLocation(location), QDir::Files,
                               QDirIterator::Subdirectories);
            while (files.hasNext()) {
                QFile file(files.next());
                QVERIFY2(!file.open(QIODevice::ReadOnly) || !file.readAll().contains(kKey.toUtf8()),
                         qPrintable(file.fileName()));
            }
        }

        QVERIFY(click(QStringLiteral("Server")));
        xdotool({"key", "ctrl+a"});
        xdotool({"type", "--delay", "10", m_server.url().toString()});
        xdotool({"key", "Return"});
        QVERIFY(click(QStringLiteral("Test")));
        QVERIFY(shows(QStringLiteral("Works")));
        QCOMPARE(m_server.waitForRequests(1).size(), 1);
    }
};

QTEST_GUILESS_MAIN(TestSettingsDesktop)
#include "tst_settingsdesktop.moc"
