// SPDX-License-Identifier: GPL-3.0-or-later
// GNOME Shell 45 and later load extensions as ES modules.
import Gio from 'gi://Gio';

import {Extension} from 'resource:///org/gnome/shell/extensions/extension.js';

import {QuillvoxService} from './service.js';
import {ShellAdapter} from './shell.js';

export default class QuillvoxExtension extends Extension {
    enable() {
        this._service = new QuillvoxService(Gio.DBus.session, new ShellAdapter());
        this._service.start();
    }

    disable() {
        this._service.stop();
        this._service = null;
    }
}
