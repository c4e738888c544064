// SPDX-License-Identifier: GPL-3.0-or-later
// The tray item as a desktop panel sees it: a StatusNotifierWatcher with a host on the rig's bus before
// the app starts, the item's menu read and clicked over com.canonical.dbusmenu, mousepad holding the
// selection that "Narrate Selection" reads aloud.
#include "DevServer.h"
#include "PulseServer.h"
#include "StatusNotifierWatcher.h"
#include "X11Desktop.h"

#include "core/UserDefaults.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

namespace {

const QString kItemInterface = QStringLiteral("org.kde.StatusNotifierItem");
const QString kMenuInterface = QStringLiteral("com.canonical.dbusmenu");
const QString kSentence =
    QStringLiteral("The tray menu reads this sentence aloud from the editor, one word after another.");

struct MenuEntry
{
    int id = 0;
    QVariantMap properties;
};

// The children of a (ia{sv}av) layout node, in order; submenus do not occur in our menu.
QList<MenuEntry> menuChildren(const QDBusArgument &node)
{
    QList<MenuEntry> entries;
    int id = 0;
    QVariantMap properties;
    node.beginStructure();
    node >> id >> properties;
    node.beginArray();
    while (!node.atEnd()) {
        QDBusVariant child;
        node >> child;
        const QDBusArgument childNode = child.variant().value<QDBusArgument>();
        MenuEntry entry;
        childNode.beginStructure();
        childNode >> entry.id >> entry.properties;
        childNode.endStructure();
        entries.append(entry);
    }
    node.endArray();
    node.endStructure();
    return entries;
}

// "Control+Shift+N" from the dbusmenu form [["Control", "Shift", "N"]].
QString shortcutText(const QVariant &value)
{
    if (!value.isValid())
        return {};
    QStringList chords;
    const QDBusArgument argument = value.value<QDBusArgument>();
    argument.beginArray();
    while (!argument.atEnd()) {
        QStringList keys;
        argument >> keys;
        chords.append(keys.join(QLatin1Char('+')));
    }
    argument.endArray();
    return chords.join(QLatin1Char(' '));
}

// What a person sees: the shown entries, "-" for a separator, a disabled one in brackets, the key
// equivalent after a tab.
QString shownText(const MenuEntry &entry)
{
    if (entry.properties.value(QStringLiteral("type")).toString() == u"separator")
        return QStringLiteral("-");
    QString text = entry.properties.value(QStringLiteral("label")).toString();
    if (!entry.properties.value(QStringLiteral("enabled"), true).toBool())
        text = QLatin1Char('[') + text + QLatin1Char(']');
    const QString shortcut = shortcutText(entry.properties.value(QStringLiteral("shortcut")));
    if (!shortcut.isEmpty())
        text += QLatin1Char('\t') + shortcut;
    return text;
}

} // namespace

