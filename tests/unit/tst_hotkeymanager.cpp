// SPDX-License-Identifier: GPL-3.0-or-later
// The global shortcuts on a null backend and the recorder a settings row takes a new combination with; then
// the desktop portal, against a portal of our own on a private session bus: session and binding, the rows
// following what the desktop assigned, presses by id, a portal that comes back; and the remote keyboard the
// capture copies with on KDE: the user asked once, keys in order, a refusal sending nothing. Underneath, the
// table of keys by position, their names and modifiers.
#include "ShortcutDoubles.h"
#include "core/UserDefaults.h"
#include "platform/dbus/PortalGlobalShortcuts.h"
#include "platform/dbus/PortalRemoteKeyboard.h"
#include "platform/null/input/NullGlobalHotKeys.h"
#include "shortcuts/HotkeyManager.h"
#include "shortcuts/KeyTable.h"
#include "shortcuts/ShortcutRecorderItem.h"

#include <QDBusConnection>
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
// X keycodes (evdev + 8) of a PC keyboard.
constexpr quint32 kEscape = 9, kKeyQ = 24, kKeyA = 38, kKeyS = 39, kLeftShift = 50, kRightAlt = 108,
                  kPlayPause = 172, kCapsLock = 66;
using Kind = ShortcutRecorderItem::Interpretation::Kind;
using Entries = QList<PortalShortcutEntry>;
using Keys = QList<KeyboardInjector::KeyEvent>;

// The positional keys of the defaults, as the backend sees them.
NativeHotKey native(quint32 evdev, quint32 modifiers = kCtrlAlt)
{
    return {evdev, modifiers};
}

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
        return m_bus.registerVirtualObject(latin1(PortalGlobalShortcuts::kPath), this) && present(true);
    }
    bool present(bool on)
    {
        const QString service = latin1(PortalGlobalShortcuts::kService);
        return on ? m_bus.registerService(service) : m_bus.unregisterService(service);
    }
    // A GlobalShortcuts signal for `session`, these arguments after it.
    void emitSignal(const char *name, const QString &session, const QVariantList &arguments)
    {
        QDBusMessage signal = QDBusMessage::createSignal(
            latin1(PortalGlobalShortcuts::kPath), latin1(PortalGlobalShortcuts::kInterface), latin1(name));
        signal.setArguments(QVariantList{QVariant::fromValue(QDBusObjectPath(session))} + arguments);
        m_bus.send(signal);
    }
    void activate(const QString &session, const QString &id)
    {
        emitSignal("Activated", session, {id, qulonglong(1), QVariantMap()});
    }

    // A property of every shortcut bound, in order ("id": their ids).
    QStringList boundValues(const char *name) const
    {
        QStringList values;
        for (const PortalShortcutEntry &entry : bound)
            values.append(qstrcmp(name, "id") ? entry.properties.value(latin1(name)).toString() : entry.id);
        return values;
    }

    QString introspect(const QString &) const override { return {}; }

    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override
    {
        const QString member = message.member();
        const QVariantList args = message.arguments();
        const bool remote = message.interface() == QLatin1String(PortalRemoteKeyboard::kInterface);
        if (member == u"Get") {
            const uint value =
                args.value(1).toString() == u"AvailableDeviceTypes" ? availableDeviceTypes : 1u;
            return connection.send(message.createReply(QVariant::fromValue(QDBusVariant(value))));
        }
        if (remote && member == u"NotifyKeyboardKeycode") {
            keys.append({quint32(args.at(2).toInt()), args.at(3).toUInt() == 1});
            return connection.send(message.createReply());
        }
        const QVariantMap options = qdbus_cast<QVariantMap>(args.constLast());
        const QString sender = message.service().mid(1).replace(u'.', u'_');
        const QString request = u"/org/freedesktop/portal/desktop/request/%1/%2"_qs.arg(
            sender, options.value(u"handle_token"_qs).toString());
        QVariantMap results;
        uint answer = 0;
        if (remote && member == u"Start") {
            ++starts;
            answer = startAnswer;
            results.insert(u"devices"_qs, grantedDevices);
        } else if (remote && member == u"SelectDevices") {
            selectedTypes = options.value(u"types"_qs).toUInt();
        } else if (member == u"CreateSession") {
            ++sessionsCreated;
            session = u"/org/freedesktop/portal/desktop/session/%1/%2"_qs.arg(
                sender, options.value(u"session_handle_token"_qs).toString());
            results.insert(u"session_handle"_qs, session);
        } else if (member == u"BindShortcuts") {
            boundSession = args.at(0).value<QDBusObjectPath>().path();
            bound = qdbus_cast<Entries>(args.at(1).value<QDBusArgument>());
            Entries assigned;
            for (const PortalShortcutEntry &entry : std::as_const(bound)) {
                const QString trigger = entry.properties.value(u"preferred_trigger"_qs).toString();
                assigned.append({entry.id,
                                 {{u"trigger_description"_qs,
                                   refuse.contains(entry.id) ? QString() : trigger.toLower()}}});
            }
            results.insert(u"shortcuts"_qs, QVariant::fromValue(assigned));
        } else {
            return false;
        }
        connection.send(message.createReply(QVariant::fromValue(QDBusObjectPath(request))));
        QDBusMessage response =
            QDBusMessage::createSignal(request, u"org.freedesktop.portal.Request"_qs, u"Response"_qs);
        return connection.send(response << answer << results);
    }

    QStringList refuse;
    uint availableDeviceTypes = 1, startAnswer = 0, grantedDevices = 1, selectedTypes = 0;
    int starts = 0, sessionsCreated = 0;
    Keys keys;
    QString session, boundSession;
    Entries bound;

