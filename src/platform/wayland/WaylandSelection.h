// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

#include <chrono>
#include <optional>

// The text another Wayland client has highlighted (the primary selection), read without focus and
// without touching the clipboard. Wayland gives an unfocused client the selections only through the
// data-control protocol (wlroots compositors offer the primary selection there from version 2), and
// wl-paste from wl-clipboard speaks it.
namespace WaylandSelection {

enum class Support {
    Available,
    NotWayland,            // no WAYLAND_DISPLAY: not a Wayland session
    CompositorUnreachable, // WAYLAND_DISPLAY names no compositor we can connect to
    NoDataControl,         // the compositor offers no data-control at all (GNOME)
    ClipboardOnly,         // data-control without the primary selection (KWin)
    NoReader,              // wl-paste is not installed
};

// What a compositor announced, as far as reading selections goes.
struct CompositorFacts
{
    bool connected = false;
    quint32 wlrDataControlVersion = 0; // zwlr_data_control_manager_v1; 0 when absent
    bool extDataControl = false;       // ext_data_control_manager_v1, which always has the primary selection
    // Version 2 announced, yet no primary selection ever sent: KWin 5.27 does this, and wl-paste then
    // says the compositor does not support it.
    bool primaryWithheld = false;
};

Support decide(bool waylandSession, const CompositorFacts &compositor, bool haveReader);

// This session's answer, worked out on first use (one round trip to the compositor) and kept: a
// compositor does not change its globals' versions while it runs.
Support support();

// Why the highlighted text cannot be read in this session; empty when it can.
QString explanation(Support support);

// The highlighted text; nothing when there is none, it is not text, or wl-paste did not answer in time.
std::optional<QString> readPrimarySelection(std::chrono::milliseconds timeLimit);

} // namespace WaylandSelection
