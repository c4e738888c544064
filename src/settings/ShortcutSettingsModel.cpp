// SPDX-License-Identifier: GPL-3.0-or-later
#include "settings/ShortcutSettingsModel.h"

#include "shortcuts/HotkeyManager.h"
#include "shortcuts/KeyTable.h"

#include <QClipboard>
#include <QDBusServiceWatcher>
#include <QGuiApplication>
#include <QMetaMethod>

namespace {

using Binding = HotkeyManager::Binding;

bool isRow(int row)
{
    return row >= 0 && row < HotkeyManager::kBindingCount;
}

quint32 keyOf(const HotkeyManager &m, Binding b)
{
    switch (b) {
    case Binding::Narration:
        return m.currentKey();
    case Binding::PlayPause:
        return m.playPauseKey();
    case Binding::Stop:
        return m.stopKey();
    case Binding::SkipBack:
        return m.skipBackKey();
    case Binding::SkipForward:
        return m.skipForwardKey();
    case Binding::CycleSpeed:
        return m.cycleSpeedKey();
    }
    Q_UNREACHABLE();
}

quint64 modifiersOf(const HotkeyManager &m, Binding b)
{
    switch (b) {
    case Binding::Narration:
        return m.currentModifiers();
    case Binding::PlayPause:
        return m.playPauseModifiers();
    case Binding::Stop:
        return m.stopModifiers();
    case Binding::SkipBack:
        return m.skipBackModifiers();
    case Binding::SkipForward:
        return m.skipForwardModifiers();
    case Binding::CycleSpeed:
        return m.cycleSpeedModifiers();
    }
    Q_UNREACHABLE();
}

} // namespace

ShortcutSettingsModel::ShortcutSettingsModel(HotkeyManager *hotkeys, std::function<QString()> captureProblem,
                                             QObject *parent)
    : QObject(parent)
    , m_readCaptureProblem(std::move(captureProblem))
{
    connect(this, &ShortcutSettingsModel::gnomeChanged, this, &ShortcutSettingsModel::helpChanged);
    if (m_readCaptureProblem)
        m_captureProblem = m_readCaptureProblem();
    if (GnomeShellExtension::isGnomeWayland()) {
        m_gnome = GnomeShellExtension::support();
        // Switched on (here or in the Extensions app) or off while the window is open.
        auto *watcher = new QDBusServiceWatcher(QString::fromLatin1(GnomeShellExtension::kService),
                                                QDBusConnection::sessionBus(),
                                                QDBusServiceWatcher::WatchForOwnerChange, this);
        connect(watcher, &QDBusServiceWatcher::serviceOwnerChanged, this, [this] {
            setGnomeSupport(GnomeShellExtension::support());
            refreshCaptureProblem();
        });
    }
    setHotkeys(hotkeys);
}

void ShortcutSettingsModel::setHotkeys(HotkeyManager *hotkeys)
{
    if (!hotkeys || hotkeys == m_hotkeys)
        return;
    if (m_hotkeys)
        disconnect(m_hotkeys, nullptr, this, nullptr);
    m_hotkeys = hotkeys;
    // Every binding and registration signal means the rows changed.
    const QMetaObject *meta = hotkeys->metaObject();
    const QMetaMethod rowsChangedSignal = QMetaMethod::fromSignal(&ShortcutSettingsModel::rowsChanged);
    for (int i = meta->methodOffset(); i < meta->methodCount(); ++i) {
        if (meta->method(i).methodType() == QMetaMethod::Signal)
            connect(hotkeys, meta->method(i), this, rowsChangedSignal);
    }
    Q_EMIT rowsChanged();
    Q_EMIT helpChanged();
    refreshCaptureProblem();
}

void ShortcutSettingsModel::refreshCaptureProblem()
{
    if (!m_readCaptureProblem)
        return;
    if (QString problem = m_readCaptureProblem(); problem != m_captureProblem) {
        m_captureProblem = std::move(problem);
        Q_EMIT captureProblemChanged();
    }
}

void ShortcutSettingsModel::setRecordingRow(int row)
{
    if (!m_hotkeys || !isRow(row))
        row = -1;
    if (row == m_recordingRow)
        return;
    m_recordingRow = row;
    Q_EMIT recordingRowChanged();
}

void ShortcutSettingsModel::finishRecording(int row)
{
    if (row == m_recordingRow)
        setRecordingRow(-1);
}

QString ShortcutSettingsModel::help() const
{
    if (m_hotkeys)
        return QStringLiteral("Click a shortcut, then press the new combination. Escape cancels.");
    return gnomeExtensionHelp().isEmpty() ? desktopBindingsIntro() : QString();
}

