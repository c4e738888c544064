// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/ActionShortcuts.h"

#include <QObject>
#include <QString>
#include <QStringList>

#include <array>
#include <memory>

class GlobalHotKeyBackend;
class HotKeyCenter;
class HotKeyRegistration;
class NarrationControls;
class SelectionSource;
class UserDefaults;

// The six system-wide shortcuts: narrate the selection, and play/pause, stop, skip back, skip forward
// and cycle speed. Loads the bindings from the user defaults, keeps them registered, writes every change
// back and formats bindings for display. Keys are virtual key codes, modifiers the stored bit set
// (Shift 0x20000, Control 0x40000, Option 0x80000, Command 0x100000). GUI thread only.
class HotkeyManager : public QObject
{
    Q_OBJECT
    Q_PROPERTY(quint32 currentKey READ currentKey NOTIFY currentKeyChanged)
    Q_PROPERTY(quint64 currentModifiers READ currentModifiers NOTIFY currentModifiersChanged)
    Q_PROPERTY(quint32 playPauseKey READ playPauseKey NOTIFY playPauseKeyChanged)
    Q_PROPERTY(quint64 playPauseModifiers READ playPauseModifiers NOTIFY playPauseModifiersChanged)
    Q_PROPERTY(quint32 stopKey READ stopKey NOTIFY stopKeyChanged)
    Q_PROPERTY(quint64 stopModifiers READ stopModifiers NOTIFY stopModifiersChanged)
    Q_PROPERTY(quint32 skipBackKey READ skipBackKey NOTIFY skipBackKeyChanged)
    Q_PROPERTY(quint64 skipBackModifiers READ skipBackModifiers NOTIFY skipBackModifiersChanged)
    Q_PROPERTY(quint32 skipForwardKey READ skipForwardKey NOTIFY skipForwardKeyChanged)
    Q_PROPERTY(quint64 skipForwardModifiers READ skipForwardModifiers NOTIFY skipForwardModifiersChanged)
    Q_PROPERTY(quint32 cycleSpeedKey READ cycleSpeedKey NOTIFY cycleSpeedKeyChanged)
    Q_PROPERTY(quint64 cycleSpeedModifiers READ cycleSpeedModifiers NOTIFY cycleSpeedModifiersChanged)
    Q_PROPERTY(QString displayString READ displayString NOTIFY displayStringChanged)
    Q_PROPERTY(QStringList displayParts READ displayParts NOTIFY displayStringChanged)
    // The narration shortcut as a PC keyboard names it ("Ctrl+Alt+S"), for our own windows.
    Q_PROPERTY(QString displayLabel READ displayLabel NOTIFY displayStringChanged)
    // Whether the system took each binding: false when another application holds the combination, when
    // the key does not exist on this keyboard, or when an earlier row already uses the combination.
    Q_PROPERTY(bool hotkeyRegistered READ hotkeyRegistered NOTIFY hotkeyRegisteredChanged)
    Q_PROPERTY(bool playPauseRegistered READ playPauseRegistered NOTIFY playPauseRegisteredChanged)
    Q_PROPERTY(bool stopRegistered READ stopRegistered NOTIFY stopRegisteredChanged)
    Q_PROPERTY(bool skipBackRegistered READ skipBackRegistered NOTIFY skipBackRegisteredChanged)
    Q_PROPERTY(bool skipForwardRegistered READ skipForwardRegistered NOTIFY skipForwardRegisteredChanged)
    Q_PROPERTY(bool cycleSpeedRegistered READ cycleSpeedRegistered NOTIFY cycleSpeedRegisteredChanged)

public:
    // The rows in table order; an earlier row wins a combination that two rows share.
    enum Binding { Narration, PlayPause, Stop, SkipBack, SkipForward, CycleSpeed };
    Q_ENUM(Binding)
    static constexpr int kBindingCount = 6;

    static constexpr qint64 kSkipFrames = 120000;

