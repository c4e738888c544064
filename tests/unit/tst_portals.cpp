// SPDX-License-Identifier: GPL-3.0-or-later
// The desktop portal, against a portal of our own on a private session bus. Global shortcuts: session
// and binding, the shortcut manager's rows following what the desktop assigned, presses by id, and a
// portal that goes away and comes back. The remote keyboard the capture copies with on KDE: the user
// asked once, keys in order, a refusal sending nothing.
#include "ShortcutDoubles.h"
#include "core/UserDefaults.h"
#include "platform/dbus/PortalGlobalShortcuts.h"
#include "platform/dbus/PortalRemoteKeyboard.h"
#include "shortcuts/HotkeyManager.h"
#include "shortcuts/KeyTable.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMetaType>
#include <QDBusVirtualObject>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <future>

namespace {

using Entries = QList<PortalShortcutEntry>;

// The portal's GlobalShortcuts side: answers every request at once through its Response signal, and
// assigns the preferred trigger of every shortcut except those listed in `refuse`, described the way a
// desktop shows keys.
class FakePortal final : public QDBusVirtualObject
{
public:
    explicit FakePortal(const QString &connectionName)
        : m_bus(QDBusConnection::connectToBus(QDBusConnection::SessionBus, connectionName))
    {}
    ~FakePortal() override { QDBusConnection::disconnectFromBus(m_bus.name()); }

    bool start()
    {
        return m_bus.registerVirtualObject(QString::fromLatin1(PortalGlobalShortcuts::kPath), this) &&
               m_bus.registerService(QString::fromLatin1(PortalGlobalShortcuts::kService));
    }
    void vanish() { m_bus.unregisterService(QString::fromLatin1(PortalGlobalShortcuts::kService)); }
    void comeBack() { m_bus.registerService(QString::fromLatin1(PortalGlobalShortcuts::kService)); }

    void activate(const QString &session, const QString &id)
    {
        emitSignal("Activated",
                   {QVariant::fromValue(QDBusObjectPath(session)), id, qulonglong(1), QVariantMap()});
    }
    void changeShortcuts(const QString &session, const Entries &entries)
    {
        emitSignal("ShortcutsChanged",
                   {QVariant::fromValue(QDBusObjectPath(session)), QVariant::fromValue(entries)});
    }
    void emitSignal(const char *name, const QVariantList &arguments)
    {
        QDBusMessage signal = QDBusMessage::createSignal(
            QString::fromLatin1(PortalGlobalShortcuts::kPath),
            QString::fromLatin1(PortalGlobalShortcuts::kInterface), QString::fromLatin1(name));
        signal.setArguments(arguments);
        m_bus.send(signal);
    }

    QString introspect(const QString &) const override { return {}; }

    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override
    {
        const QString member = message.member();
        if (member == u"Get") {
            const bool deviceTypes = message.arguments().value(1).toString() == u"AvailableDeviceTypes";
            connection.send(message.createReply(
                QVariant::fromValue(QDBusVariant(deviceTypes ? availableDeviceTypes : 1u))));
            return true;
        }
        const bool remote = message.interface() == QLatin1String(PortalRemoteKeyboard::kInterface);
        if (remote && member == u"NotifyKeyboardKeycode") {
            keys.append(
                {quint32(message.arguments().at(2).toInt()), message.arguments().at(3).toUInt() == 1});
            connection.send(message.createReply());
            return true;
        }
        const QVariantList args = message.arguments();
        const QVariantMap options = qdbus_cast<QVariantMap>(args.constLast());
        QString sender = message.service().mid(1);
        sender.replace(u'.', u'_');
        const QString request = QStringLiteral("/org/freedesktop/portal/desktop/request/%1/%2")
                                    .arg(sender, options.value(QStringLiteral("handle_token")).toString());
        QVariantMap results;
        uint answer = 0;
        if (remote && member == u"Start") {
            ++starts;
            answer = startAnswer;
            results.insert(QStringLiteral("devices"), grantedDevices);
        } else if (remote && member == u"SelectDevices") {
            selectedTypes = options.value(QStringLiteral("types")).toUInt();
        } else if (member == u"CreateSession") {
            ++sessionsCreated;
            session = QStringLiteral("/org/freedesktop/portal/desktop/session/%1/%2")
                          .arg(sender, options.value(QStringLiteral("session_handle_token")).toString());
            results.insert(QStringLiteral("session_handle"), session);
        } else if (member == u"BindShortcuts") {
            boundSession = args.at(0).value<QDBusObjectPath>().path();
            bound = qdbus_cast<Entries>(args.at(1).value<QDBusArgument>());
            Entries assigned;
            for (const PortalShortcutEntry &entry : std::as_const(bound)) {
                QString trigger = entry.properties.value(QStringLiteral("preferred_trigger")).toString();
                if (refuse.contains(entry.id))
                    trigger.clear();
                assigned.append({entry.id, {{QStringLiteral("trigger_description"), trigger.toLower()}}});
            }
            results.insert(QStringLiteral("shortcuts"), QVariant::fromValue(assigned));
        } else {
            return false;
        }
        connection.send(message.createReply(QVariant::fromValue(QDBusObjectPath(request))));
        QDBusMessage response = QDBusMessage::createSignal(
            request, QStringLiteral("org.freedesktop.portal.Request"), QStringLiteral("Response"));
        response << answer << results;
        connection.send(response);
        return true;
    }

