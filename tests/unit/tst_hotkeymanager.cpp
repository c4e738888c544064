// SPDX-License-Identifier: GPL-3.0-or-later
// The global shortcuts: bindings loaded, updated, grabbed and pressed on a null backend, and the recorder
// a settings row takes a new combination with. Then the desktop portal, against a portal of our own on a
// private session bus: session and binding, the rows following what the desktop assigned, presses by id,
// a portal that goes away and comes back; and the remote keyboard the capture copies with on KDE: the
// user asked once, keys in order, a refusal sending nothing.
#include "ShortcutDoubles.h"
#include "core/UserDefaults.h"
#include "platform/dbus/PortalGlobalShortcuts.h"
#include "platform/dbus/PortalRemoteKeyboard.h"
#include "platform/null/input/NullGlobalHotKeys.h"
#include "shortcuts/HotkeyManager.h"
#include "shortcuts/KeyTable.h"
#include "shortcuts/ShortcutRecorderItem.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMetaType>
#include <QDBusVirtualObject>
#include <QKeyEvent>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QQuickWindow>
#include <QSGRendererInterface>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QtQml/qqmlextensionplugin.h>

#include <future>

#include <linux/input-event-codes.h>

Q_IMPORT_QML_PLUGIN(Quillvox_ShortcutsPlugin)

namespace {

constexpr quint64 kCommandOption = 0x180000;
constexpr quint32 kCtrlAlt = NativeHotKey::ControlMask | NativeHotKey::AltMask;

using Kind = ShortcutRecorderItem::Interpretation::Kind;

// X keycodes (evdev + 8) of a PC keyboard.
constexpr quint32 kEscape = 9;
constexpr quint32 kKeyQ = 24;
constexpr quint32 kKeyA = 38;
constexpr quint32 kKeyS = 39;
constexpr quint32 kLeftShift = 50;
constexpr quint32 kRightAlt = 108;
constexpr quint32 kPlayPause = 172;
constexpr quint32 kCapsLock = 66;

// The positional keys of the defaults, as the backend sees them.
NativeHotKey native(quint32 evdev, quint32 modifiers = kCtrlAlt)
{
    return {evdev, modifiers};
}

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

class TestHotkeyManager : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    int m_files = 0;
    QString m_path;
    std::unique_ptr<UserDefaults> m_defaults;
    std::unique_ptr<HotkeyManager> m_manager;
    NullGlobalHotKeys *m_backend = nullptr;
    RecordingControls m_controls;
    ScriptedSelection m_selection;
    std::unique_ptr<QQuickWindow> m_window; // for the recorder
    std::unique_ptr<FakePortal> m_portal;
    int m_portals = 0;

    bool startPortal()
    {
        m_portal = std::make_unique<FakePortal>(QStringLiteral("portal%1").arg(++m_portals));
        return m_portal->start();
    }
    HotkeyManager &startManager()
    {
        useDefaults({});
        m_manager = std::make_unique<HotkeyManager>(*m_defaults, std::make_unique<PortalGlobalShortcuts>(),
                                                    m_selection, m_controls);
        return *m_manager;
    }

    bool showWindow()
    {
        m_window = std::make_unique<QQuickWindow>();
        m_window->resize(200, 50);
        m_window->show();
        m_window->requestActivate();
        return QTest::qWaitForWindowActive(m_window.get());
    }

    // A fresh store with these raw INI lines under [General].
    void useDefaults(const QByteArray &iniLines)
    {
        m_manager.reset();
        m_path = m_dir.filePath(QStringLiteral("defaults%1.conf").arg(++m_files));
        QFile f(m_path);
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.write("[General]\n" + iniLines);
        f.close();
        m_defaults = std::make_unique<UserDefaults>(m_path);
    }

    std::unique_ptr<HotkeyManager> makeManager(std::unique_ptr<NullGlobalHotKeys> backend = {})
    {
        if (!backend)
            backend = std::make_unique<NullGlobalHotKeys>();
        m_backend = backend.get();
        return std::make_unique<HotkeyManager>(*m_defaults, std::move(backend), m_selection, m_controls);
    }

