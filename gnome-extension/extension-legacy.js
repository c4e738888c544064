// SPDX-License-Identifier: GPL-3.0-or-later
// GNOME Shell 43 and 44 load extensions through the imports object; the other modules are rewritten for
// it when the extension is built (legacy.cmake).
const {Gio} = imports.gi;
const Me = imports.misc.extensionUtils.getCurrentExtension();
const {StatusIndicators} = Me.imports.indicator;
const {QuillvoxInstances} = Me.imports.instances;
const {QuillvoxService} = Me.imports.service;
const {ShellAdapter} = Me.imports.shell;
const {WidgetKeeper} = Me.imports.widget;

class QuillvoxExtension {
    enable() {
        this._instances = new QuillvoxInstances(Gio.DBus.session);
        this._parts = [
            new StatusIndicators(Gio.DBus.session, this._instances, `${Me.path}/icons`),
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

function init() {
    return new QuillvoxExtension();
}