private:
    static QString latin1(const char *text) { return QString::fromLatin1(text); }
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

} // namespace

class TestHotkeyManager : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    int m_files = 0, m_portals = 0;
    quint32 m_clock = 0;
    QString m_path;
    std::unique_ptr<UserDefaults> m_defaults;
    std::unique_ptr<HotkeyManager> m_manager;
    NullGlobalHotKeys *m_backend = nullptr;
    RecordingControls m_controls;
    ScriptedSelection m_selection;
    std::unique_ptr<FakePortal> m_portal;

    bool startPortal()
    {
        stopPortal();
        m_portal = std::make_unique<FakePortal>(QStringLiteral("portal%1").arg(++m_portals));
        return m_portal->start();
    }
    // The name is given up before the connection closes: the bus may see a new portal's claim first.
    void stopPortal()
    {
        if (m_portal)
            m_portal->present(false);
        m_portal.reset();
    }

    // A manager on a fresh store with these raw INI lines under [General], and this backend.
    template<typename Backend = NullGlobalHotKeys>
    void restart(const QByteArray &iniLines = {},
                 std::unique_ptr<Backend> backend = std::make_unique<Backend>())
    {
        m_manager.reset();
        m_path = m_dir.filePath(QStringLiteral("defaults%1.conf").arg(++m_files));
        QFile f(m_path);
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.write("[General]\n" + iniLines);
        f.close();
        m_defaults = std::make_unique<UserDefaults>(m_path);
        if constexpr (std::is_same_v<Backend, NullGlobalHotKeys>)
            m_backend = backend.get();
        m_manager = std::make_unique<HotkeyManager>(*m_defaults, std::move(backend), m_selection, m_controls);
    }

    // One physical press and release: whether the press was delivered.
    bool tap(const NativeHotKey &hotKey)
    {
        const bool delivered = m_backend->press(hotKey, m_clock += 100);
        m_backend->release(hotKey, m_clock += 50);
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
        restart();
    }

    void cleanup()
    {
        m_manager.reset();
        stopPortal();
    }

    // Every binding is written back at load, as loaded; a bad stored value falls back to the default. A row:
    // the raw lines, the changed row (-1: every binding shows its default) and what it shows, then the stored
    // row's key code key and what it and the modifiers hold afterwards.
    void loading()
    {
        for (const auto &[stored, changed, parts, written] :
             {std::tuple("", -1, "", "skipBackKeyCode 13 1572864"),
              {"hotkeyKeyCode=12\n", -1, "", "hotkeyKeyCode 1 1572864"}, // key without modifiers: ignored
              {"hotkeyKeyCode=12\nhotkeyModifiers=1048576\n", 0, "⌘Q", "hotkeyKeyCode 12 1048576"},
              // A code naming no key becomes S with the stored modifiers.
              {"hotkeyKeyCode=52\nhotkeyModifiers=262144\n", 0, "⌃S", "hotkeyKeyCode 1 262144"},
              {"hotkeyKeyCode=-1\nhotkeyModifiers=262144\n", -1, "", "hotkeyKeyCode 1 1572864"}, // both
              // Stop's code naming no key keeps its own modifiers; its key -1 falls back alone.
              {"stopKeyCode=52\nstopModifiers=262144\n", 2, "⌃Q", "stopKeyCode 12 262144"},
              {"stopKeyCode=-1\nstopModifiers=131072\n", 2, "⇧Q", "stopKeyCode 12 131072"},
              {"playPauseKeyCode=0\n", 1, "⌥⌘A", "playPauseKeyCode 0 1572864"}, // keeps the key
              {"cycleSpeedModifiers=1900544\n", 5, "⌃⌥⌘T", "cycleSpeedKeyCode 17 1900544"}}) { // foreign bits
            restart(stored);
            QStringList all = {"⌥⌘S", "⌥⌘E", "⌥⌘Q", "⌥⌘W", "⌥⌘R", "⌥⌘T"};
            if (changed >= 0)
                all[changed] = QString::fromUtf8(parts);
            QCOMPARE(allParts(*m_manager), all);
            for (int b = 0; b < HotkeyManager::kBindingCount; ++b)
                QVERIFY(m_manager->isRegistered(HotkeyManager::Binding(b)));
            QCOMPARE(m_backend->grabbed().size(), 6);
            m_defaults->sync();
            QSettings raw(m_path, QSettings::IniFormat);
            QCOMPARE(raw.allKeys().size(), 12);
            const QStringList expected = QString::fromLatin1(written).split(u' ');
            const QString modifiersKey = QString(expected[0]).replace(u"KeyCode"_qs, u"Modifiers"_qs);
            QCOMPARE((QStringList{expected[0], raw.value(expected[0]).toString(),
                                  raw.value(modifiersKey).toString()}),
                     expected);
        }
    }

    void shortcutParts()
    {
        const std::tuple<quint32, quint64, QStringList, const char *> rows[] = {
            {KeyTable::kVK_F1, 0x40000 | 0x20000 | 0x100000, {"⌃", "⇧", "⌘", "?"}, "Ctrl+Shift+Super+F1"},
            {0, 0x1E0000, {"⌃", "⌥", "⇧", "⌘", "A"}, "Ctrl+Alt+Shift+Super+A"}, // all four in fixed order
            {49, 0, {"Space"}, "Space"},
            {53, 0x810000, {"⎋"}, "Esc"}, // foreign bits show nothing
            {76, 0x100000, {"⌘", "?"}, "Ctrl+Num Enter"},
            {36, 0x80000, {"⌥", "↩"}, "Alt+Enter"},
            {48, 0, {"⇥"}, "Tab"},
            {63, 0, {"?"}, "Fn"}}; // Function has a name of its own (keyTable())
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
        QCOMPARE(std::tuple(m_backend->grabCount(native(KEY_S)), m_backend->ungrabCount(native(KEY_S)),
                            m_backend->ungrabCount(native(KEY_E)), m_backend->grabbed().size()),
                 std::tuple(1, 0, 0, qsizetype(6)));

        QSignalSpy key(m_manager.get(), &HotkeyManager::stopKeyChanged),
            modifiers(m_manager.get(), &HotkeyManager::stopModifiersChanged),
            display(m_manager.get(), &HotkeyManager::displayStringChanged);
        m_manager->updateStopHotKey(KeyTable::kVK_F1, 0x20000);
        // Only the narration shortcut is the display string.
        QCOMPARE((QList<qsizetype>{key.count(), modifiers.count(), display.count()}),
                 (QList<qsizetype>{1, 1, 0}));
        const auto shiftF1 = std::pair(122u, quint64(0x20000));
        QCOMPARE(std::pair(m_manager->stopKey(), m_manager->stopModifiers()), shiftF1);
        QCOMPARE(std::pair(*m_defaults->unsigned32(u"stopKeyCode"_qs),
                           *m_defaults->unsigned64(u"stopModifiers"_qs)),
                 shiftF1);
        QCOMPARE((QList<bool>{tap(native(KEY_Q)), tap(native(KEY_F1, NativeHotKey::ShiftMask)),
                              tap(native(KEY_E))}),
                 (QList<bool>{false, true, true}));
        QCOMPARE(m_controls.calls, (QStringList{"stop", "togglePlayPause"}));

        // A key without a key code on this system is kept and stored, but nothing is grabbed for it.
        m_manager->updateCycleSpeedHotKey(KeyTable::kVK_Function, kCommandOption);
        QCOMPARE(std::tuple(m_manager->cycleSpeedRegistered(), m_manager->cycleSpeedKey(),
                            m_defaults->unsigned32(u"cycleSpeedKeyCode"_qs)),
                 std::tuple(false, KeyTable::kVK_Function, std::optional(63u)));
        QCOMPARE(m_backend->grabbed(),
                 (QSet<NativeHotKey>{native(KEY_S), native(KEY_E), native(KEY_W), native(KEY_R),
                                     native(KEY_F1, NativeHotKey::ShiftMask)}));
    }

    // Rows sharing a combination: the earliest row has it, the next takes it over without a new grab when
    // it moves away, and the last one to leave releases it.
    void sharedCombination()
    {
        QSignalSpy stopStatus(m_manager.get(), &HotkeyManager::stopRegisteredChanged);
        m_manager->updateStopHotKey(KeyTable::kVK_ANSI_E, kCommandOption); // play/pause's
        QVERIFY(m_manager->playPauseRegistered() && !m_manager->stopRegistered());
        QVERIFY(!m_backend->isGrabbed(native(KEY_Q)) && m_backend->grabCount(native(KEY_E)) == 1);
        tap(native(KEY_E));
        QCOMPARE(m_controls.calls, QStringList{"togglePlayPause"});

        m_manager->updatePlayPauseHotKey(KeyTable::kVK_ANSI_Y, kCommandOption);
        QCOMPARE(std::tuple(m_manager->stopRegistered(), stopStatus.count(),
                            m_backend->ungrabCount(native(KEY_E))),
                 std::tuple(true, qsizetype(2), 0));
        tap(native(KEY_E));
        QCOMPARE(m_controls.calls, (QStringList{"togglePlayPause", "stop"}));

        m_selection.text = QStringLiteral("x");
        m_manager->updateHotkey(KeyTable::kVK_ANSI_E, kCommandOption); // the narration row comes first of all
        QVERIFY(m_manager->hotkeyRegistered() && !m_manager->stopRegistered());
        tap(native(KEY_E));
        QVERIFY(m_selection.captures == 1 && !m_backend->isGrabbed(native(KEY_S)));

        m_manager->updateHotkey(KeyTable::kVK_ANSI_S, kCommandOption);
        m_manager->updateStopHotKey(KeyTable::kVK_ANSI_Q, kCommandOption);
        QCOMPARE(std::pair(m_backend->isGrabbed(native(KEY_E)), m_backend->ungrabCount(native(KEY_E))),
                 std::pair(false, 1));
    }

    // A combination another application holds is named as the user knows it, in the log and for the status.
    // No fallback: the binding stays as chosen, and another combination is taken as usual.
    void refusedGrabIsPublished()
    {
        auto backend = std::make_unique<NullGlobalHotKeys>();
        backend->setTakenElsewhere(native(KEY_S));
        QTest::ignoreMessage(QtWarningMsg, "Ctrl+Alt+S is used by another application");
        restart({}, std::move(backend));
        QVERIFY(!m_manager->hotkeyRegistered() && m_manager->playPauseRegistered());
        QCOMPARE(std::pair(m_manager->registrationProblem(HotkeyManager::Narration),
                           m_manager->registrationProblem(HotkeyManager::PlayPause)),
                 std::pair(u"Ctrl+Alt+S is used by another application"_qs, QString()));

        QSignalSpy status(m_manager.get(), &HotkeyManager::hotkeyRegisteredChanged);
        m_manager->updateHotkey(KeyTable::kVK_ANSI_A, kCommandOption);
        QCOMPARE(std::tuple(m_manager->hotkeyRegistered(), status.count(),
                            m_manager->registrationProblem(HotkeyManager::Narration)),
                 std::tuple(true, qsizetype(1), QString()));
        // Without a display nothing registers.
        restart({}, std::make_unique<NullGlobalHotKeys>(false));
        QVERIFY(!m_manager->hotkeyRegistered() && !m_manager->cycleSpeedRegistered());
        // The narration shortcut is still the one the menu and the settings show.
        QCOMPARE(std::tuple(m_manager->displayString(), m_manager->displayParts(), m_manager->displayLabel()),
                 std::tuple(u"⌥⌘S"_qs, QStringList{"⌥", "⌘", "S"}, u"Ctrl+Alt+S"_qs));
    }

    void keyRepeat()
    {
        // Events of the narration combination's key (+t press at time t, -t release at time t), the
        // modifiers of the releases, and the presses that count. A hold repeated as release-press pairs:
        // tst_x11capture.
        const std::tuple<QList<int>, quint32, int> rows[] = {
            {{+10, +510, +540, +570, -590}, kCtrlAlt, 1}, // held: presses while held are repeats
            {{+10, -60, +200, -260}, kCtrlAlt, 2},        // two taps
            {{+10, -510, +510, -600, +900, +1400, -1500}, kCtrlAlt, 2}, // two holds
            // Letting go of a modifier before the key changes the modifiers of the key's release.
            {{+10, -80, +300}, NativeHotKey::AltMask, 2}};
        for (const auto &[events, releaseModifiers, presses] : rows) {
            restart();
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

    // What the controller is asked for the key and what the selection gives. The other actions: by id,
    // in pressesAndPortalRestart().
    void actions()
    {
        const auto none = std::optional<QString>();
        const std::tuple<quint32, std::optional<QString>, QStringList> rows[] = {
            {KEY_W, none, {"seek:-120000"}}, // skip back at the start: not clamped
            {KEY_S, u"  two  words \n"_qs, {u"speak:  two  words \n"_qs}}, // as captured, spaces and all
            {KEY_S, QString(), {"speak:"}}, // empty text still goes to the controller
            {KEY_S, none, {}}};             // nothing captured does nothing
        for (const auto &[evdev, captured, calls] : rows) {
            m_controls = RecordingControls();
            m_selection = ScriptedSelection();
            m_selection.text = captured;
            QVERIFY(tap(native(evdev)));
            QCOMPARE(m_selection.captures, evdev == KEY_S ? 1 : 0);
            // The narration starts after the key handler has returned.
            QVERIFY(evdev != KEY_S || m_controls.calls.isEmpty());
            QCoreApplication::processEvents();
            QCOMPARE(m_controls.calls, calls);
        }
    }

    // The table of keys. Every named key has its names, and each one with a PC counterpart comes back from
    // its X keycode: no two keys share a position. Every letter and digit shows as itself; everything else
    // outside the short list shows as "?".
    void keyTable()
    {
        const QList<quint32> gaps = {52, 66, 68, 70, 77, 93, 94, 95, 102, 104, 108, 110, 112};
        const QString allowed = QStringLiteral("⇥↩↑→↓←⎋⌫?");
        int mapped = 0;
        for (quint32 code = 0; code < 300; ++code) {
            const bool expected = code <= 126 && !gaps.contains(code);
            const auto name = KeyTable::displayName(code);
            QVERIFY2(KeyTable::isNamedKey(code) == expected, qPrintable(QString::number(code)));
            QCOMPARE(name.has_value(), expected);
            QCOMPARE(KeyTable::linuxLabel(code).has_value(), expected);
            if (const auto x = KeyTable::xKeyCode(code)) {
                ++mapped;
                QCOMPARE(KeyTable::virtualKeyCodeForXKeyCode(*x), code);
            }
            if (!name)
                continue;
            const bool letterOrDigit =
                name->size() == 1 && (name->at(0).isDigit() || (name->at(0) >= u'A' && name->at(0) <= u'Z'));
            QVERIFY2(letterOrDigit || *name == u"Space" || (name->size() == 1 && allowed.contains(*name)),
                     qPrintable(QString::number(code) + u' ' + *name));
            QCOMPARE(name->size() == 1 && name->at(0).isLetterOrNumber(), letterOrDigit);
        }
        QCOMPARE(mapped, 113); // all but Function
        QCOMPARE(KeyTable::namedKeyCount(), 114);
        QVERIFY(!KeyTable::isNamedKey(4294967295u));
        // Below the evdev offset, and a media key no binding can name.
        for (const quint32 xKeyCode : {8u, quint32(KEY_PLAYPAUSE + 8)})
            QCOMPARE(KeyTable::virtualKeyCodeForXKeyCode(xKeyCode), std::nullopt);
        // The X keycode is the evdev code + 8 (and leads back to the same key: above). Command is Ctrl,
        // Option is Alt, Control is Super; digit 5 sits before 6 in codes, after in place; Function (63) has
        // no PC key.
        const std::optional<quint32> none;
        const std::pair<quint32, std::optional<quint32>> positions[] = {
            {0, KEY_A},        {8, KEY_C},         {12, KEY_Q},    {23, KEY_5}, {55, KEY_LEFTCTRL},
            {58, KEY_LEFTALT}, {59, KEY_LEFTMETA}, {105, KEY_F13}, {63, none},  {127, none}};
        for (const auto &[virtualKeyCode, evdev] : positions) {
            QCOMPARE(KeyTable::evdevCode(virtualKeyCode), evdev);
            QCOMPARE(KeyTable::xKeyCode(virtualKeyCode), evdev ? std::optional(*evdev + 8) : none);
        }
        // Flags, their X modifiers, and the flags those give back.
        const std::tuple<quint64, quint32, quint64> modifiers[] = {
            {0x40000, 0x40, 0x40000},    // Control is Super (Mod4)
            {0x100000, 0x04, 0x100000},  // Command is Ctrl
            {0x1E0000, 0x4d, 0x1E0000},  // all four
            {0x910000, 0x04, 0x100000}}; // Caps Lock and Function bits have no grab
        for (const auto &[flags, xModifiers, flagsBack] : modifiers) {
            QCOMPARE(KeyTable::xModifiers(flags), xModifiers);
            QCOMPARE(KeyTable::modifierFlagsForXModifiers(xModifiers), flagsBack);
        }
        // Ctrl and Meta: interpretKeyPress().
        QCOMPARE(
            KeyTable::modifierFlagsForQt(Qt::KeypadModifier | Qt::GroupSwitchModifier | Qt::ShiftModifier),
            0x20000ull);
    }

    // The control a settings row records a new combination with (Escape and a letter alone: recorder()).
    void interpretKeyPress()
    {
        const Qt::KeyboardModifiers none, ctrl = Qt::ControlModifier;
        const std::tuple<quint32, int, Qt::KeyboardModifiers, Kind, quint32, quint64> rows[] = {
            {kKeyA, Qt::Key_A, Qt::ShiftModifier, Kind::Record, 0, 0x20000},
            {kKeyQ, Qt::Key_Q, Qt::MetaModifier, Kind::Record, 12, 0x40000}, // Super is Control
            {kKeyQ, Qt::Key_A, ctrl, Kind::Record, 12, 0x100000}, // by position, not layout: AZERTY's A on Q
            {kCapsLock, Qt::Key_CapsLock, ctrl, Kind::Ignore, 0, 0},
            {kLeftShift, Qt::Key_Shift, ctrl | Qt::ShiftModifier, Kind::Ignore, 0, 0},
            {kRightAlt, Qt::Key_AltGr, ctrl, Kind::Ignore, 0, 0},
            {kPlayPause, Qt::Key_MediaTogglePlayPause, ctrl, Kind::Ignore, 0, 0}, // a key with no name
            {0, Qt::Key_S, ctrl, Kind::Ignore, 0, 0}};                            // no native key code
        for (const auto &[scanCode, qtKey, modifiers, kind, key, flags] : rows) {
            const auto meaning = ShortcutRecorderItem::interpretKeyPress(scanCode, qtKey, modifiers);
            QCOMPARE(std::tuple(int(meaning.kind), meaning.key, meaning.modifiers),
                     std::tuple(int(kind), key, flags));
        }
    }

    // The row's control as the settings window uses it, through the QML module: it takes the focus and
    // every key while recording, records one combination, and is idle again; Escape only ends it.
    void recorder()
    {
        QQuickWindow window;
        window.resize(200, 50);
        window.show();
        window.requestActivate();
        QVERIFY(QTest::qWaitForWindowActive(&window));
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
        root->setParentItem(window.contentItem());
        auto *item = root->findChild<ShortcutRecorderItem *>();
        QVERIFY(item && !item->hasActiveFocus());
        const auto send = [&](QEvent::Type type, quint32 scanCode, int qtKey,
                              Qt::KeyboardModifiers modifiers) {
            QKeyEvent event(type, qtKey, modifiers, scanCode, 0, 0);
            event.ignore();
            QCoreApplication::sendEvent(&window, &event);
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
        QCOMPARE(root->property("got").toList(), (QVariantList{1u, kCommandOption}));
        QVERIFY(!send(QEvent::KeyPress, kKeyQ, Qt::Key_Q, Qt::ControlModifier)); // idle: keys pass on

        root->setProperty("got", QVariantList());
        root->setProperty("isRecording", true);
        QVERIFY(send(QEvent::KeyPress, kEscape, Qt::Key_Escape, {}));
        QCOMPARE(root->property("finishedCount").toInt(), 2);
        QVERIFY(!item->recording());
        QVERIFY(root->property("got").toList().isEmpty());
    }

    // Through the desktop portal: the six actions bound on one session, registered where the desktop
    // assigned a key and shown in its words, a new binding sent again, a change in the desktop followed.
    void bindsTheSixActionsAndFollowsTheAssignments()
    {
        QVERIFY(startPortal());
        QVERIFY(askedElsewhere([] { return PortalGlobalShortcuts::isAvailable(); }));
        m_portal->refuse = {QStringLiteral("stop")};
        restart<PortalGlobalShortcuts>();
        QVERIFY(m_manager->bindsByAction() && !m_manager->hotkeyRegistered());
        QTRY_VERIFY(m_manager->hotkeyRegistered());
        QCOMPARE(std::pair(m_portal->sessionsCreated, m_portal->boundSession),
                 std::pair(1, m_portal->session));
        QCOMPARE(m_portal->boundValues("id"), QStringList({"narrate-selection", "toggle", "stop", "skip-back",
                                                           "skip-forward", "cycle-speed"}));
        QCOMPARE(m_portal->boundValues("preferred_trigger"),
                 QStringList(
                     {"CTRL+ALT+s", "CTRL+ALT+e", "CTRL+ALT+q", "CTRL+ALT+w", "CTRL+ALT+r", "CTRL+ALT+t"}));
        QVERIFY(!m_portal->boundValues("description").contains(QString()));
        QCOMPARE(m_manager->assignedTrigger(HotkeyManager::Narration), u"ctrl+alt+s"_qs);
        QVERIFY(m_manager->playPauseRegistered() && !m_manager->stopRegistered());
        QVERIFY(!m_manager->registrationProblem(HotkeyManager::Stop).isEmpty());

        // The second change comes while the first is still being answered and goes out after it.
        m_portal->refuse.clear();
        m_manager->updateStopHotKey(KeyTable::kVK_F1, KeyTable::Shift);
        m_manager->updateSkipBackHotKey(KeyTable::kVK_ANSI_Y, KeyTable::Command | KeyTable::Control);
        QTRY_COMPARE(m_manager->assignedTrigger(HotkeyManager::SkipBack), u"ctrl+logo+y"_qs);
        QCOMPARE(std::tuple(m_manager->stopRegistered(), m_portal->boundValues("preferred_trigger").value(2),
                            m_manager->assignedTrigger(HotkeyManager::Stop), m_portal->sessionsCreated),
                 std::tuple(true, u"SHIFT+F1"_qs, u"shift+f1"_qs, 1));

        m_portal->emitSignal("ShortcutsChanged", m_portal->session,
                             {QVariant::fromValue(Entries{
                                 {u"narrate-selection"_qs, {{u"trigger_description"_qs, u"Meta+R"_qs}}}})});
        QTRY_COMPARE(m_manager->assignedTrigger(HotkeyManager::Narration), u"Meta+R"_qs);
        QVERIFY(!m_manager->playPauseRegistered());
    }

    // Presses by id on our session only; a portal that goes away and comes back gets a new session, and
    // presses on the old one are ignored.
    void pressesAndPortalRestart()
    {
        QVERIFY(startPortal());
        restart<PortalGlobalShortcuts>();
        QTRY_VERIFY(m_manager->cycleSpeedRegistered());
        m_selection.text = QStringLiteral("Read me.");
        m_controls.frame = 240000;
        // An id we never bound: nothing. (A session not ours: the old one below.)
        m_portal->activate(m_portal->session, u"unknown"_qs);
        for (const char *id :
             {"toggle", "stop", "skip-back", "skip-forward", "cycle-speed", "narrate-selection"})
            m_portal->activate(m_portal->session, QString::fromLatin1(id));
        QTRY_COMPARE(m_controls.calls, QStringList({"togglePlayPause", "stop", "seek:120000", "seek:360000",
                                                    "cyclePlaybackSpeed", "speak:Read me."}));

        const QString first = m_portal->session;
        m_portal->present(false);
        QTRY_VERIFY(!m_manager->hotkeyRegistered());
        m_portal->bound.clear();
        m_portal->present(true);
        QTRY_VERIFY(m_manager->hotkeyRegistered());
        QCOMPARE(m_portal->sessionsCreated, 2);
        QCOMPARE(m_portal->bound.size(), HotkeyManager::kBindingCount);
        QVERIFY(m_portal->session != first);
        m_controls.calls.clear();
        m_portal->activate(first, u"stop"_qs);
        m_portal->activate(m_portal->session, u"toggle"_qs);
        QTRY_COMPARE(m_controls.calls, QStringList({"togglePlayPause"}));
    }

    // Copying on KDE: the first keys open a session the user is asked for (a keyboard only), later ones
    // reuse it; a refusal, or a desktop granting no keyboard, sends nothing and asks again next time.
    void remoteKeyboard()
    {
        const Keys copy{{29, true}, {46, true}, {46, false}, {29, false}};
        // The answer to Start, the devices granted (2: a pointer only), and whether the keys are typed.
        for (const auto &[startAnswer, granted, typed] :
             {std::tuple(0u, 1u, true), std::tuple(1u, 0u, false), std::tuple(0u, 2u, false)}) {
            QVERIFY(startPortal());
            m_portal->startAnswer = startAnswer;
            m_portal->grantedDevices = granted;
            const bool hasSession = askedElsewhere([&] {
                PortalRemoteKeyboard keyboard;
                keyboard.sendKeys(copy);
                keyboard.sendKeys(copy);
                return !keyboard.sessionHandle().isEmpty();
            });
            QCOMPARE(std::tuple(m_portal->selectedTypes, m_portal->starts, hasSession),
                     std::tuple(1u, typed ? 1 : 2, typed));
            QCOMPARE(m_portal->keys, typed ? copy + copy : Keys());
        }
        for (const auto &[types, available] : {std::pair(3u, true), std::pair(2u, false)}) {
            m_portal->availableDeviceTypes = types;
            QCOMPARE(askedElsewhere([] { return PortalRemoteKeyboard::isAvailable(); }), available);
        }
    }
};

QTEST_MAIN(TestHotkeyManager)
#include "tst_hotkeymanager.moc"
