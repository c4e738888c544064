// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/TrayIconImages.h"

#include <QImageReader>
#include <QPainter>

#include <algorithm>

namespace TrayIconImages {

namespace {

const QColor kLightStroke(0xf6, 0xf5, 0xf4);
const QColor kDarkStroke(0x2e, 0x34, 0x36);
const QColor kOutline(0x1e, 0x1e, 0x1e, 0xd0);

// The shape in one colour, `inset` pixels in from each edge.
QImage shape(bool playing, int size, int inset, const QColor &colour)
{
    QImageReader reader(playing ? QStringLiteral(":/icons/waveform.circle.fill.svg")
                                : QStringLiteral(":/icons/waveform.svg"));
    reader.setScaledSize(QSize(size - 2 * inset, size - 2 * inset));
    QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.drawImage(inset, inset, reader.read());
    painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
    painter.fillRect(image.rect(), colour);
    return image;
}

// The shape grown by one pixel in every direction, in the outline's colour.
QImage outline(const QImage &shape)
{
    QImage grown(shape.size(), QImage::Format_ARGB32_Premultiplied);
    grown.fill(Qt::transparent);
    for (int y = 0; y < shape.height(); ++y) {
        for (int x = 0; x < shape.width(); ++x) {
            int alpha = 0;
            for (int dy = -1; dy <= 1; ++dy) {
                for (int dx = -1; dx <= 1; ++dx) {
                    if (shape.rect().contains(x + dx, y + dy))
                        alpha = std::max(alpha, qAlpha(shape.pixel(x + dx, y + dy)));
                }
            }
            const int a = alpha * kOutline.alpha() / 255;
            grown.setPixel(x, y, qPremultiply(qRgba(kOutline.red(), kOutline.green(), kOutline.blue(), a)));
        }
    }
    return grown;
}

} // namespace

QString iconName(bool playing)
{
    return playing ? QStringLiteral("com.vantor.Quillvox-playing-symbolic")
                   : QStringLiteral("com.vantor.Quillvox-symbolic");
}

QImage render(bool playing, int size, Panel panel)
{
    switch (panel) {
    case Panel::Dark:
        return shape(playing, size, 0, kLightStroke);
    case Panel::Light:
        return shape(playing, size, 0, kDarkStroke);
    case Panel::Unknown:
        break;
    }
    const QImage stroke = shape(playing, size, 1, kLightStroke);
    QImage image = outline(stroke);
    QPainter(&image).drawImage(0, 0, stroke);
    return image;
}

QList<QImage> pixmaps(bool playing, Panel panel)
{
    QList<QImage> images;
    for (const int size : kSizes)
        images.append(render(playing, size, panel));
    return images;
}

} // namespace TrayIconImages