bool ShortcutSettingsModel::showsDesktopBindings() const
{
    // On GNOME only where its own shortcuts are the way.
    return !m_hotkeys && (gnomeExtensionHelp().isEmpty() || canAddGnomeKeybindings());
}

void ShortcutSettingsModel::copyDesktopBindings() const
{
    if (QClipboard *clipboard = QGuiApplication::clipboard())
        clipboard->setText(desktopBindings());
}

bool ShortcutSettingsModel::isSway()
{
    return !qEnvironmentVariableIsEmpty("SWAYSOCK");
}

QString ShortcutSettingsModel::desktopBindingsIntro(bool sway)
{
    return sway
               ? QStringLiteral(
                     "sway lets applications bind no global shortcuts. Add these lines to your sway "
                     "configuration (~/.config/sway/config), then reload it with Super+Shift+C:")
               : QStringLiteral("Global shortcuts need an X11 session. Bind these commands in your desktop's "
                                "keyboard settings instead:");
}

QString ShortcutSettingsModel::desktopBindings(bool sway)
{
    static const char *const commands[HotkeyManager::kBindingCount] = {
        "narrate-selection", "toggle", "stop", "skip-back", "skip-forward", "cycle-speed"};
    QStringList lines;
    for (int row = 0; row < HotkeyManager::kBindingCount; ++row) {
        const QString command = QStringLiteral("quillvox --") + QLatin1String(commands[row]);
        if (!sway) {
            lines.append(command);
            continue;
        }
        // "Ctrl+Alt+S" in sway's words: the same modifier names, the key by its keysym ("s").
        const auto binding = HotkeyManager::Binding(row);
        QStringList parts = HotkeyManager::shortcutLabel(HotkeyManager::defaultKeyFor(binding),
                                                         HotkeyManager::defaultModifiersFor(binding))
                                .split(u'+');
        parts.last() = parts.last().toLower();
        parts.replaceInStrings(QStringLiteral("Super"), QStringLiteral("Mod4"));
        lines.append(QStringLiteral("bindsym ") + parts.join(u'+') + QStringLiteral(" exec ") + command);
    }
    return lines.join(u'\n');
}

QString ShortcutSettingsModel::rowTitle(int row)
{
    static const QStringList titles{QStringLiteral("Narrate Selection"),
                                    QStringLiteral("Play/Pause"),
                                    QStringLiteral("Stop"),
                                    QStringLiteral("Skip Back 5 Seconds"),
                                    QStringLiteral("Skip Forward 5 Seconds"),
                                    QStringLiteral("Cycle Speed")};
    return titles.value(row);
}

QString ShortcutSettingsModel::problem(int row) const
{
    const auto binding = Binding(row);
    if (!m_hotkeys || !isRow(row) || m_hotkeys->isRegistered(binding))
        return {};
    if (m_hotkeys->bindsByAction()) {
        return m_hotkeys->registrationProblem(binding).isEmpty()
                   ? QStringLiteral("Waiting for the desktop to assign a key")
                   : QStringLiteral("No key from the desktop: set one in its shortcut settings");
    }
    if (!m_hotkeys->registrationProblem(binding).isEmpty())
        return QStringLiteral("Used by another application");
    for (int earlier = 0; earlier < row; ++earlier) {
        if (keyOf(*m_hotkeys, Binding(earlier)) == keyOf(*m_hotkeys, binding) &&
            modifiersOf(*m_hotkeys, Binding(earlier)) == modifiersOf(*m_hotkeys, binding))
            return QStringLiteral("Already used for ") + rowTitle(earlier);
    }
    return QStringLiteral("Not available in this session");
}

QVariantList ShortcutSettingsModel::rows() const
{
    QVariantList list;
    if (!m_hotkeys)
        return list;
    for (int row = 0; row < HotkeyManager::kBindingCount; ++row) {
        const auto binding = Binding(row);
        const quint32 key = keyOf(*m_hotkeys, binding);
        const quint64 modifiers = modifiersOf(*m_hotkeys, binding);
        list.append(QVariantMap{
            {QStringLiteral("title"), rowTitle(row)},
            {QStringLiteral("label"), HotkeyManager::shortcutLabel(key, modifiers)},
            {QStringLiteral("problem"), problem(row)},
            {QStringLiteral("assigned"), m_hotkeys->assignedTrigger(binding)},
            {QStringLiteral("isDefault"), key == HotkeyManager::defaultKeyFor(binding) &&
                                              modifiers == HotkeyManager::defaultModifiersFor(binding)},
        });
    }
    return list;
}