    // User-defaults keys.
    static constexpr const char *keyCodeKey = "hotkeyKeyCode";
    static constexpr const char *modifiersKey = "hotkeyModifiers";
    static constexpr const char *playPauseKeyCodeKey = "playPauseKeyCode";
    static constexpr const char *playPauseModifiersKey = "playPauseModifiers";
    static constexpr const char *stopKeyCodeKey = "stopKeyCode";
    static constexpr const char *stopModifiersKey = "stopModifiers";
    static constexpr const char *skipBackKeyCodeKey = "skipBackKeyCode";
    static constexpr const char *skipBackModifiersKey = "skipBackModifiers";
    static constexpr const char *skipForwardKeyCodeKey = "skipForwardKeyCode";
    static constexpr const char *skipForwardModifiersKey = "skipForwardModifiers";
    static constexpr const char *cycleSpeedKeyCodeKey = "cycleSpeedKeyCode";
    static constexpr const char *cycleSpeedModifiersKey = "cycleSpeedModifiers";

    // Defaults: Command + Option with S, then the left-hand letter row E, Q, W, R, T.
    static constexpr quint32 defaultKey = 1;              // S
    static constexpr quint64 defaultModifiers = 0x180000; // Command + Option

    // Loads every binding, writes all twelve entries back and registers the six shortcuts.
    HotkeyManager(UserDefaults &defaults, std::unique_ptr<GlobalHotKeyBackend> backend,
                  SelectionSource &selection, NarrationControls &controls, QObject *parent = nullptr);
    // The same where the desktop binds keys by action: the bindings become the preferred triggers of the
    // six actions, and a row counts as registered once the desktop has assigned it a key.
    HotkeyManager(UserDefaults &defaults, std::unique_ptr<ActionShortcuts> actions,
                  SelectionSource &selection, NarrationControls &controls, QObject *parent = nullptr);
    ~HotkeyManager() override;

    // The process-wide instance, installed by the application at start.
    static HotkeyManager &shared();
    static void installShared(HotkeyManager *manager);

    Q_INVOKABLE void updateHotkey(quint32 key, quint64 modifiers);
    Q_INVOKABLE void updatePlayPauseHotKey(quint32 key, quint64 modifiers);
    Q_INVOKABLE void updateStopHotKey(quint32 key, quint64 modifiers);
    Q_INVOKABLE void updateSkipBackHotKey(quint32 key, quint64 modifiers);
    Q_INVOKABLE void updateSkipForwardHotKey(quint32 key, quint64 modifiers);
    Q_INVOKABLE void updateCycleSpeedHotKey(quint32 key, quint64 modifiers);
    // Re-applies the five playback bindings, in table order.
    Q_INVOKABLE void registerPlaybackHotKeys();

    // A row's default binding, for the settings window's per-row reset.
    Q_INVOKABLE static quint32 defaultKeyFor(HotkeyManager::Binding binding);
    Q_INVOKABLE static quint64 defaultModifiersFor(HotkeyManager::Binding binding);

    quint32 currentKey() const { return m_rows[Narration].key; }
    quint64 currentModifiers() const { return m_rows[Narration].modifiers; }
    quint32 playPauseKey() const { return m_rows[PlayPause].key; }
    quint64 playPauseModifiers() const { return m_rows[PlayPause].modifiers; }
    quint32 stopKey() const { return m_rows[Stop].key; }
    quint64 stopModifiers() const { return m_rows[Stop].modifiers; }
    quint32 skipBackKey() const { return m_rows[SkipBack].key; }
    quint64 skipBackModifiers() const { return m_rows[SkipBack].modifiers; }
    quint32 skipForwardKey() const { return m_rows[SkipForward].key; }
    quint64 skipForwardModifiers() const { return m_rows[SkipForward].modifiers; }
    quint32 cycleSpeedKey() const { return m_rows[CycleSpeed].key; }
    quint64 cycleSpeedModifiers() const { return m_rows[CycleSpeed].modifiers; }

