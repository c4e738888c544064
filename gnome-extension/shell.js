// SPDX-License-Identifier: GPL-3.0-or-later
// The service's view of GNOME Shell: its clipboard and its key grabs.
import GLib from 'gi://GLib';
import Meta from 'gi://Meta';
import Shell from 'gi://Shell';
import St from 'gi://St';

import * as Main from 'resource:///org/gnome/shell/ui/main.js';

export class ShellAdapter {
    readText(primary, callback) {
        const type = primary ? St.ClipboardType.PRIMARY : St.ClipboardType.CLIPBOARD;
        // WORKAROUND: GNOME Shell 43 crashed (a callback closure used after it was freed) when get_text()
        // was called again from within the answer of an earlier one, which for an empty selection comes
        // before get_text() returns. Every call and every answer goes through the main loop.
        GLib.idle_add(GLib.PRIORITY_DEFAULT, () => {
            St.Clipboard.get_default().get_text(type, (_clipboard, text) => {
                GLib.idle_add(GLib.PRIORITY_DEFAULT, () => {
                    callback(text);
                    return GLib.SOURCE_REMOVE;
                });
            });
            return GLib.SOURCE_REMOVE;
        });
    }

    grab(accelerator) {
        const action = global.display.grab_accelerator(accelerator, Meta.KeyBindingFlags.NONE);
        if (action === Meta.KeyBindingAction.NONE)
            return 0;
        // Also while a menu or the overview is open, like the desktop's own media keys.
        Main.wm.allowKeybinding(Meta.external_binding_name_for_action(action),
            Shell.ActionMode.NORMAL | Shell.ActionMode.OVERVIEW | Shell.ActionMode.POPUP);
        return action;
    }

    ungrab(action) {
        global.display.ungrab_accelerator(action);
        Main.wm.allowKeybinding(Meta.external_binding_name_for_action(action), Shell.ActionMode.NONE);
    }

    onAccelerator(callback) {
        const id = global.display.connect('accelerator-activated',
            (_display, action) => callback(action));
        return () => global.display.disconnect(id);
    }
}
