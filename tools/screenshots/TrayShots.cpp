// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrayShots.h"

#include "app/TrayIconImages.h"

#include <QDir>
#include <QImage>
#include <QPainter>

int shootTrayIcons(const QDir &out)
{
    using TrayIconImages::Panel;
    const struct
    {
        const char *name;
        Panel panel;
    } schemes[] = {
        {"no-preference", Panel::Unknown}, {"prefer-dark", Panel::Dark}, {"prefer-light", Panel::Light}};
    const QColor panels[] = {QColor(0x35, 0x35, 0x35), QColor(0xf6, 0xf5, 0xf4)};
    const int sizes[] = {16, 22, 32};
    constexpr int kPadding = 6;

    int written = 0;
    for (const auto &scheme : schemes) {
        // One strip per panel colour; in each, idle and playing side by side at each size, each icon
        // centred in a panel as tall as a host makes it for that size.
        int width = kPadding;
        for (const int size : sizes)
            width += 2 * (size + kPadding) + kPadding;
        const int stripHeight = 32 + 2 * kPadding;
        QImage image(width, stripHeight * 2, QImage::Format_ARGB32);
        QPainter painter(&image);
        for (int strip = 0; strip < 2; ++strip) {
            painter.fillRect(0, strip * stripHeight, width, stripHeight, panels[strip]);
            int x = kPadding;
            for (const int size : sizes) {
                for (const bool playing : {false, true}) {
                    const int y = strip * stripHeight + (stripHeight - size) / 2;
                    painter.drawImage(x, y, TrayIconImages::render(playing, size, scheme.panel));
                    x += size + kPadding;
                }
                x += kPadding;
            }
        }
        painter.end();
        if (image.save(out.filePath(QStringLiteral("tray-icon-%1.png").arg(QLatin1String(scheme.name)))))
            ++written;
    }
    return written;
}
