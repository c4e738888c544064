// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QImage>
#include <QList>
#include <QString>

// The tray icon: its themed names, which panels that recolour symbolic icons use, and the pictures
// sent to panels that draw pixmaps as they are.
namespace TrayIconImages {

// What the panel behind the icon is known to be.
enum class Panel {
    Unknown, // light strokes with a thin dark outline, which read on dark and light panels alike
    Dark,
    Light,
};

inline constexpr int kSizes[] = {16, 22, 24, 32};

// "com.vantor.Quillvox-symbolic", or "com.vantor.Quillvox-playing-symbolic" while playing.
QString iconName(bool playing);
QImage render(bool playing, int size, Panel panel);
// One picture per size of kSizes.
QList<QImage> pixmaps(bool playing, Panel panel);

} // namespace TrayIconImages
