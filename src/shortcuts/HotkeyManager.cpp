// SPDX-License-Identifier: GPL-3.0-or-later
#include "shortcuts/HotkeyManager.h"

#include "core/Logging.h"
#include "core/SharedInstance.h"
#include "core/UserDefaults.h"
#include "platform/GlobalHotKeyBackend.h"
#include "shortcuts/HotKeyCenter.h"
#include "shortcuts/KeyTable.h"
#include "shortcuts/NarrationControls.h"
#include "speech/NarrationServices.h"

#include <QTimer>

namespace {

constexpr std::array<quint32, HotkeyManager::kBindingCount> kDefaultKeys = {
    KeyTable::kVK_ANSI_S, KeyTable::kVK_ANSI_E, KeyTable::kVK_ANSI_Q,
    KeyTable::kVK_ANSI_W, KeyTable::kVK_ANSI_R, KeyTable::kVK_ANSI_T,
};

QString defaultsKey(const char *name)
{
    return QString::fromLatin1(name);
}

} // namespace

HotkeyManager::HotkeyManager(UserDefaults &defaults, std::unique_ptr<GlobalHotKeyBackend> backend,
                             SelectionSource &selection, NarrationControls &controls, QObject *parent)
    : QObject(parent)
    , m_defaults(defaults)
    , m_selection(selection)
    , m_controls(controls)
    , m_center(std::make_unique<HotKeyCenter>(std::move(backend)))
{
    loadAll();
}

HotkeyManager::HotkeyManager(UserDefaults &defaults, std::unique_ptr<ActionShortcuts> actions,
                             SelectionSource &selection, NarrationControls &controls, QObject *parent)
    : QObject(parent)
    , m_defaults(defaults)
    , m_selection(selection)
    , m_controls(controls)
    , m_actions(std::move(actions))
{
    m_actions->setAssignmentsHandler(
        [this](const ActionShortcuts::Assignments &assignments) { setAssignments(assignments); });
    m_actions->setActivationHandler([this](const QString &id) {
        for (int b = 0; b < kBindingCount; ++b) {
            if (actionId(Binding(b)) == id)
                return runAction(Binding(b));
        }
        qCWarning(lcShortcuts) << "the desktop pressed an unknown shortcut" << id;
    });
    // One request for all six, not one per row as they load.
    m_loading = true;
    loadAll();
    m_loading = false;
    bindActions();
}

void HotkeyManager::loadAll()
{
    m_rows[Narration].keyCodeKey = keyCodeKey;
    m_rows[Narration].modifiersKey = modifiersKey;
    m_rows[PlayPause].keyCodeKey = playPauseKeyCodeKey;
    m_rows[PlayPause].modifiersKey = playPauseModifiersKey;
    m_rows[Stop].keyCodeKey = stopKeyCodeKey;
    m_rows[Stop].modifiersKey = stopModifiersKey;
    m_rows[SkipBack].keyCodeKey = skipBackKeyCodeKey;
    m_rows[SkipBack].modifiersKey = skipBackModifiersKey;
    m_rows[SkipForward].keyCodeKey = skipForwardKeyCodeKey;
    m_rows[SkipForward].modifiersKey = skipForwardModifiersKey;
    m_rows[CycleSpeed].keyCodeKey = cycleSpeedKeyCodeKey;
    m_rows[CycleSpeed].modifiersKey = cycleSpeedModifiersKey;
    for (int b = 0; b < kBindingCount; ++b) {
        m_rows[b].key = defaultKeyFor(Binding(b));
        m_rows[b].modifiers = defaultModifiersFor(Binding(b));
    }

    loadNarrationBinding();
    for (Binding b : {PlayPause, Stop, SkipBack, SkipForward, CycleSpeed})
        loadPlaybackBinding(b);

    updateHotkey(currentKey(), currentModifiers());
    registerPlaybackHotKeys();
}

HotkeyManager::~HotkeyManager()
{
    // The registrations reach into the center, so they go first.
    for (Row &row : m_rows)
        row.registration.reset();
}