    // One physical press and release.
    bool tap(const NativeHotKey &hotKey, quint32 &clock)
    {
        const bool delivered = m_backend->press(hotKey, clock += 100);
        m_backend->release(hotKey, clock += 50);
        return delivered;
    }

    // Every binding as shown, in row order, read through the manager's properties.
    static QStringList allParts(const HotkeyManager &m)
    {
        QStringList all;
        for (const char *row : {"current", "playPause", "stop", "skipBack", "skipForward", "cycleSpeed"}) {
            const quint32 key = m.property(QByteArray(row).append("Key").constData()).toUInt();
            const quint64 modifiers =
                m.property(QByteArray(row).append("Modifiers").constData()).toULongLong();
            all.append(HotkeyManager::shortcutParts(key, modifiers).join(QString()));
        }
        return all;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
        QVERIFY2(QDBusConnection::sessionBus().isConnected(), "needs a session bus (dbus-run-session)");
        PortalGlobalShortcuts::registerTypes();
        QVERIFY(!PortalGlobalShortcuts::isAvailable(QDBusConnection::sessionBus(), 1000));
    }

    void init()
    {
        m_controls = RecordingControls();
        m_selection = ScriptedSelection();
        // Most tests start from the defaults; the others replace the manager.
        useDefaults({});
        m_manager = makeManager();
    }

    void cleanup()
    {
        m_manager.reset();
        m_window.reset();
        if (m_portal)
            m_portal->vanish();
        m_portal.reset();
    }

    // Every binding is written back at load, as loaded; a bad stored value falls back to the default.
    void loading_data()
    {
        QTest::addColumn<QByteArray>("stored");
        QTest::addColumn<QStringList>("parts");
        // What the store holds afterwards for the row that was stored.
        QTest::addColumn<QString>("keyCodeKey");
        QTest::addColumn<QString>("writtenKeyCode");
        QTest::addColumn<QString>("writtenModifiers");

        const QStringList defaults = {"⌥⌘S", "⌥⌘E", "⌥⌘Q", "⌥⌘W", "⌥⌘R", "⌥⌘T"};
        const auto row = [&](const char *name, const char *stored, int changed, const char *parts,
                             const char *keyCodeKey, const char *keyCode, const char *modifiers) {
            QStringList l = defaults;
            if (changed >= 0)
                l[changed] = QString::fromUtf8(parts);
            QTest::newRow(name) << QByteArray(stored) << l << QString::fromLatin1(keyCodeKey)
                                << QString::fromLatin1(keyCode) << QString::fromLatin1(modifiers);
        };
        // Row -1: every binding shows its default.
        row("nothing stored", "", -1, "", "skipBackKeyCode", "13", "1572864");
        row("narration key without modifiers is ignored", "hotkeyKeyCode=12\n", -1, "", "hotkeyKeyCode", "1",
            "1572864");
        row("narration key and modifiers", "hotkeyKeyCode=12\nhotkeyModifiers=1048576\n", 0, "⌘Q",
            "hotkeyKeyCode", "12", "1048576");
        row("narration code naming no key becomes S with the stored modifiers",
            "hotkeyKeyCode=52\nhotkeyModifiers=262144\n", 0, "⌃S", "hotkeyKeyCode", "1", "262144");
        row("narration key -1: both default", "hotkeyKeyCode=-1\nhotkeyModifiers=262144\n", -1, "",
            "hotkeyKeyCode", "1", "1572864");
        row("stop code naming no key keeps its own modifiers", "stopKeyCode=52\nstopModifiers=262144\n", 2,
            "⌃Q", "stopKeyCode", "12", "262144");
        row("stop key -1 falls back alone", "stopKeyCode=-1\nstopModifiers=131072\n", 2, "⇧Q", "stopKeyCode",
            "12", "131072");
        row("play/pause key without modifiers keeps the key", "playPauseKeyCode=0\n", 1, "⌥⌘A",
            "playPauseKeyCode", "0", "1572864");
        row("cycle speed modifiers with foreign bits kept", "cycleSpeedModifiers=1900544\n", 5, "⌃⌥⌘T",
            "cycleSpeedKeyCode", "17", "1900544");
    }

