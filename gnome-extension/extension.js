// SPDX-License-Identifier: GPL-3.0-or-later
// GNOME Shell 45 and later load extensions as ES modules.
import Gio from 'gi://Gio';

import {Extension} from 'resource:///org/gnome/shell/extensions/extension.js';

import {StatusIndicators} from './indicator.js';
import {QuillvoxInstances} from './instances.js';
import {QuillvoxService} from './service.js';
import {ShellAdapter} from './shell.js';
import {WidgetKeeper} from './widget.js';

export default class QuillvoxExtension extends Extension {
    enable() {
        this._instances = new QuillvoxInstances(Gio.DBus.session);
        this._parts = [
            new StatusIndicators(Gio.DBus.session, this._instances, `${this.path}/icons`),
            new WidgetKeeper(this._instances),
            new QuillvoxService(Gio.DBus.session, new ShellAdapter(), this._instances),
        ];
        for (const part of this._parts)
            part.start();
        this._instances.start();
    }

    disable() {
        this._instances.stop();
        for (const part of this._parts.reverse())
            part.stop();
        this._parts = [];
        this._instances = null;
    }
}