HotkeyManager &HotkeyManager::shared()
{
    return SharedInstance<HotkeyManager>::get();
}

void HotkeyManager::installShared(HotkeyManager *manager)
{
    SharedInstance<HotkeyManager>::install(manager);
}

quint32 HotkeyManager::defaultKeyFor(Binding binding)
{
    return kDefaultKeys[binding];
}

quint64 HotkeyManager::defaultModifiersFor(Binding)
{
    return defaultModifiers;
}

void HotkeyManager::loadNarrationBinding()
{
    // Both entries or neither: a stored key code without stored modifiers is ignored.
    const auto code = m_defaults.unsigned32(defaultsKey(keyCodeKey));
    if (!code)
        return;
    const auto modifiers = m_defaults.unsigned64(defaultsKey(modifiersKey));
    if (!modifiers)
        return;
    m_rows[Narration].key = KeyTable::isNamedKey(*code) ? *code : defaultKey;
    m_rows[Narration].modifiers = *modifiers;
}

void HotkeyManager::loadPlaybackBinding(Binding binding)
{
    Row &row = m_rows[binding];
    if (const auto code = m_defaults.unsigned32(defaultsKey(row.keyCodeKey));
        code && KeyTable::isNamedKey(*code))
        row.key = *code;
    if (const auto modifiers = m_defaults.unsigned64(defaultsKey(row.modifiersKey)))
        row.modifiers = *modifiers;
}

void HotkeyManager::updateHotkey(quint32 key, quint64 modifiers)
{
    update(Narration, key, modifiers);
}

void HotkeyManager::updatePlayPauseHotKey(quint32 key, quint64 modifiers)
{
    update(PlayPause, key, modifiers);
}

void HotkeyManager::updateStopHotKey(quint32 key, quint64 modifiers)
{
    update(Stop, key, modifiers);
}

void HotkeyManager::updateSkipBackHotKey(quint32 key, quint64 modifiers)
{
    update(SkipBack, key, modifiers);
}

void HotkeyManager::updateSkipForwardHotKey(quint32 key, quint64 modifiers)
{
    update(SkipForward, key, modifiers);
}

void HotkeyManager::updateCycleSpeedHotKey(quint32 key, quint64 modifiers)
{
    update(CycleSpeed, key, modifiers);
}

void HotkeyManager::registerPlaybackHotKeys()
{
    updatePlayPauseHotKey(playPauseKey(), playPauseModifiers());
    updateStopHotKey(stopKey(), stopModifiers());
    updateSkipBackHotKey(skipBackKey(), skipBackModifiers());
    updateSkipForwardHotKey(skipForwardKey(), skipForwardModifiers());
    updateCycleSpeedHotKey(cycleSpeedKey(), cycleSpeedModifiers());
}

void HotkeyManager::update(Binding binding, quint32 key, quint64 modifiers)
{
    if (!KeyTable::isNamedKey(key)) {
        qCWarning(lcShortcuts) << "ignoring a binding to key code" << key << ", which names no key";
        return;
    }
    Row &row = m_rows[binding];
    setKey(binding, key);
    setModifiers(binding, modifiers);

    m_defaults.setUnsigned32(QString::fromLatin1(row.keyCodeKey), key);
    m_defaults.setUnsigned64(QString::fromLatin1(row.modifiersKey), modifiers);

    if (m_actions) {
        if (!m_loading)
            bindActions();
        return;
    }
    // The new registration exists before the old one goes, so that re-binding a combination to itself
    // never lets go of the grab in between.
    std::unique_ptr<HotKeyRegistration> previous =
        std::exchange(row.registration, m_center->registerHotKey(key, modifiers, binding));
    previous.reset();
    row.registration->setKeyDownHandler([this, binding] { runAction(binding); });
    if (const QString problem = registrationProblem(binding); !problem.isEmpty())
        qCWarning(lcShortcuts).noquote() << problem;

    refreshRegistrationStatus();
}