    void loading()
    {
        QFETCH(QByteArray, stored);
        QFETCH(QString, keyCodeKey);

        useDefaults(stored);
        m_manager = makeManager();
        QTEST(allParts(*m_manager), "parts");
        for (int b = 0; b < HotkeyManager::kBindingCount; ++b)
            QVERIFY(m_manager->isRegistered(HotkeyManager::Binding(b)));
        QCOMPARE(m_backend->grabbed().size(), 6);

        m_defaults->sync();
        QSettings raw(m_path, QSettings::IniFormat);
        QCOMPARE(raw.allKeys().size(), 12);
        QTEST(raw.value(keyCodeKey).toString(), "writtenKeyCode");
        QString modifiersKey = keyCodeKey;
        modifiersKey.replace(u"KeyCode"_qs, u"Modifiers"_qs);
        QTEST(raw.value(modifiersKey).toString(), "writtenModifiers");
    }

    void shortcutParts()
    {
        const std::tuple<quint32, quint64, QStringList, const char *> rows[] = {
            {KeyTable::kVK_F1, 0x40000 | 0x20000 | 0x100000, {"⌃", "⇧", "⌘", "?"}, "Ctrl+Shift+Super+F1"},
            {0, 0x1E0000, {"⌃", "⌥", "⇧", "⌘", "A"}, "Ctrl+Alt+Shift+Super+A"}, // all four in fixed order
            {49, 0, {"Space"}, "Space"},
            {53, 0x810000, {"⎋"}, "Esc"}, // foreign bits show nothing
            {76, 0x100000, {"⌘", "?"}, "Ctrl+Num Enter"},
            {36, 0x80000, {"⌥", "↩"}, "Alt+Enter"}};
        for (const auto &[key, modifiers, parts, label] : rows) {
            QCOMPARE(HotkeyManager::shortcutParts(key, modifiers), parts);
            QCOMPARE(HotkeyManager::shortcutLabel(key, modifiers), QString::fromUtf8(label));
        }
    }

    // An update persists the binding, publishes it and moves the grab. Re-registering a combination
    // creates the new registration before the old one goes: the grab is never released in between.
    void updating()
    {
        m_manager->updateHotkey(KeyTable::kVK_ANSI_S, kCommandOption);
        m_manager->registerPlaybackHotKeys();
        QCOMPARE(m_backend->grabCount(native(KEY_S)), 1);
        QCOMPARE(m_backend->ungrabCount(native(KEY_S)), 0);
        QCOMPARE(m_backend->ungrabCount(native(KEY_E)), 0);
        QCOMPARE(m_backend->grabbed().size(), 6);

        QSignalSpy key(m_manager.get(), &HotkeyManager::stopKeyChanged);
        QSignalSpy modifiers(m_manager.get(), &HotkeyManager::stopModifiersChanged);
        QSignalSpy display(m_manager.get(), &HotkeyManager::displayStringChanged);
        m_manager->updateStopHotKey(KeyTable::kVK_F1, 0x20000);
        QCOMPARE(key.count(), 1);
        QCOMPARE(modifiers.count(), 1);
        QCOMPARE(display.count(), 0); // only the narration shortcut is the display string
        QCOMPARE(m_manager->stopKey(), KeyTable::kVK_F1);
        QCOMPARE(m_manager->stopModifiers(), quint64(0x20000));
        QCOMPARE(m_defaults->unsigned32(QStringLiteral("stopKeyCode")), 122u);
        QCOMPARE(m_defaults->unsigned64(QStringLiteral("stopModifiers")), quint64(0x20000));
        quint32 clock = 0;
        QVERIFY(!tap(native(KEY_Q), clock));
        QVERIFY(tap(native(KEY_F1, NativeHotKey::ShiftMask), clock));
        QVERIFY(tap(native(KEY_E), clock));
        QCOMPARE(m_controls.calls, (QStringList{"stop", "togglePlayPause"}));

        // A key without a key code on this system is kept and stored, but nothing is grabbed for it.
        m_manager->updateCycleSpeedHotKey(KeyTable::kVK_Function, kCommandOption);
        QVERIFY(!m_manager->cycleSpeedRegistered());
        QCOMPARE(m_manager->cycleSpeedKey(), KeyTable::kVK_Function);
        QCOMPARE(m_defaults->unsigned32(QStringLiteral("cycleSpeedKeyCode")), 63u);
        QCOMPARE(m_backend->grabbed(),
                 (QSet<NativeHotKey>{native(KEY_S), native(KEY_E), native(KEY_W), native(KEY_R),
                                     native(KEY_F1, NativeHotKey::ShiftMask)}));
    }

