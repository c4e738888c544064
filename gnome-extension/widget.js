// SPDX-License-Identifier: GPL-3.0-or-later
// Quillvox's floating widget as a native Wayland window (the user chose Qt's Wayland platform, or GNOME
// runs without XWayland): Wayland lets it neither place itself nor stay above, and GNOME gives every new
// window the keyboard. We do for it what it would ask of an X11 window manager: the top centre, 40 px below
// the top bar, above every window on all workspaces, and the keyboard left where it was.
import GLib from 'gi://GLib';
import Meta from 'gi://Meta';

import * as Main from 'resource:///org/gnome/shell/ui/main.js';

const TITLE = 'Quillvox';
const WIDTH = 340;
const HEIGHT = 140;
const TOP_GAP = 40;

export class WidgetKeeper {
    constructor(instances) {
        this._instances = instances;
        this._lastFocus = null;
        this._displaySignals = [];
    }

    start() {
        const display = global.display;
        this._displaySignals = [
            display.connect('window-created', (_d, window) => this._created(window)),
            display.connect('notify::focus-window', () => this._focusChanged()),
        ];
    }

    stop() {
        for (const id of this._displaySignals)
            global.display.disconnect(id);
        this._displaySignals = [];
        this._lastFocus = null;
    }

    // The onboarding window shares the title: the widget is the one of the panel's proportions (at any
    // scale).
    _isWidget(window) {
        if (!window || window.get_client_type() !== Meta.WindowClientType.WAYLAND ||
            window.get_title() !== TITLE || !this._instances.isQuillvoxProcess(window.get_pid()))
            return false;
        const frame = window.get_frame_rect();
        return frame.width > 0 && frame.width * HEIGHT === frame.height * WIDTH;
    }

    _created(window) {
        if (window.get_client_type() !== Meta.WindowClientType.WAYLAND)
            return;
        // Title and size come with the window's first frame, after it was created.
        const id = window.connect('shown', () => {
            window.disconnect(id);
            if (this._isWidget(window))
                this._place(window);
        });
    }

    _place(window) {
        const area = Main.layoutManager.getWorkAreaForMonitor(Main.layoutManager.primaryIndex);
        const frame = window.get_frame_rect();
        window.move_frame(true, area.x + Math.floor((area.width - frame.width) / 2), area.y + TOP_GAP);
        window.make_above();
        window.stick();
    }

    _focusChanged() {
        const focused = global.display.focus_window;
        if (!this._isWidget(focused)) {
            this._lastFocus = focused;
            return;
        }
        // GNOME focuses a new window before it shows it; the window the user reads keeps the keyboard.
        // From the main loop: not while GNOME is still handing the focus over.
        const previous = this._lastFocus;
        GLib.idle_add(GLib.PRIORITY_HIGH, () => {
            if (global.display.focus_window !== focused)
                return GLib.SOURCE_REMOVE;
            const time = global.display.get_current_time_roundtrip();
            if (previous && global.display.list_all_windows().includes(previous))
                previous.focus(time);
            else
                global.display.unset_input_focus(time);
            return GLib.SOURCE_REMOVE;
        });
    }
}
