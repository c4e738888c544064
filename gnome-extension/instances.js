// SPDX-License-Identifier: GPL-3.0-or-later
// The Quillvox programs running on the session bus: each owns com.vantor.Quillvox, or a profile's
// com.vantor.Quillvox.Profile_ and ten hex digits. Only they may read the selection through us, and each
// gets a status indicator.
import Gio from 'gi://Gio';
import GLib from 'gi://GLib';

const DEFAULT_NAME = 'com.vantor.Quillvox';
const PROFILE_NAME = /^com\.vantor\.Quillvox\.Profile_[0-9a-f]{10}$/;

export function isQuillvoxName(name) {
    return name === DEFAULT_NAME || PROFILE_NAME.test(name);
}

export class QuillvoxInstances {
    constructor(connection) {
        this._connection = connection;
        this._owners = new Map(); // bus name → unique name of its owner
        this._pids = new Map();   // unique name → process id
        this._listeners = new Set();
        this._subscription = 0;
    }

    start() {
        // Names in that namespace include our own service's; isQuillvoxName sorts them out.
        this._subscription = this._connection.signal_subscribe('org.freedesktop.DBus',
            'org.freedesktop.DBus', 'NameOwnerChanged', '/org/freedesktop/DBus', DEFAULT_NAME,
            Gio.DBusSignalFlags.MATCH_ARG0_NAMESPACE,
            (_c, _sender, _path, _iface, _signal, parameters) => {
                const [name, , owner] = parameters.deep_unpack();
                this._set(name, owner);
            });
        this.refresh();
    }

    stop() {
        if (this._subscription)
            this._connection.signal_unsubscribe(this._subscription);
        this._subscription = 0;
        this._listeners.clear();
        this._owners.clear();
    }

    // listener(name, owner or ''): an instance came or went.
    connect(listener) {
        this._listeners.add(listener);
        return () => this._listeners.delete(listener);
    }

    names() {
        return [...this._owners.keys()];
    }

    isQuillvoxProcess(pid) {
        return pid > 0 && [...this._owners.values()].some(owner => this._pids.get(owner) === pid);
    }

    // Whether `sender`, a unique bus name, is a Quillvox. The bus is asked again before a refusal, so that
    // an instance whose name is younger than our last news is not turned away.
    async isQuillvox(sender) {
        if ([...this._owners.values()].includes(sender))
            return true;
        await this.refresh();
        return [...this._owners.values()].includes(sender);
    }

    async refresh() {
        const reply = await this._call('ListNames', null);
        const names = reply ? reply.deep_unpack()[0].filter(isQuillvoxName) : [];
        for (const name of [...this._owners.keys()]) {
            if (!names.includes(name))
                this._set(name, '');
        }
        await Promise.all(names.map(async name => {
            const owner = await this._call('GetNameOwner', new GLib.Variant('(s)', [name]));
            this._set(name, owner ? owner.deep_unpack()[0] : '');
        }));
    }

    _set(name, owner) {
        const previous = this._owners.get(name) ?? '';
        if (!isQuillvoxName(name) || previous === owner)
            return;
        // One process may own several names; its pid goes with the last.
        if (previous && [...this._owners.values()].filter(o => o === previous).length === 1)
            this._pids.delete(previous);
        if (owner)
            this._owners.set(name, owner);
        else
            this._owners.delete(name);
        if (owner && !this._pids.has(owner)) {
            this._call('GetConnectionUnixProcessID', new GLib.Variant('(s)', [owner])).then(pid => {
                if (pid)
                    this._pids.set(owner, pid.deep_unpack()[0]);
            });
        }
        for (const listener of this._listeners)
            listener(name, owner);
    }

    _call(method, parameters) {
        return new Promise(resolve => {
            this._connection.call('org.freedesktop.DBus', '/org/freedesktop/DBus', 'org.freedesktop.DBus',
                method, parameters, null, Gio.DBusCallFlags.NONE, -1, null, (connection, result) => {
                    try {
                        resolve(connection.call_finish(result));
                    } catch {
                        resolve(null);
                    }
                });
        });
    }
}