void ShortcutSettingsModel::record(int row, quint32 key, quint64 modifiers)
{
    if (!m_hotkeys || !isRow(row))
        return;
    switch (Binding(row)) {
    case Binding::Narration:
        m_hotkeys->updateHotkey(key, modifiers);
        break;
    case Binding::PlayPause:
        m_hotkeys->updatePlayPauseHotKey(key, modifiers);
        break;
    case Binding::Stop:
        m_hotkeys->updateStopHotKey(key, modifiers);
        break;
    case Binding::SkipBack:
        m_hotkeys->updateSkipBackHotKey(key, modifiers);
        break;
    case Binding::SkipForward:
        m_hotkeys->updateSkipForwardHotKey(key, modifiers);
        break;
    case Binding::CycleSpeed:
        m_hotkeys->updateCycleSpeedHotKey(key, modifiers);
        break;
    }
}

void ShortcutSettingsModel::setGnomeSupport(GnomeShellExtension::Support support)
{
    if (support == m_gnome)
        return;
    m_gnome = support;
    m_gnomeActionResult.clear();
    Q_EMIT gnomeChanged();
}

QString ShortcutSettingsModel::gnomeExtensionHelp() const
{
    return m_gnome == GnomeShellExtension::Support::NotGnome ? QString()
                                                             : GnomeShellExtension::explanation(m_gnome);
}

bool ShortcutSettingsModel::canEnableGnomeExtension() const
{
    return m_gnome == GnomeShellExtension::Support::NotEnabled;
}

bool ShortcutSettingsModel::canAddGnomeKeybindings() const
{
    // Only where the extension cannot run: GNOME's own shortcuts would hold the combinations it asks for.
    return m_gnome == GnomeShellExtension::Support::NotInstalled ||
           m_gnome == GnomeShellExtension::Support::Failed;
}

QString ShortcutSettingsModel::gtkAccelerator(quint32 key, quint64 modifiers)
{
    const std::optional<QString> keysym = KeyTable::keysymName(key);
    if (!keysym)
        return {};
    // Command is Ctrl, Option is Alt and Control is Super on Linux.
    QString accelerator;
    if (modifiers & 0x100000)
        accelerator += QStringLiteral("<Control>");
    if (modifiers & 0x80000)
        accelerator += QStringLiteral("<Alt>");
    if (modifiers & 0x20000)
        accelerator += QStringLiteral("<Shift>");
    if (modifiers & 0x40000)
        accelerator += QStringLiteral("<Super>");
    return accelerator + *keysym;
}

QList<GnomeKeybindings::Entry> ShortcutSettingsModel::gnomeKeybindings() const
{
    static const char *const ids[HotkeyManager::kBindingCount] = {
        "narrate-selection", "toggle", "stop", "skip-back", "skip-forward", "cycle-speed"};
    QList<GnomeKeybindings::Entry> entries;
    for (int row = 0; row < HotkeyManager::kBindingCount; ++row) {
        const auto binding = Binding(row);
        const quint32 key = m_hotkeys ? keyOf(*m_hotkeys, binding) : HotkeyManager::defaultKeyFor(binding);
        const quint64 modifiers =
            m_hotkeys ? modifiersOf(*m_hotkeys, binding) : HotkeyManager::defaultModifiersFor(binding);
        const QString id = QLatin1String(ids[row]);
        entries.append({id, QStringLiteral("Quillvox: ") + rowTitle(row), QStringLiteral("quillvox --") + id,
                        gtkAccelerator(key, modifiers)});
    }
    return entries;
}

void ShortcutSettingsModel::enableGnomeExtension()
{
    m_gnomeActionResult =
        GnomeShellExtension::enable()
            ? QString()
            : QStringLiteral("Neither gnome-extensions nor the Extensions app could be started.");
    Q_EMIT gnomeChanged();
}

void ShortcutSettingsModel::addGnomeKeybindings()
{
    m_gnomeActionResult = GnomeKeybindings::write(gnomeKeybindings())
                              ? QStringLiteral("Added to GNOME keyboard shortcuts.")
                              : QStringLiteral("GNOME's keyboard shortcut settings are not installed.");
    Q_EMIT gnomeChanged();
}

void ShortcutSettingsModel::reset(int row)
{
    if (isRow(row))
        record(row, HotkeyManager::defaultKeyFor(Binding(row)),
               HotkeyManager::defaultModifiersFor(Binding(row)));
}