    void sharedCombination()
    {
        QSignalSpy stopStatus(m_manager.get(), &HotkeyManager::stopRegisteredChanged);
        quint32 clock = 0;

        // Stop takes play/pause's combination: play/pause is the earlier row and keeps firing.
        m_manager->updateStopHotKey(KeyTable::kVK_ANSI_E, kCommandOption);
        QVERIFY(m_manager->playPauseRegistered());
        QVERIFY(!m_manager->stopRegistered());
        QCOMPARE(stopStatus.count(), 1);
        QVERIFY(!m_backend->isGrabbed(native(KEY_Q)));
        QCOMPARE(m_backend->grabCount(native(KEY_E)), 1);
        QVERIFY(tap(native(KEY_E), clock));
        QCOMPARE(m_controls.calls, QStringList{"togglePlayPause"});

        // Play/pause moves away: the combination stays grabbed and now stops.
        m_manager->updatePlayPauseHotKey(KeyTable::kVK_ANSI_Y, kCommandOption);
        QVERIFY(m_manager->stopRegistered());
        QCOMPARE(stopStatus.count(), 2);
        QCOMPARE(m_backend->ungrabCount(native(KEY_E)), 0);
        QVERIFY(tap(native(KEY_E), clock));
        QCOMPARE(m_controls.calls, (QStringList{"togglePlayPause", "stop"}));

        // The narration row comes first of all.
        m_selection.text = QStringLiteral("x");
        m_manager->updateHotkey(KeyTable::kVK_ANSI_E, kCommandOption);
        QVERIFY(m_manager->hotkeyRegistered());
        QVERIFY(!m_manager->stopRegistered());
        QVERIFY(tap(native(KEY_E), clock));
        QCOMPARE(m_selection.captures, 1);
        QVERIFY(!m_backend->isGrabbed(native(KEY_S)));

        // The last registration of a combination releases its grab.
        m_manager->updateHotkey(KeyTable::kVK_ANSI_S, kCommandOption);
        m_manager->updateStopHotKey(KeyTable::kVK_ANSI_Q, kCommandOption);
        QVERIFY(!m_backend->isGrabbed(native(KEY_E)));
        QCOMPARE(m_backend->ungrabCount(native(KEY_E)), 1);
    }

    void refusedGrabIsPublished()
    {
        useDefaults({});
        auto backend = std::make_unique<NullGlobalHotKeys>();
        backend->setTakenElsewhere(native(KEY_S));
        // Named as the user knows the combination, in the log and for the status.
        QTest::ignoreMessage(QtWarningMsg, "Ctrl+Alt+S is used by another application");
        m_manager = makeManager(std::move(backend));

        QVERIFY(!m_manager->hotkeyRegistered());
        QCOMPARE(m_manager->registrationProblem(HotkeyManager::Narration),
                 QStringLiteral("Ctrl+Alt+S is used by another application"));
        QVERIFY(m_manager->playPauseRegistered());
        QCOMPARE(m_manager->registrationProblem(HotkeyManager::PlayPause), QString());
        quint32 clock = 0;
        QVERIFY(!tap(native(KEY_S), clock));
        QCOMPARE(m_selection.captures, 0);

        // No fallback: the binding stays as chosen; another combination is taken as usual.
        QSignalSpy status(m_manager.get(), &HotkeyManager::hotkeyRegisteredChanged);
        m_manager->updateHotkey(KeyTable::kVK_ANSI_A, kCommandOption);
        QVERIFY(m_manager->hotkeyRegistered());
        QCOMPARE(status.count(), 1);
        QCOMPARE(m_manager->registrationProblem(HotkeyManager::Narration), QString());
    }