    QStringList refuse;
    uint availableDeviceTypes = 1;
    uint startAnswer = 0;
    uint grantedDevices = 1;
    uint selectedTypes = 0;
    int starts = 0;
    QList<KeyboardInjector::KeyEvent> keys;
    int sessionsCreated = 0;
    QString session;
    QString boundSession;
    Entries bound;

private:
    QDBusConnection m_bus;
};

// Runs `work` on another thread while this one answers as the portal, and hands back its result.
template<typename Work> auto askedElsewhere(Work work)
{
    auto done = std::async(std::launch::async, work);
    while (done.wait_for(std::chrono::milliseconds(10)) != std::future_status::ready)
        QCoreApplication::processEvents();
    return done.get();
}

QString entryValue(const Entries &entries, const QString &id, const char *name)
{
    for (const PortalShortcutEntry &entry : entries) {
        if (entry.id == id)
            return entry.properties.value(QString::fromLatin1(name)).toString();
    }
    return {};
}

} // namespace

class TestPortals : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    std::unique_ptr<FakePortal> m_portal;
    std::unique_ptr<UserDefaults> m_defaults;
    RecordingControls m_controls;
    ScriptedSelection m_selection;
    std::unique_ptr<HotkeyManager> m_manager;
    int m_run = 0;

    HotkeyManager &startManager()
    {
        m_defaults = std::make_unique<UserDefaults>(m_dir.filePath(QStringLiteral("d%1.conf").arg(++m_run)));
        m_manager = std::make_unique<HotkeyManager>(*m_defaults, std::make_unique<PortalGlobalShortcuts>(),
                                                    m_selection, m_controls);
        return *m_manager;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(QDBusConnection::sessionBus().isConnected(), "needs a session bus (dbus-run-session)");
        PortalGlobalShortcuts::registerTypes();
        QVERIFY(!PortalGlobalShortcuts::isAvailable(QDBusConnection::sessionBus(), 1000));
    }

    void init()
    {
        m_controls.calls.clear();
        m_portal = std::make_unique<FakePortal>(QStringLiteral("portal%1").arg(m_run));
        QVERIFY(m_portal->start());
    }

    void cleanup()
    {
        m_manager.reset();
        m_portal->vanish();
        m_portal.reset();
    }

    void bindsTheSixActionsAndFollowsTheAssignments()
    {
        QVERIFY(askedElsewhere([] { return PortalGlobalShortcuts::isAvailable(); }));
        m_portal->refuse = {QStringLiteral("stop")};
        HotkeyManager &manager = startManager();
        QVERIFY(manager.bindsByAction());
        QVERIFY(!manager.hotkeyRegistered());

        QTRY_VERIFY(manager.hotkeyRegistered());
        QCOMPARE(m_portal->sessionsCreated, 1);
        QCOMPARE(m_portal->boundSession, m_portal->session);
        QStringList ids;
        for (const PortalShortcutEntry &entry : std::as_const(m_portal->bound))
            ids.append(entry.id);
        QCOMPARE(ids, QStringList({"narrate-selection", "toggle", "stop", "skip-back", "skip-forward",
                                   "cycle-speed"}));
        QCOMPARE(entryValue(m_portal->bound, "narrate-selection", "preferred_trigger"),
                 QStringLiteral("CTRL+ALT+s"));
        QCOMPARE(entryValue(m_portal->bound, "cycle-speed", "preferred_trigger"),
                 QStringLiteral("CTRL+ALT+t"));
        QVERIFY(!entryValue(m_portal->bound, "toggle", "description").isEmpty());

        // Registered exactly where the desktop assigned a key, showing the desktop's words for it.
        QCOMPARE(manager.assignedTrigger(HotkeyManager::Narration), QStringLiteral("ctrl+alt+s"));
        QVERIFY(manager.playPauseRegistered());
        QVERIFY(!manager.stopRegistered());
        QVERIFY(manager.assignedTrigger(HotkeyManager::Stop).isEmpty());
        QVERIFY(!manager.registrationProblem(HotkeyManager::Stop).isEmpty());

        // A new binding is a new wish: sent again, and the rows follow the answer. The second change comes
        // while the first is still being answered and goes out after it.
        m_portal->refuse.clear();
        manager.updateStopHotKey(KeyTable::kVK_F1, KeyTable::Shift);
        manager.updateSkipBackHotKey(KeyTable::kVK_ANSI_Y, KeyTable::Command | KeyTable::Control);
        QTRY_COMPARE(manager.assignedTrigger(HotkeyManager::SkipBack), QStringLiteral("ctrl+logo+y"));
        QVERIFY(manager.stopRegistered());
        QCOMPARE(entryValue(m_portal->bound, "stop", "preferred_trigger"), QStringLiteral("SHIFT+F1"));
        QCOMPARE(manager.assignedTrigger(HotkeyManager::Stop), QStringLiteral("shift+f1"));
        QCOMPARE(m_portal->sessionsCreated, 1);

        // The user changes a key in the desktop's settings.
        m_portal->changeShortcuts(m_portal->session,
                                  {{QStringLiteral("narrate-selection"),
                                    {{QStringLiteral("trigger_description"), QStringLiteral("Meta+R")}}}});
        QTRY_COMPARE(manager.assignedTrigger(HotkeyManager::Narration), QStringLiteral("Meta+R"));
        QVERIFY(!manager.playPauseRegistered());
    }

    void pressesRunTheirActions()
    {
        HotkeyManager &manager = startManager();
        QTRY_VERIFY(manager.cycleSpeedRegistered());
        m_selection.text = QStringLiteral("Read me.");
        m_controls.frame = 240000;
        for (const char *id :
             {"toggle", "stop", "skip-back", "skip-forward", "cycle-speed", "narrate-selection"})
            m_portal->activate(m_portal->session, QString::fromLatin1(id));
        // Another application's session, and an id we never bound: nothing.
        m_portal->activate(QStringLiteral("/org/freedesktop/portal/desktop/session/other/s"),
                           QStringLiteral("stop"));
        m_portal->activate(m_portal->session, QStringLiteral("unknown"));
        QTRY_COMPARE(m_controls.calls.size(), 6);
        QTest::qWait(100);
        QCOMPARE(m_controls.calls, QStringList({"togglePlayPause", "stop", "seek:120000", "seek:360000",
                                                "cyclePlaybackSpeed", "speak:Read me."}));
    }

    void portalRestartCreatesANewSession()
    {
        HotkeyManager &manager = startManager();
        QTRY_VERIFY(manager.hotkeyRegistered());
        const QString first = m_portal->session;

        m_portal->vanish();
        QTRY_VERIFY(!manager.hotkeyRegistered());
        QVERIFY(manager.assignedTrigger(HotkeyManager::Narration).isEmpty());

        m_portal->bound.clear();
        m_portal->comeBack();
        QTRY_VERIFY(manager.hotkeyRegistered());
        QCOMPARE(m_portal->sessionsCreated, 2);
        QCOMPARE(m_portal->bound.size(), HotkeyManager::kBindingCount);
        QVERIFY(m_portal->session != first);

        // Presses reach us on the new session only.
        m_portal->activate(first, QStringLiteral("stop"));
        m_portal->activate(m_portal->session, QStringLiteral("toggle"));
        QTRY_COMPARE(m_controls.calls, QStringList({"togglePlayPause"}));
    }

    // Copying on KDE: the first keys open a session the user is asked for (a keyboard only), later ones
    // reuse it; a refusal, or a desktop granting no keyboard, sends nothing and asks again next time.
    void remoteKeyboard()
    {
        const auto available = [] {
            return askedElsewhere([] { return PortalRemoteKeyboard::isAvailable(); });
        };
        m_portal->availableDeviceTypes = 3;
        QVERIFY(available());
        m_portal->availableDeviceTypes = 2;
        QVERIFY(!available());

        // The answer to Start, the devices granted, and whether the keys are typed.
        for (const auto &[startAnswer, granted, typed] : {std::tuple(0u, 1u, true), std::tuple(1u, 0u, false),
                                                          std::tuple(0u, 2u, false)}) { // pointer only
            m_portal->starts = 0;
            m_portal->selectedTypes = 0;
            m_portal->keys.clear();
            m_portal->startAnswer = startAnswer;
            m_portal->grantedDevices = granted;
            const QList<KeyboardInjector::KeyEvent> copy{{29, true}, {46, true}, {46, false}, {29, false}};
            const bool hasSession = askedElsewhere([&] {
                PortalRemoteKeyboard keyboard;
                keyboard.sendKeys(copy);
                keyboard.sendKeys(copy);
                return !keyboard.sessionHandle().isEmpty();
            });
            QCOMPARE(m_portal->selectedTypes, 1u);
            QCOMPARE(m_portal->starts, typed ? 1 : 2);
            QCOMPARE(m_portal->keys, typed ? copy + copy : QList<KeyboardInjector::KeyEvent>());
            QCOMPARE(hasSession, typed);
        }
    }
};

QTEST_GUILESS_MAIN(TestPortals)
#include "tst_portals.moc"
