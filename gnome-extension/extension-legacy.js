// SPDX-License-Identifier: GPL-3.0-or-later
// GNOME Shell 43 and 44 load extensions through the imports object; service.js and shell.js are
// rewritten for it when the extension is built (legacy.cmake).
const {Gio} = imports.gi;
const Me = imports.misc.extensionUtils.getCurrentExtension();
const {QuillvoxService} = Me.imports.service;
const {ShellAdapter} = Me.imports.shell;

class QuillvoxExtension {
    enable() {
        this._service = new QuillvoxService(Gio.DBus.session, new ShellAdapter());
        this._service.start();
    }

    disable() {
        this._service.stop();
        this._service = null;
    }
}

function init() {
    return new QuillvoxExtension();
}
