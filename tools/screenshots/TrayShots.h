// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

class QDir;

// The tray icon as a panel that draws pixmaps shows it, on a dark and a light panel at 16, 22 and 32
// px, idle and playing, for each colour scheme the desktop may report. Returns the files written.
int shootTrayIcons(const QDir &out);
