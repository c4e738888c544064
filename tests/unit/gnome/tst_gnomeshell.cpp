// SPDX-License-Identifier: GPL-3.0-or-later
// Our side of the GNOME Shell extension against the extension's own service (gnome-extension/service.js
// under gjs) with a scripted shell behind it, on a private bus: keys bound, pressed, released and bound
// again, and only Quillvox answered. Reading the selection is tested against the real shell
// (tst_gnomeshellsession).
#include "platform/gnome/GnomeShellExtension.h"
#include "platform/gnome/GnomeShellShortcuts.h"

#include <QDBusConnectionInterface>
#include <QDBusInterface>
#include <QDBusMetaType>
#include <QDBusReply>
#include <QProcess>
#include <QTest>

#include <memory>

using Shortcut = ActionShortcuts::Shortcut;

using GnomeShellExtension::KeyRequest;

class TestGnomeShell : public QObject
{
    Q_OBJECT

    QProcess m_gjs;
    std::unique_ptr<QDBusInterface> m_fake;

    QStringList grabs() const
    {
        const QDBusReply<QStringList> reply = m_fake->call(QStringLiteral("Grabs"));
        return reply.value();
    }
    bool press(const QString &accelerator) const
    {
        const QDBusReply<bool> reply = m_fake->call(QStringLiteral("Press"), accelerator);
        return reply.value();
    }
    static bool serving()
    {
        return QDBusConnection::sessionBus().interface()->isServiceRegistered(
            QString::fromLatin1(GnomeShellExtension::kService));
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(QDBusConnection::sessionBus().isConnected(), "needs a session bus (dbus-run-session)");
        m_gjs.setProcessChannelMode(QProcess::ForwardedChannels);
        m_gjs.start(
            QStringLiteral("gjs"),
            {QStringLiteral("-m"), QStringLiteral(QUILLVOX_SOURCE_DIR "/tests/unit/gnome/fakeshell.js")});
        QVERIFY2(m_gjs.waitForStarted(), "gjs is not installed");
        QTRY_VERIFY_WITH_TIMEOUT(QDBusConnection::sessionBus().interface()->isServiceRegistered(
                                     QStringLiteral("com.vantor.Quillvox.Test")),
                                 10000);
        m_fake = std::make_unique<QDBusInterface>(QStringLiteral("com.vantor.Quillvox.Test"),
                                                  QStringLiteral("/com/vantor/Quillvox/Test"),
                                                  QStringLiteral("com.vantor.Quillvox.Test"));
        QVERIFY(serving());
        qDBusRegisterMetaType<KeyRequest>();
        qDBusRegisterMetaType<QList<KeyRequest>>();
        // This test's own calls come from Quillvox.
        QVERIFY(QDBusConnection::sessionBus().registerService(QStringLiteral("com.vantor.Quillvox")));
    }

    void cleanupTestCase()
    {
        m_gjs.kill();
        m_gjs.waitForFinished(5000);
    }

    void triggers_data()
    {
        QTest::addColumn<QString>("trigger");
        QTest::addColumn<QString>("accelerator");
        QTest::addColumn<QString>("label");
        const auto row = [](const char *name, const char *trigger, const char *accelerator,
                            const char *label) {
            QTest::newRow(name) << QString::fromLatin1(trigger) << QString::fromLatin1(accelerator)
                                << QString::fromLatin1(label);
        };
        row("letter", "CTRL+ALT+s", "<Control><Alt>s", "Ctrl+Alt+S");
        row("all four", "LOGO+SHIFT+CTRL+ALT+F1", "<Super><Shift><Control><Alt>F1",
            "Super+Shift+Ctrl+Alt+F1");
        row("named key", "ALT+space", "<Alt>space", "Alt+Space");
        row("no key", "CTRL+ALT+", "", "Ctrl+Alt+");
        row("unknown modifier", "HYPER+s", "", "HYPER+S");
    }
    void triggers()
    {
        QFETCH(QString, trigger);
        QTEST(GnomeShellShortcuts::accelerator(trigger), "accelerator");
        QTEST(GnomeShellShortcuts::label(trigger), "label");
    }