void HotkeyManager::bindActions()
{
    static const char *const descriptions[kBindingCount] = {
        "Read the selected text aloud", "Play or pause the narration", "Stop the narration",
        "Skip back 5 seconds",          "Skip forward 5 seconds",      "Change the narration speed"};
    QList<ActionShortcuts::Shortcut> shortcuts;
    for (int b = 0; b < kBindingCount; ++b) {
        shortcuts.append({actionId(Binding(b)), QString::fromLatin1(descriptions[b]),
                          xdgTrigger(m_rows[b].key, m_rows[b].modifiers)});
    }
    m_actions->bind(shortcuts);
}

void HotkeyManager::setAssignments(const ActionShortcuts::Assignments &assignments)
{
    m_assignmentsKnown = true;
    if (assignments == m_assignments)
        return;
    m_assignments = assignments;
    Q_EMIT assignedTriggersChanged();
    refreshRegistrationStatus();
}

QString HotkeyManager::assignedTrigger(Binding binding) const
{
    return m_assignments.value(actionId(binding));
}

QString HotkeyManager::actionId(Binding binding)
{
    static const char *const ids[kBindingCount] = {"narrate-selection", "toggle",       "stop",
                                                   "skip-back",         "skip-forward", "cycle-speed"};
    return QString::fromLatin1(ids[binding]);
}

QString HotkeyManager::xdgTrigger(quint32 key, quint64 modifiers)
{
    QStringList parts;
    if (modifiers & KeyTable::Command)
        parts.append(QStringLiteral("CTRL"));
    if (modifiers & KeyTable::Option)
        parts.append(QStringLiteral("ALT"));
    if (modifiers & KeyTable::Shift)
        parts.append(QStringLiteral("SHIFT"));
    if (modifiers & KeyTable::Control)
        parts.append(QStringLiteral("LOGO"));
    const std::optional<QString> name = KeyTable::keysymName(key);
    if (!name)
        return {};
    parts.append(*name);
    return parts.join(u'+');
}

QString HotkeyManager::registrationProblem(Binding binding) const
{
    if (m_actions) {
        if (!m_assignmentsKnown || m_assignments.contains(actionId(binding)))
            return {};
        return QStringLiteral("The desktop has not assigned %1 to this action")
            .arg(shortcutLabel(m_rows[binding].key, m_rows[binding].modifiers));
    }
    const Row &row = m_rows[binding];
    if (!row.registration || !row.registration->isRefusedBySystem())
        return {};
    return shortcutLabel(row.key, row.modifiers) + QStringLiteral(" is used by another application");
}

void HotkeyManager::setKey(Binding binding, quint32 key)
{
    if (m_rows[binding].key == key)
        return;
    m_rows[binding].key = key;
    switch (binding) {
    case Narration:
        Q_EMIT currentKeyChanged();
        Q_EMIT displayStringChanged();
        break;
    case PlayPause:
        Q_EMIT playPauseKeyChanged();
        break;
    case Stop:
        Q_EMIT stopKeyChanged();
        break;
    case SkipBack:
        Q_EMIT skipBackKeyChanged();
        break;
    case SkipForward:
        Q_EMIT skipForwardKeyChanged();
        break;
    case CycleSpeed:
        Q_EMIT cycleSpeedKeyChanged();
        break;
    }
}

void HotkeyManager::setModifiers(Binding binding, quint64 modifiers)
{
    if (m_rows[binding].modifiers == modifiers)
        return;
    m_rows[binding].modifiers = modifiers;
    switch (binding) {
    case Narration:
        Q_EMIT currentModifiersChanged();
        Q_EMIT displayStringChanged();
        break;
    case PlayPause:
        Q_EMIT playPauseModifiersChanged();
        break;
    case Stop:
        Q_EMIT stopModifiersChanged();
        break;
    case SkipBack:
        Q_EMIT skipBackModifiersChanged();
        break;
    case SkipForward:
        Q_EMIT skipForwardModifiersChanged();
        break;
    case CycleSpeed:
        Q_EMIT cycleSpeedModifiersChanged();
        break;
    }
}