    bool hotkeyRegistered() const { return m_rows[Narration].registered; }
    bool playPauseRegistered() const { return m_rows[PlayPause].registered; }
    bool stopRegistered() const { return m_rows[Stop].registered; }
    bool skipBackRegistered() const { return m_rows[SkipBack].registered; }
    bool skipForwardRegistered() const { return m_rows[SkipForward].registered; }
    bool cycleSpeedRegistered() const { return m_rows[CycleSpeed].registered; }
    Q_INVOKABLE bool isRegistered(HotkeyManager::Binding binding) const { return m_rows[binding].registered; }
    // Why the system did not take the binding, as the user knows the combination ("Ctrl+Alt+S is used by
    // another application"); empty otherwise.
    Q_INVOKABLE QString registrationProblem(HotkeyManager::Binding binding) const;

    // Whether the desktop decides the keys (the bindings are then only wishes).
    Q_INVOKABLE bool bindsByAction() const { return m_actions != nullptr; }
    // The key the desktop assigned to the row, in its own words ("Ctrl+Alt+S"); empty where it assigned
    // none or where we grab keys ourselves.
    Q_INVOKABLE QString assignedTrigger(HotkeyManager::Binding binding) const;
    // The action's id towards the desktop: "narrate-selection", "toggle", "stop", "skip-back",
    // "skip-forward", "cycle-speed" (also the command-line options' names).
    static QString actionId(Binding binding);
    // A binding as the desktop portal and the XDG shortcut strings write it: "CTRL+ALT+s".
    static QString xdgTrigger(quint32 key, quint64 modifiers);

    QString displayString() const;
    QStringList displayParts() const;
    QString displayLabel() const;
    // "⌃", "⌥", "⇧", "⌘" for the modifiers that are set, in that order, then the key's name.
    Q_INVOKABLE static QStringList shortcutParts(quint32 key, quint64 modifiers);
    // The PC keyboard form: "Ctrl+Alt+Shift+Super+" as set, then the key's label ("Ctrl+Alt+S").
    Q_INVOKABLE static QString shortcutLabel(quint32 key, quint64 modifiers);
    // The same as keycaps, one per key ("Ctrl", "Alt", "Num +").
    static QStringList shortcutKeys(quint32 key, quint64 modifiers);

Q_SIGNALS:
    void currentKeyChanged();
    void currentModifiersChanged();
    void playPauseKeyChanged();
    void playPauseModifiersChanged();
    void stopKeyChanged();
    void stopModifiersChanged();
    void skipBackKeyChanged();
    void skipBackModifiersChanged();
    void skipForwardKeyChanged();
    void skipForwardModifiersChanged();
    void cycleSpeedKeyChanged();
    void cycleSpeedModifiersChanged();
    void displayStringChanged();
    void hotkeyRegisteredChanged();
    void playPauseRegisteredChanged();
    void stopRegisteredChanged();
    void skipBackRegisteredChanged();
    void skipForwardRegisteredChanged();
    void cycleSpeedRegisteredChanged();
    void assignedTriggersChanged();

private:
    struct Row
    {
        const char *keyCodeKey;
        const char *modifiersKey;
        quint32 key = 0;
        quint64 modifiers = 0;
        std::unique_ptr<HotKeyRegistration> registration;
        bool registered = false;
    };

    void loadAll();
    void bindActions();
    void setAssignments(const ActionShortcuts::Assignments &assignments);
    void loadNarrationBinding();
    void loadPlaybackBinding(Binding binding);
    void update(Binding binding, quint32 key, quint64 modifiers);
    void setKey(Binding binding, quint32 key);
    void setModifiers(Binding binding, quint64 modifiers);
    void refreshRegistrationStatus();
    void runAction(Binding binding);
    void narrateSelection();
    void skip(qint64 frames);

    UserDefaults &m_defaults;
    SelectionSource &m_selection;
    NarrationControls &m_controls;
    std::unique_ptr<HotKeyCenter> m_center;
    std::unique_ptr<ActionShortcuts> m_actions;
    ActionShortcuts::Assignments m_assignments;
    bool m_assignmentsKnown = false;
    bool m_loading = false;
    std::array<Row, kBindingCount> m_rows;
};
