// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QHash>
#include <QList>
#include <QString>

#include <functional>

// System-wide shortcuts that the desktop binds by action rather than by combination: the application
// names each action and the combination it would like, the desktop decides which key (if any) it gets
// and reports a press by the action's id. The GlobalShortcuts portal works this way, and so does our
// GNOME Shell extension. Used on the GUI thread only.
class ActionShortcuts
{
public:
    struct Shortcut
    {
        // Stable across releases: the desktop remembers the user's choices by it ("narrate-selection").
        QString id;
        QString description;
        // Modifiers CTRL, ALT, SHIFT, LOGO and an X keysym name, joined by "+": "CTRL+ALT+s".
        QString preferredTrigger;

        friend bool operator==(const Shortcut &, const Shortcut &) = default;
    };

    // Action id → the desktop's own description of the key it assigned ("Ctrl+Alt+S"); an action
    // without a key is absent.
    using Assignments = QHash<QString, QString>;

    virtual ~ActionShortcuts() = default;

    // Replaces the whole set. The answer may come later, through the assignments handler; a backend
    // that loses its desktop side binds the last set again when it returns.
    virtual void bind(const QList<Shortcut> &shortcuts) = 0;
    // Called with every change of the assignments (after a bind, after the user changed a key in the
    // desktop's settings, with an empty set when the desktop side went away).
    virtual void setAssignmentsHandler(std::function<void(const Assignments &)> handler) = 0;
    // Called once per press of an assigned key.
    virtual void setActivationHandler(std::function<void(const QString &id)> handler) = 0;
};