void HotkeyManager::refreshRegistrationStatus()
{
    // A change to one row can decide which of two rows sharing a combination fires, so every row is
    // looked at again.
    for (int b = 0; b < kBindingCount; ++b) {
        Row &row = m_rows[b];
        const bool registered = m_actions ? m_assignments.contains(actionId(Binding(b)))
                                          : row.registration && row.registration->isRegistered();
        if (row.registered == registered)
            continue;
        row.registered = registered;
        switch (Binding(b)) {
        case Narration:
            Q_EMIT hotkeyRegisteredChanged();
            break;
        case PlayPause:
            Q_EMIT playPauseRegisteredChanged();
            break;
        case Stop:
            Q_EMIT stopRegisteredChanged();
            break;
        case SkipBack:
            Q_EMIT skipBackRegisteredChanged();
            break;
        case SkipForward:
            Q_EMIT skipForwardRegisteredChanged();
            break;
        case CycleSpeed:
            Q_EMIT cycleSpeedRegisteredChanged();
            break;
        }
    }
}

void HotkeyManager::runAction(Binding binding)
{
    switch (binding) {
    case Narration:
        narrateSelection();
        break;
    case PlayPause:
        m_controls.togglePlayPause();
        break;
    case Stop:
        m_controls.stop();
        break;
    case SkipBack:
        skip(-kSkipFrames);
        break;
    case SkipForward:
        skip(kSkipFrames);
        break;
    case CycleSpeed:
        m_controls.cyclePlaybackSpeed();
        break;
    }
}

void HotkeyManager::narrateSelection()
{
    // The capture blocks this thread for its copy wait; the narration itself starts in a later turn of
    // the event loop so that the key handler returns at once.
    const std::optional<QString> text = m_selection.captureSelectedText();
    if (!text)
        return;
    QTimer::singleShot(0, this, [this, text = *text] { m_controls.speak(text); });
}

void HotkeyManager::skip(qint64 frames)
{
    qint64 target = 0;
    if (__builtin_add_overflow(m_controls.currentPlaybackFrame(), frames, &target))
        qFatal("playback frame overflow while skipping");
    m_controls.seekToFrame(target);
}

QString HotkeyManager::displayString() const
{
    return displayParts().join(QString());
}

QStringList HotkeyManager::displayParts() const
{
    return shortcutParts(currentKey(), currentModifiers());
}

QString HotkeyManager::displayLabel() const
{
    return shortcutLabel(currentKey(), currentModifiers());
}

QStringList HotkeyManager::shortcutParts(quint32 key, quint64 modifiers)
{
    QStringList parts;
    if (modifiers & KeyTable::Control)
        parts.append(QStringLiteral("⌃"));
    if (modifiers & KeyTable::Option)
        parts.append(QStringLiteral("⌥"));
    if (modifiers & KeyTable::Shift)
        parts.append(QStringLiteral("⇧"));
    if (modifiers & KeyTable::Command)
        parts.append(QStringLiteral("⌘"));
    parts.append(KeyTable::displayName(key).value_or(QStringLiteral("?")));
    return parts;
}

QString HotkeyManager::shortcutLabel(quint32 key, quint64 modifiers)
{
    return shortcutKeys(key, modifiers).join(u'+');
}

QStringList HotkeyManager::shortcutKeys(quint32 key, quint64 modifiers)
{
    QStringList parts;
    if (modifiers & KeyTable::Command)
        parts.append(QStringLiteral("Ctrl"));
    if (modifiers & KeyTable::Option)
        parts.append(QStringLiteral("Alt"));
    if (modifiers & KeyTable::Shift)
        parts.append(QStringLiteral("Shift"));
    if (modifiers & KeyTable::Control)
        parts.append(QStringLiteral("Super"));
    parts.append(KeyTable::linuxLabel(key).value_or(QStringLiteral("?")));
    return parts;
}