    void keyRepeat()
    {
        // Events of the narration combination's key (+t press at time t, -t release at time t), the
        // modifiers of the releases, and the presses that count.
        const std::tuple<QList<int>, quint32, int> rows[] = {
            {{+10, -60}, kCtrlAlt, 1},
            {{+10, +510, +540, +570, -590}, kCtrlAlt, 1},               // held, detectable auto-repeat
            {{+10, -510, +510, -540, +540, -600}, kCtrlAlt, 1},         // held, release-press pairs
            {{+10, -60, +200, -260}, kCtrlAlt, 2},                      // two taps
            {{+10, -510, +510, -600, +900, +1400, -1500}, kCtrlAlt, 2}, // two holds
            {{+10, +20}, kCtrlAlt, 1},                                  // a press while held is a repeat
            // Letting go of a modifier before the key changes the modifiers of the key's release.
            {{+10, -80, +300}, NativeHotKey::AltMask, 2}};
        for (const auto &[events, releaseModifiers, presses] : rows) {
            useDefaults({});
            m_manager = makeManager();
            m_controls.calls.clear();
            for (const int e : events) {
                if (e > 0)
                    m_backend->press(native(KEY_E), quint32(e));
                else
                    m_backend->release(native(KEY_E, releaseModifiers), quint32(-e));
            }
            QCOMPARE(m_controls.calls.size(), presses);
        }
    }

    void actions()
    {
        const auto none = std::optional<QString>();
        // The key, the playback frame and what the selection gives: what the controller is asked.
        const std::tuple<quint32, qint64, std::optional<QString>, QStringList> rows[] = {
            {KEY_E, 0, none, {"togglePlayPause"}},
            {KEY_Q, 0, none, {"stop"}},
            {KEY_T, 0, none, {"cyclePlaybackSpeed"}},
            {KEY_W, 0, none, {"seek:-120000"}}, // skip back at the start gives a negative frame
            {KEY_W, 200000, none, {"seek:80000"}},
            {KEY_R, 1000, none, {"seek:121000"}},                             // skip forward is not clamped
            {KEY_S, 0, u"  two  words \n"_qs, {u"speak:  two  words \n"_qs}}, // as captured, spaces and all
            {KEY_S, 0, QString(), {"speak:"}}, // empty text still goes to the controller
            {KEY_S, 0, none, {}}};             // nothing captured does nothing
        quint32 clock = 0;
        for (const auto &[evdev, frame, captured, calls] : rows) {
            m_controls = RecordingControls();
            m_controls.frame = frame;
            m_selection = ScriptedSelection();
            m_selection.text = captured;
            QVERIFY(tap(native(evdev), clock));
            QCOMPARE(m_selection.captures, evdev == KEY_S ? 1 : 0);
            // The narration starts after the key handler has returned.
            QVERIFY(evdev != KEY_S || m_controls.calls.isEmpty());
            QCoreApplication::processEvents();
            QCOMPARE(m_controls.calls, calls);
        }
    }

    void withoutDisplayNothingRegisters()
    {
        useDefaults({});
        m_manager = makeManager(std::make_unique<NullGlobalHotKeys>(false));
        QVERIFY(!m_manager->hotkeyRegistered());
        QVERIFY(!m_manager->cycleSpeedRegistered());
        // The narration shortcut is still the one the menu and the settings show.
        QCOMPARE(m_manager->displayString(), QStringLiteral("⌥⌘S"));
        QCOMPARE(m_manager->displayParts(), (QStringList{"⌥", "⌘", "S"}));
        QCOMPARE(m_manager->displayLabel(), QStringLiteral("Ctrl+Alt+S"));
    }