class TestTray : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    StatusNotifierWatcher m_watcher;
    DevServer m_server;
    ChildProcess m_editor;
    QByteArray m_editorWindow;
    QProcess m_app;
    StatusNotifierWatcher::Item m_item;
    QString m_menuPath;

    QDBusMessage itemProperty(const QString &name) const
    {
        QDBusMessage get = QDBusMessage::createMethodCall(m_item.service, m_item.path,
                                                          QStringLiteral("org.freedesktop.DBus.Properties"),
                                                          QStringLiteral("Get"));
        get << kItemInterface << name;
        return QDBusConnection::sessionBus().call(get);
    }

    // The icon as a host draws it: its theme name and its pixmaps' bytes.
    QByteArray icon() const
    {
        QByteArray icon = itemProperty(QStringLiteral("IconName"))
                              .arguments()
                              .value(0)
                              .value<QDBusVariant>()
                              .variant()
                              .toString()
                              .toUtf8();
        const QDBusArgument pixmaps = itemProperty(QStringLiteral("IconPixmap"))
                                          .arguments()
                                          .value(0)
                                          .value<QDBusVariant>()
                                          .variant()
                                          .value<QDBusArgument>();
        pixmaps.beginArray();
        while (!pixmaps.atEnd()) {
            int width = 0;
            int height = 0;
            QByteArray argb;
            pixmaps.beginStructure();
            pixmaps >> width >> height >> argb;
            pixmaps.endStructure();
            icon += argb;
        }
        pixmaps.endArray();
        return icon;
    }

    QList<MenuEntry> menu() const
    {
        QDBusMessage getLayout = QDBusMessage::createMethodCall(m_item.service, m_menuPath, kMenuInterface,
                                                                QStringLiteral("GetLayout"));
        getLayout << 0 << -1 << QStringList();
        const QDBusMessage reply = QDBusConnection::sessionBus().call(getLayout);
        if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().size() != 2) {
            qWarning() << "GetLayout:" << reply.errorMessage();
            return {};
        }
        return menuChildren(reply.arguments().at(1).value<QDBusArgument>());
    }

    QStringList shownMenu() const
    {
        QStringList shown;
        for (const MenuEntry &entry : menu()) {
            if (entry.properties.value(QStringLiteral("visible"), true).toBool())
                shown.append(shownText(entry));
        }
        return shown;
    }

    // Clicks the entry labelled `label` as a panel does when the user picks it.
    bool click(const QString &label) const
    {
        for (const MenuEntry &entry : menu()) {
            if (entry.properties.value(QStringLiteral("label")).toString() != label)
                continue;
            QDBusMessage event = QDBusMessage::createMethodCall(m_item.service, m_menuPath, kMenuInterface,
                                                                QStringLiteral("Event"));
            event << entry.id << QStringLiteral("clicked") << QVariant::fromValue(QDBusVariant(0))
                  << uint(QDateTime::currentSecsSinceEpoch());
            // "Quit" may end the app before it answers.
            return QDBusConnection::sessionBus().send(event);
        }
        qWarning() << "no menu entry" << label;
        return false;
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (qEnvironmentVariableIsEmpty("DISPLAY"))
            QSKIP("needs the rig's X server");
        QVERIFY(m_dir.isValid());
        // The host is there before the app asks for one; the app asks only once.
        QVERIFY2(m_watcher.start(), qPrintable(m_watcher.errorString()));
        QVERIFY2(m_server.start({QStringLiteral("--synth"), QStringLiteral("sine")}),
                 qPrintable(m_server.errorString()));

        QProcessEnvironment env = m_server.appEnvironment();
        env.insert(QStringLiteral("QUILLVOX_APPCAST_URL"), m_server.url().toString());
        env.insert(QStringLiteral("QUILLVOX_AUDIO_OUTPUT"), QStringLiteral("null"));
        m_app.setProcessEnvironment(env);

        // Own-key mode, onboarding done: the app starts straight into normal operation.
        QCOMPARE(DevServer::setOwnKey(QStringLiteral(QUILLVOX_EXECUTABLE), env), QString());
        UserDefaults::standard().setBoolean(QStringLiteral("hasCompletedOnboarding"), true);
        UserDefaults::standard().sync();

        QFile file(m_dir.filePath(QStringLiteral("tray.txt")));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(kSentence.toUtf8());
        file.close();
        m_editorWindow = openInMousepad(m_editor, file.fileName());
        QVERIFY(!m_editorWindow.isEmpty());
        xdotool({QStringLiteral("key"), QStringLiteral("ctrl+a")});

        dieWithTheTest(m_app);
        m_app.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_app.start(QStringLiteral(QUILLVOX_EXECUTABLE), QStringList());
        QTRY_COMPARE_WITH_TIMEOUT(m_watcher.items().size(), 1, 15000);
        m_item = m_watcher.items().first();
    }

    void cleanupTestCase()
    {
        if (m_app.state() != QProcess::NotRunning) {
            m_app.terminate();
            m_app.waitForFinished(5000);
        }
    }

    void itemBelongsToTheAppAndExportsItsMenu()
    {
        const QDBusReply<uint> pid = QDBusConnection::sessionBus().interface()->servicePid(m_item.service);
        QVERIFY2(pid.isValid(), qPrintable(pid.error().message()));
        QCOMPARE(qint64(pid.value()), m_app.processId());
        QCOMPARE(m_watcher.registeredItems(), QStringList{m_item.service + m_item.path});

        m_menuPath = itemProperty(QStringLiteral("Menu"))
                         .arguments()
                         .value(0)
                         .value<QDBusVariant>()
                         .variant()
                         .value<QDBusObjectPath>()
                         .path();
        QVERIFY(!m_menuPath.isEmpty());
        QCOMPARE(itemProperty(QStringLiteral("Status")).arguments().value(0).value<QDBusVariant>().variant(),
                 QVariant(QStringLiteral("Active")));
    }

    void idleMenu()
    {
        QCOMPARE(shownMenu(), (QStringList{
                                  QStringLiteral("Narrate Selection\tControl+Shift+N"),
                                  QStringLiteral("Expand Widget"),
                                  QStringLiteral("-"),
                                  QStringLiteral("[Pause Narration]"),
                                  QStringLiteral("[Stop Narration]"),
                                  QStringLiteral("-"),
                                  QStringLiteral("Check for Updates..."),
                                  QStringLiteral("About Quillvox"),
                                  QStringLiteral("-"),
                                  QStringLiteral("Settings...\tControl+,"),
                                  QStringLiteral("-"),
                                  QStringLiteral("Quit Quillvox\tControl+Q"),
                              }));
    }

    void narrateSelectionReadsTheEditor()
    {
        const QByteArray idleIcon = icon();
        QVERIFY(!idleIcon.isEmpty());
        xdotool({QStringLiteral("windowactivate"), QStringLiteral("--sync"),
                 QString::fromLatin1(m_editorWindow)});
        QVERIFY(click(QStringLiteral("Narrate Selection")));

        QTRY_VERIFY_WITH_TIMEOUT(icon() != idleIcon, 15000);
        const QByteArray playingIcon = icon();
        QVERIFY(!playingIcon.isEmpty());
        // Neither a second narration nor the widget's expansion is offered while one plays.
        QCOMPARE(shownMenu(), (QStringList{
                                  QStringLiteral("-"),
                                  QStringLiteral("Pause Narration"),
                                  QStringLiteral("Stop Narration"),
                                  QStringLiteral("-"),
                                  QStringLiteral("Check for Updates..."),
                                  QStringLiteral("About Quillvox"),
                                  QStringLiteral("-"),
                                  QStringLiteral("Settings...\tControl+,"),
                                  QStringLiteral("-"),
                                  QStringLiteral("Quit Quillvox\tControl+Q"),
                              }));

        // The request's log line is written when its response ends.
        QVERIFY(click(QStringLiteral("Stop Narration")));
        QTRY_COMPARE_WITH_TIMEOUT(icon(), idleIcon, 5000);
        const QList<QJsonObject> log = m_server.waitForRequests(1);
        QCOMPARE(log.size(), 1);
        QCOMPARE(log.first().value(QStringLiteral("path")).toString(), QStringLiteral("/v1/audio/speech"));
        QCOMPARE(DevServer::input(log.first()), kSentence);
    }

    void quitEndsTheProcess()
    {
        QVERIFY(click(QStringLiteral("Quit Quillvox")));
        QVERIFY2(m_app.waitForFinished(10000), "the app still runs 10 s after Quit");
        QCOMPARE(m_app.exitStatus(), QProcess::NormalExit);
        QCOMPARE(m_app.exitCode(), 0);
        QTRY_COMPARE(m_watcher.items().size(), 0);
    }
};

QTEST_GUILESS_MAIN(TestTray)
#include "tst_tray.moc"