    // The selection and the keys only for a program that owns Quillvox's name or a profile's; everyone
    // else is refused.
    void answersQuillvoxOnly_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("answered");
        QTest::newRow("a profile") << "com.vantor.Quillvox.Profile_0a1b2c3d4e" << true;
        QTest::newRow("no name") << "" << false;
        QTest::newRow("another program") << "org.example.Notes" << false;
        QTest::newRow("not a profile") << "com.vantor.Quillvox.Profile_0a1b2c3d4" << false;
        QTest::newRow("the extension's own") << "com.vantor.Quillvox.Shell" << false;
    }
    void answersQuillvoxOnly()
    {
        QFETCH(QString, name);
        QFETCH(bool, answered);
        const QString connectionName =
            QStringLiteral("caller ") + QString::fromLatin1(QTest::currentDataTag());
        {
            QDBusConnection caller =
                QDBusConnection::connectToBus(QDBusConnection::SessionBus, connectionName);
            // The extension's own name is taken; owning it is no way in either way.
            if (!name.isEmpty() && name != QLatin1String(GnomeShellExtension::kService))
                QVERIFY(caller.registerService(name));
            const auto call = [&](const QString &method, const QVariantList &arguments) {
                QDBusMessage message = QDBusMessage::createMethodCall(
                    QString::fromLatin1(GnomeShellExtension::kService),
                    QString::fromLatin1(GnomeShellExtension::kPath),
                    QString::fromLatin1(GnomeShellExtension::kInterface), method);
                message.setArguments(arguments);
                return caller.call(message, QDBus::Block, 5000);
            };
            const QDBusMessage read = call(QStringLiteral("ReadSelection"), {});
            const QDBusMessage bind =
                call(QStringLiteral("BindShortcuts"), {QVariant::fromValue(QList<KeyRequest>())});
            if (answered) {
                QCOMPARE(read.arguments().value(0).toString(),
                         QStringLiteral("Highlighted in the fake shell"));
                QCOMPARE(bind.type(), QDBusMessage::ReplyMessage);
            } else {
                QCOMPARE(read.errorName(), QStringLiteral("org.freedesktop.DBus.Error.AccessDenied"));
                QCOMPARE(bind.errorName(), QStringLiteral("org.freedesktop.DBus.Error.AccessDenied"));
            }
        }
        QDBusConnection::disconnectFromBus(connectionName);
    }

    // The shell takes the keys it can; presses reach us by id; a new set replaces the old one; and a key
    // another program holds, or that no longer is ours, runs nothing.
    void bindsPressesAndRebinds()
    {
        GnomeShellShortcuts shortcuts;
        QList<ActionShortcuts::Assignments> assignments;
        QStringList pressed;
        shortcuts.setAssignmentsHandler(
            [&](const ActionShortcuts::Assignments &a) { assignments.append(a); });
        shortcuts.setActivationHandler([&](const QString &id) { pressed.append(id); });

        shortcuts.bind({{"narrate-selection", "Narrate Selection", "CTRL+ALT+s"},
                        {"toggle", "Play/Pause", "CTRL+ALT+e"},
                        {"stop", "Stop", "LOGO+l"}});
        QTRY_COMPARE(assignments.size(), 1);
        QCOMPARE(assignments.last(), (ActionShortcuts::Assignments{{"narrate-selection", "Ctrl+Alt+S"},
                                                                   {"toggle", "Ctrl+Alt+E"}}));
        QCOMPARE(grabs(), (QStringList{"<Control><Alt>e", "<Control><Alt>s"}));

        QVERIFY(press(QStringLiteral("<Control><Alt>s")));
        QVERIFY(press(QStringLiteral("<Control><Alt>e")));
        QTRY_COMPARE(pressed, (QStringList{"narrate-selection", "toggle"}));

        shortcuts.bind({{"narrate-selection", "Narrate Selection", "CTRL+ALT+d"}});
        QTRY_COMPARE(assignments.size(), 2);
        QCOMPARE(assignments.last(), (ActionShortcuts::Assignments{{"narrate-selection", "Ctrl+Alt+D"}}));
        QCOMPARE(grabs(), QStringList{"<Control><Alt>d"});
        QVERIFY(!press(QStringLiteral("<Control><Alt>s")));
        QVERIFY(press(QStringLiteral("<Control><Alt>d")));
        QTRY_COMPARE(pressed.size(), 3);
        QCOMPARE(pressed.last(), QStringLiteral("narrate-selection"));
    }

    // Switched off, the extension's keys are gone and we say so; switched on again, it gets our keys back
    // without being asked.
    void bindsAgainWhenTheExtensionReturns()
    {
        GnomeShellShortcuts shortcuts;
        QList<ActionShortcuts::Assignments> assignments;
        shortcuts.setAssignmentsHandler(
            [&](const ActionShortcuts::Assignments &a) { assignments.append(a); });
        shortcuts.bind({{"cycle-speed", "Cycle Speed", "CTRL+ALT+t"}});
        QTRY_COMPARE(assignments.size(), 1);

        QVERIFY(m_fake->call(QStringLiteral("SetEnabled"), false).errorName().isEmpty());
        QTRY_COMPARE(assignments.size(), 2);
        QVERIFY(assignments.last().isEmpty());
        QVERIFY(grabs().isEmpty());

        QVERIFY(m_fake->call(QStringLiteral("SetEnabled"), true).errorName().isEmpty());
        QTRY_COMPARE(assignments.size(), 3);
        QCOMPARE(assignments.last(), (ActionShortcuts::Assignments{{"cycle-speed", "Ctrl+Alt+T"}}));
        QCOMPARE(grabs(), QStringList{"<Control><Alt>t"});
    }

    // A Quillvox that quits (or crashes) leaves no key behind.
    void releasesTheKeysOfAClientThatLeft()
    {
        {
            QDBusConnection other =
                QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("leaving"));
            QVERIFY(other.registerService(QStringLiteral("com.vantor.Quillvox.Profile_0123456789")));
            GnomeShellShortcuts shortcuts(other);
            bool bound = false;
            shortcuts.setAssignmentsHandler(
                [&](const ActionShortcuts::Assignments &a) { bound = !a.isEmpty(); });
            shortcuts.bind({{"stop", "Stop", "CTRL+ALT+q"}});
            QTRY_VERIFY(bound);
            QCOMPARE(grabs(), QStringList{"<Control><Alt>q"});
        }
        QDBusConnection::disconnectFromBus(QStringLiteral("leaving"));
        QTRY_VERIFY(grabs().isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestGnomeShell)
#include "tst_gnomeshell.moc"
