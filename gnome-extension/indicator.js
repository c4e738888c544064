// SPDX-License-Identifier: GPL-3.0-or-later
// Quillvox's status menu in GNOME's top bar, where GNOME has no tray: one indicator for each running
// Quillvox, its menu and icon as that Quillvox publishes them (com.vantor.Quillvox.StatusMenu), a choice
// running the tray menu's action there.
import Gio from 'gi://Gio';
import GLib from 'gi://GLib';
import St from 'gi://St';

import * as Main from 'resource:///org/gnome/shell/ui/main.js';
import * as PanelMenu from 'resource:///org/gnome/shell/ui/panelMenu.js';
import * as PopupMenu from 'resource:///org/gnome/shell/ui/popupMenu.js';

const MENU_PATH = '/com/vantor/Quillvox/StatusMenu';
const MENU_INTERFACE = 'com.vantor.Quillvox.StatusMenu';

class StatusIndicator {
    constructor(connection, name, owner, icons) {
        this._connection = connection;
        this._name = name;
        this._owner = owner;
        this._icons = icons;
        this._button = null;
        this._icon = null;
        this._subscription = connection.signal_subscribe(owner, MENU_INTERFACE, 'Changed', MENU_PATH, null,
            Gio.DBusSignalFlags.NONE, () => this._load());
        this._load();
    }

    destroy() {
        this._connection.signal_unsubscribe(this._subscription);
        this._button?.destroy();
        this._button = null;
    }

    _load() {
        this._connection.call(this._owner, MENU_PATH, MENU_INTERFACE, 'GetMenu', null, null,
            Gio.DBusCallFlags.NONE, -1, null, (connection, result) => {
                let menu;
                try {
                    menu = connection.call_finish(result).deep_unpack();
                } catch {
                    return; // not exported yet: its Changed signal says when it is
                }
                if (this._subscription)
                    this._show(...menu);
            });
    }

    _show(playing, items) {
        if (!this._button) {
            this._button = new PanelMenu.Button(0.0, 'Quillvox', false);
            this._icon = new St.Icon({style_class: 'system-status-icon'});
            this._button.add_child(this._icon);
            Main.panel.addToStatusArea(`quillvox-${this._name}`, this._button);
        }
        // Symbolic: drawn in the bar's foreground colour.
        this._icon.gicon = playing ? this._icons.playing : this._icons.idle;
        const menu = this._button.menu;
        menu.removeAll();
        for (const [id, label, enabled, separator] of items) {
            if (separator) {
                menu.addMenuItem(new PopupMenu.PopupSeparatorMenuItem());
                continue;
            }
            const item = new PopupMenu.PopupMenuItem(label);
            item.setSensitive(enabled);
            item.connect('activate', () => this._activate(id));
            menu.addMenuItem(item);
        }
    }

    _activate(id) {
        this._connection.call(this._owner, MENU_PATH, MENU_INTERFACE, 'Activate',
            new GLib.Variant('(s)', [id]), null, Gio.DBusCallFlags.NONE, -1, null, (connection, result) => {
                try {
                    connection.call_finish(result);
                } catch (e) {
                    // The menu changed under the pointer; the next Changed brings it up to date.
                    log(`Quillvox: ${e.message}`);
                }
            });
    }
}

export class StatusIndicators {
    // iconFolder: where the extension keeps its symbolic icons.
    constructor(connection, instances, iconFolder) {
        this._connection = connection;
        this._instances = instances;
        const icon = file => new Gio.FileIcon({file: Gio.File.new_for_path(`${iconFolder}/${file}`)});
        this._icons = {idle: icon('quillvox-symbolic.svg'), playing: icon('quillvox-playing-symbolic.svg')};
        this._indicators = new Map(); // bus name → StatusIndicator
        this._disconnect = null;
    }

    start() {
        this._disconnect = this._instances.connect((name, owner) => this._instanceChanged(name, owner));
    }

    stop() {
        this._disconnect?.();
        this._disconnect = null;
        for (const indicator of this._indicators.values())
            indicator.destroy();
        this._indicators.clear();
    }

    _instanceChanged(name, owner) {
        this._indicators.get(name)?.destroy();
        this._indicators.delete(name);
        if (owner)
            this._indicators.set(name, new StatusIndicator(this._connection, name, owner, this._icons));
    }
}
