// SPDX-License-Identifier: GPL-3.0-or-later
// The extension's service under plain gjs, on the test's bus, with a scripted GNOME Shell behind it that
// the test drives over com.vantor.Quillvox.Test: which keys are taken, key presses, and the extension
// being switched off and on. Its selection is always SELECTION.
import Gio from 'gi://Gio';
import GLib from 'gi://GLib';

import {QuillvoxInstances} from '../../../gnome-extension/instances.js';
import {QuillvoxService} from '../../../gnome-extension/service.js';

// Held by another program, as the lock screen's key is.
const TAKEN = ['<Super>l'];
const SELECTION = 'Highlighted in the fake shell';

class FakeShell {
    constructor() {
        this.grabs = new Map();
        this._next = 1;
        this._listener = null;
    }

    readText(_primary, callback) {
        callback(SELECTION);
    }

    grab(accelerator) {
        if (TAKEN.includes(accelerator) || [...this.grabs.values()].includes(accelerator))
            return 0;
        const handle = this._next++;
        this.grabs.set(handle, accelerator);
        return handle;
    }

    ungrab(handle) {
        this.grabs.delete(handle);
    }

    onAccelerator(callback) {
        this._listener = callback;
        return () => {
            this._listener = null;
        };
    }

    press(accelerator) {
        for (const [handle, grabbed] of this.grabs) {
            if (grabbed === accelerator && this._listener) {
                this._listener(handle);
                return true;
            }
        }
        return false;
    }
}

const CONTROL_XML = `
<node>
  <interface name="com.vantor.Quillvox.Test">
    <method name="Press">
      <arg type="s" name="accelerator" direction="in"/>
      <arg type="b" name="grabbed" direction="out"/>
    </method>
    <method name="Grabs">
      <arg type="as" name="accelerators" direction="out"/>
    </method>
    <method name="SetEnabled">
      <arg type="b" name="enabled" direction="in"/>
    </method>
  </interface>
</node>`;

const shell = new FakeShell();
const instances = new QuillvoxInstances(Gio.DBus.session);
instances.start();
let service = null;

const control = {
    Press(accelerator) {
        return shell.press(accelerator);
    },
    Grabs() {
        return [...shell.grabs.values()].sort();
    },
    SetEnabled(enabled) {
        if (enabled && !service) {
            service = new QuillvoxService(Gio.DBus.session, shell, instances);
            service.start();
        } else if (!enabled && service) {
            service.stop();
            service = null;
        }
    },
};

const exported = Gio.DBusExportedObject.wrapJSObject(CONTROL_XML, control);
exported.export(Gio.DBus.session, '/com/vantor/Quillvox/Test');
control.SetEnabled(true);
Gio.bus_own_name_on_connection(Gio.DBus.session, 'com.vantor.Quillvox.Test', Gio.BusNameOwnerFlags.NONE,
    null, null);
new GLib.MainLoop(null, false).run();