    // The control a settings row records a new combination with (Escape and a letter alone: recorder()).
    void interpretKeyPress()
    {
        struct Row
        {
            quint32 scanCode;
            int qtKey;
            Qt::KeyboardModifiers modifiers;
            Kind kind;
            quint32 key = 0;
            quint64 flags = 0;
        };
        const Qt::KeyboardModifiers none, ctrl = Qt::ControlModifier;
        const Row rows[] = {
            {kKeyA, Qt::Key_A, Qt::ShiftModifier, Kind::Record, 0, 0x20000},
            {kKeyQ, Qt::Key_Q, Qt::MetaModifier, Kind::Record, 12, 0x40000}, // Super is Control
            // The key by position, not by layout: AZERTY's A on the Q key.
            {kKeyQ, Qt::Key_A, ctrl, Kind::Record, 12, 0x100000},
            {kCapsLock, Qt::Key_CapsLock, ctrl, Kind::Ignore},
            {kLeftShift, Qt::Key_Shift, ctrl | Qt::ShiftModifier, Kind::Ignore},
            {kRightAlt, Qt::Key_AltGr, ctrl, Kind::Ignore},
            {kPlayPause, Qt::Key_MediaTogglePlayPause, ctrl, Kind::Ignore}, // a key with no name
            {0, Qt::Key_S, ctrl, Kind::Ignore}};                            // no native key code
        for (const Row &r : rows) {
            const auto meaning = ShortcutRecorderItem::interpretKeyPress(r.scanCode, r.qtKey, r.modifiers);
            QCOMPARE(int(meaning.kind), int(r.kind));
            QCOMPARE(meaning.key, r.key);
            QCOMPARE(meaning.modifiers, r.flags);
        }
    }

    // The row's control as the settings window uses it, through the QML module: it takes the focus and
    // every key while recording, records one combination, and is idle again; Escape only ends it.
    void recorder()
    {
        QVERIFY(showWindow());
        QQmlEngine engine;
        // Where qt_add_qml_module puts the module's files; Qt 6.4 does not look there by itself.
        engine.addImportPath(QStringLiteral("qrc:/qt/qml"));
        QQmlComponent component(&engine);
        component.setData("import Quillvox.Shortcuts\nShortcutRecorder { property var got: []; property int "
                          "finishedCount: 0\n onRecorded: (key, modifiers) => got = [key, modifiers]\n "
                          "onFinished: { finishedCount += 1; isRecording = false } }",
                          QUrl());
        std::unique_ptr<QObject> object(component.create());
        QVERIFY2(object, qPrintable(component.errorString()));
        auto *root = qobject_cast<QQuickItem *>(object.get());
        root->setParentItem(m_window->contentItem());
        auto *item = root->findChild<ShortcutRecorderItem *>();
        QVERIFY(item && !item->hasActiveFocus());
        const auto send = [&](QEvent::Type type, quint32 scanCode, int qtKey,
                              Qt::KeyboardModifiers modifiers) {
            QKeyEvent event(type, qtKey, modifiers, scanCode, 0, 0);
            event.ignore();
            QCoreApplication::sendEvent(m_window.get(), &event);
            return event.isAccepted();
        };
        const Qt::KeyboardModifiers ctrlAlt = Qt::ControlModifier | Qt::AltModifier;

        root->setProperty("isRecording", true);
        QTRY_VERIFY(item->hasActiveFocus());
        QVERIFY(send(QEvent::KeyPress, kKeyA, Qt::Key_A, {})); // a letter alone: taken, still waiting
        QVERIFY(item->recording());
        QVERIFY(send(QEvent::ShortcutOverride, kKeyS, Qt::Key_S, ctrlAlt));
        QVERIFY(send(QEvent::KeyPress, kKeyS, Qt::Key_S, ctrlAlt));
        QCOMPARE(root->property("finishedCount").toInt(), 1);
        QVERIFY(!item->recording());
        const QVariantList got = root->property("got").toList();
        QCOMPARE(got.size(), 2);
        QCOMPARE(got[0].toUInt(), 1u);
        QCOMPARE(got[1].toULongLong(), kCommandOption);
        QVERIFY(!send(QEvent::KeyPress, kKeyQ, Qt::Key_Q, Qt::ControlModifier)); // idle: keys pass on

        root->setProperty("got", QVariantList());
        root->setProperty("isRecording", true);
        QVERIFY(item->recording());
        QVERIFY(send(QEvent::KeyPress, kEscape, Qt::Key_Escape, {}));
        QCOMPARE(root->property("finishedCount").toInt(), 2);
        QVERIFY(!item->recording());
        QVERIFY(root->property("got").toList().isEmpty());
    }

    // Through the desktop portal.
    void bindsTheSixActionsAndFollowsTheAssignments()
    {
        QVERIFY(startPortal());
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
        QVERIFY(startPortal());
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
        QVERIFY(startPortal());
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
        QVERIFY(startPortal());
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

QTEST_MAIN(TestHotkeyManager)
#include "tst_hotkeymanager.moc"
