// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/gnome/GnomeKeybindings.h"
#include "platform/gnome/GnomeShellExtension.h"

#include <QObject>
#include <QVariantList>
#include <QtQml/qqmlregistration.h>

#include <functional>

class HotkeyManager;

// The Shortcuts section: the six bindings as rows, each with its recorder and a reset to its default,
// and what selection capture lacks in this session. Where no global shortcuts can exist (a Wayland
// session) there are no rows, but the section still says what capture needs.
class ShortcutSettingsModel : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("The settings window provides its view models")
    // {title, label, problem, assigned, isDefault} in table order; none without global shortcuts. Where
    // the desktop decides the keys, `label` is the combination we asked for and `assigned` the key it gave.
    Q_PROPERTY(QVariantList rows READ rows NOTIFY rowsChanged)
    // What selection capture lacks in this session; empty when it works.
    Q_PROPERTY(QString captureProblem READ captureProblem NOTIFY captureProblemChanged)
    // The row whose recorder waits for a combination; -1 for none. At most one row records.
    Q_PROPERTY(int recordingRow READ recordingRow WRITE setRecordingRow NOTIFY recordingRowChanged)
    // Without global shortcuts: what to bind in the desktop's own settings, and the text introducing it.
    Q_PROPERTY(QString desktopBindingsIntro READ desktopBindingsIntro CONSTANT)
    Q_PROPERTY(QString desktopBindings READ desktopBindings CONSTANT)
    // The section's explanation: how to record where there are rows, else the desktop's way, unless
    // GNOME's extension help says it; and whether the lines to copy into the desktop's settings show.
    Q_PROPERTY(QString help READ help NOTIFY helpChanged)
    Q_PROPERTY(bool showsDesktopBindings READ showsDesktopBindings NOTIFY helpChanged)
    // GNOME on Wayland without our Shell extension running: what the user can do about it (empty
    // elsewhere), whether switching it on is the way, or, where that cannot work, GNOME's own custom
    // shortcuts; and what the last of those two actions achieved.
    Q_PROPERTY(QString gnomeExtensionHelp READ gnomeExtensionHelp NOTIFY gnomeChanged)
    Q_PROPERTY(bool canEnableGnomeExtension READ canEnableGnomeExtension NOTIFY gnomeChanged)
    Q_PROPERTY(bool canAddGnomeKeybindings READ canAddGnomeKeybindings NOTIFY gnomeChanged)
    Q_PROPERTY(QString gnomeActionResult READ gnomeActionResult NOTIFY gnomeChanged)

public:
    // `hotkeys` none: no global shortcuts (yet). `captureProblem` says what capture lacks; asked again
    // by refreshCaptureProblem().
    ShortcutSettingsModel(HotkeyManager *hotkeys, std::function<QString()> captureProblem,
                          QObject *parent = nullptr);

    static QString rowTitle(int row);

    // The shortcut manager made after the window (normal operation starts after onboarding).
    void setHotkeys(HotkeyManager *hotkeys);
    void refreshCaptureProblem();

    QVariantList rows() const;
    QString captureProblem() const { return m_captureProblem; }
    int recordingRow() const { return m_recordingRow; }
    // Out of range ends any recording.
    Q_INVOKABLE void setRecordingRow(int row);
    // A recorder that stopped (a combination taken, Escape, the focus gone) ends the recording, unless
    // another row has started one since.
    Q_INVOKABLE void finishRecording(int row);
    QString help() const;
    bool showsDesktopBindings() const;
    // sway takes its key bindings from its configuration file only: there the lines to add, with the
    // default combinations; elsewhere the commands, for the desktop's keyboard settings.
    static QString desktopBindings(bool sway);
    static QString desktopBindingsIntro(bool sway);
    QString desktopBindings() const { return desktopBindings(isSway()); }
    QString desktopBindingsIntro() const { return desktopBindingsIntro(isSway()); }
    static bool isSway();
    // Why a row's combination is not active; empty when it is.
    QString problem(int row) const;

    Q_INVOKABLE void record(int row, quint32 key, quint64 modifiers);
    Q_INVOKABLE void reset(int row);

    QString gnomeExtensionHelp() const;
    bool canEnableGnomeExtension() const;
    bool canAddGnomeKeybindings() const;
    QString gnomeActionResult() const { return m_gnomeActionResult; }
    // Where the session stands with the extension; asked at construction in a GNOME session.
    void setGnomeSupport(GnomeShellExtension::Support support);
    // The six rows as GNOME custom shortcuts running our commands, with the current combinations (the
    // defaults without global shortcuts).
    QList<GnomeKeybindings::Entry> gnomeKeybindings() const;
    // "<Control><Alt>s"; empty for a key GNOME cannot name.
    static QString gtkAccelerator(quint32 key, quint64 modifiers);

    Q_INVOKABLE void enableGnomeExtension();
    Q_INVOKABLE void addGnomeKeybindings();
    // Puts the desktop binding lines on the clipboard.
    Q_INVOKABLE void copyDesktopBindings() const;

Q_SIGNALS:
    void rowsChanged();
    void gnomeChanged();
    void captureProblemChanged();
    void recordingRowChanged();
    void helpChanged();

private:
    HotkeyManager *m_hotkeys = nullptr;
    std::function<QString()> m_readCaptureProblem;
    QString m_captureProblem;
    int m_recordingRow = -1;
    GnomeShellExtension::Support m_gnome = GnomeShellExtension::Support::NotGnome;
    QString m_gnomeActionResult;
};
