// SPDX-License-Identifier: GPL-3.0-or-later
// What Quillvox asks of GNOME Shell, on the session bus: the highlighted text, and system-wide keys.
// The shell itself is reached through an adapter (shell.js), so that this part runs, and is tested,
// under plain gjs with a fake in its place.
import Gio from 'gi://Gio';
import GLib from 'gi://GLib';

export const BUS_NAME = 'com.vantor.Quillvox.Shell';
export const OBJECT_PATH = '/com/vantor/Quillvox/Shell';
export const INTERFACE_VERSION = 1;

const INTERFACE_XML = `
<node>
  <interface name="com.vantor.Quillvox.Shell">
    <method name="ReadSelection">
      <arg type="s" name="text" direction="out"/>
    </method>
    <method name="BindShortcuts">
      <arg type="a(ss)" name="shortcuts" direction="in"/>
      <arg type="as" name="bound" direction="out"/>
    </method>
    <signal name="Activated">
      <arg type="s" name="id"/>
    </signal>
    <property name="Version" type="u" access="read"/>
  </interface>
</node>`;

// shell: readText(primary, callback(text or null)), grab(accelerator) → a handle or 0 when the shell
// refuses the combination, ungrab(handle), and onAccelerator(callback(handle)) → a disconnect function.
// instances: a QuillvoxInstances; only those programs are answered, everyone else refused.
export class QuillvoxService {
    constructor(connection, shell, instances) {
        this._connection = connection;
        this._shell = shell;
        this._instances = instances;
        this._grabs = new Map(); // handle → action id
        this._client = null;     // the unique bus name that bound the keys
        this._clientWatch = 0;
        this._nameId = 0;
        this._stopListening = null;
        this._object = Gio.DBusExportedObject.wrapJSObject(INTERFACE_XML, this);
    }

    start() {
        this._object.export(this._connection, OBJECT_PATH);
        this._stopListening = this._shell.onAccelerator(handle => this._activated(handle));
        this._nameId = Gio.bus_own_name_on_connection(this._connection, BUS_NAME,
            Gio.BusNameOwnerFlags.NONE, null, null);
    }

    stop() {
        if (this._nameId)
            Gio.bus_unown_name(this._nameId);
        this._nameId = 0;
        this._releaseKeys();
        if (this._stopListening)
            this._stopListening();
        this._stopListening = null;
        this._object.unexport();
    }

    get Version() {
        return INTERFACE_VERSION;
    }

    // GNOME keeps the selection and the clipboard from programs that are not focused; we hand them to
    // Quillvox alone.
    _answerQuillvoxOnly(invocation, answer) {
        this._instances.isQuillvox(invocation.get_sender()).then(allowed => {
            if (allowed)
                answer();
            else
                invocation.return_dbus_error('org.freedesktop.DBus.Error.AccessDenied',
                    `${invocation.get_method_name()} is only for Quillvox`);
        });
    }

    // The primary selection, or the clipboard when nothing is highlighted; "" when both are empty.
    ReadSelectionAsync(_parameters, invocation) {
        this._answerQuillvoxOnly(invocation, () => this._readSelection(invocation));
    }

    _readSelection(invocation) {
        this._shell.readText(true, primary => {
            if (primary) {
                invocation.return_value(new GLib.Variant('(s)', [primary]));
                return;
            }
            this._shell.readText(false, clipboard => {
                invocation.return_value(new GLib.Variant('(s)', [clipboard ?? '']));
            });
        });
    }

    // Replaces the keys bound before with these (id, accelerator) pairs: one Quillvox holds the keys at a
    // time, the last to bind. Answers the ids the shell took; the keys stay while the caller is on the bus.
    BindShortcutsAsync([shortcuts], invocation) {
        this._answerQuillvoxOnly(invocation, () => this._bind(shortcuts, invocation));
    }

    _bind(shortcuts, invocation) {
        this._releaseKeys();
        const bound = [];
        for (const [id, accelerator] of shortcuts) {
            if (bound.includes(id) || !accelerator)
                continue;
            const handle = this._shell.grab(accelerator);
            if (!handle)
                continue;
            this._grabs.set(handle, id);
            bound.push(id);
        }
        if (bound.length > 0)
            this._watchClient(invocation.get_sender());
        invocation.return_value(new GLib.Variant('(as)', [bound]));
    }

    _watchClient(sender) {
        this._client = sender;
        this._clientWatch = Gio.bus_watch_name_on_connection(this._connection, sender,
            Gio.BusNameWatcherFlags.NONE, null, () => this._releaseKeys());
    }

    _releaseKeys() {
        for (const handle of this._grabs.keys())
            this._shell.ungrab(handle);
        this._grabs.clear();
        if (this._clientWatch)
            Gio.bus_unwatch_name(this._clientWatch);
        this._clientWatch = 0;
        this._client = null;
    }

    _activated(handle) {
        const id = this._grabs.get(handle);
        if (id === undefined || !this._client)
            return;
        // To the client that bound the key only: another program on the bus learns nothing of it.
        this._connection.emit_signal(this._client, OBJECT_PATH, 'com.vantor.Quillvox.Shell',
            'Activated', new GLib.Variant('(s)', [id]));
    }
}
