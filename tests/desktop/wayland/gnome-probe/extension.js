// SPDX-License-Identifier: GPL-3.0-or-later
// The test's eyes in the nested GNOME Shell (as a KWin script is in the KWin test), on the session bus as
// com.vantor.QuillvoxTest.Probe: the windows as GNOME stacks them, the shell's X display and work area, and
// Quillvox's top-bar indicators with their menus, each a JSON text. GNOME Shell 43 and 44.
const {Gio, GLib, Meta} = imports.gi;
const Main = imports.ui.main;
const PopupMenu = imports.ui.popupMenu;

const XML = `
<node>
  <interface name="com.vantor.QuillvoxTest.Probe">
    <method name="Windows"><arg type="s" direction="out"/></method>
    <method name="Shell"><arg type="s" direction="out"/></method>
    <method name="Indicators"><arg type="s" direction="out"/></method>
  </interface>
</node>`;

function rectOf(actor) {
    const [x, y] = actor.get_transformed_position();
    const [width, height] = actor.get_transformed_size();
    return {x: Math.round(x), y: Math.round(y), width: Math.round(width), height: Math.round(height)};
}

const probe = {
    // Bottom to top.
    Windows() {
        const windows = global.display.sort_windows_by_stacking(global.display.list_all_windows());
        return JSON.stringify(windows.map(w => {
            const frame = w.get_frame_rect();
            return {
                title: w.get_title(), wayland: w.get_client_type() === Meta.WindowClientType.WAYLAND,
                x: frame.x, y: frame.y, width: frame.width, height: frame.height, above: w.is_above(),
                sticky: w.is_on_all_workspaces(), focused: global.display.focus_window === w,
                maximized: w.get_maximized() === Meta.MaximizeFlags.BOTH,
            };
        }));
    },
    Shell() {
        const area = Main.layoutManager.getWorkAreaForMonitor(Main.layoutManager.primaryIndex);
        return JSON.stringify({
            display: GLib.getenv('DISPLAY'), xauthority: GLib.getenv('XAUTHORITY'),
            workArea: {x: area.x, y: area.y, width: area.width, height: area.height},
        });
    },
    Indicators() {
        const indicators = Object.entries(Main.panel.statusArea)
            .filter(([role, button]) => role.startsWith('quillvox-') && button);
        return JSON.stringify(indicators.map(([role, button]) => {
            const icon = button.get_first_child()?.gicon;
            return {
                role, rect: rectOf(button), open: button.menu.isOpen,
                icon: icon instanceof Gio.FileIcon ? icon.get_file().get_basename() : '',
                items: button.menu._getMenuItems().map(item => ({
                    label: item instanceof PopupMenu.PopupSeparatorMenuItem ? '-' : item.label.text,
                    sensitive: item.getSensitive(), rect: rectOf(item),
                })),
            };
        }));
    },
};

class Probe {
    enable() {
        this._object = Gio.DBusExportedObject.wrapJSObject(XML, probe);
        this._object.export(Gio.DBus.session, '/com/vantor/QuillvoxTest/Probe');
        this._name = Gio.bus_own_name_on_connection(Gio.DBus.session, 'com.vantor.QuillvoxTest.Probe',
            Gio.BusNameOwnerFlags.NONE, null, null);
    }

    disable() {
        Gio.bus_unown_name(this._name);
        this._object.unexport();
    }
}

function init() {
    return new Probe();
}
