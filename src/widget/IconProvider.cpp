// SPDX-License-Identifier: GPL-3.0-or-later
#include "widget/IconProvider.h"

#include <QColor>
#include <QFile>
#include <QPainter>
#include <QSvgRenderer>

IconProvider::IconProvider()
    : QQuickImageProvider(QQuickImageProvider::Image)
{}

QByteArray IconProvider::coloredSvg(const QString &name, const QString &color)
{
    QFile file(QStringLiteral(":/quillvox/icons/") + name + QStringLiteral(".svg"));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QColor c(QLatin1Char('#') + color);
    QByteArray svg = file.readAll();
    // SVG takes the opacity apart from the colour.
    const QByteArray rgb = c.name(QColor::HexRgb).toLatin1();
    const QByteArray opacity = QByteArray::number(c.alphaF());
    for (const QByteArray &attribute : {QByteArrayLiteral("fill"), QByteArrayLiteral("stroke")}) {
        const QByteArray colored =
            attribute + "=\"" + rgb + "\" " + attribute + "-opacity=\"" + opacity + '"';
        svg.replace(QByteArray(attribute + "=\"currentColor\""), colored);
    }
    return svg;
}

QImage IconProvider::requestImage(const QString &id, QSize *size, const QSize &requestedSize)
{
    const qsizetype slash = id.lastIndexOf(QLatin1Char('/'));
    const QString name = id.left(slash);
    const QString color = slash >= 0 ? id.mid(slash + 1) : QStringLiteral("000000");
    QSvgRenderer renderer(coloredSvg(name, color));
    const QSize target = requestedSize.isValid() && !requestedSize.isEmpty() ? requestedSize : QSize(24, 24);
    QImage image(target, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    if (renderer.isValid()) {
        QPainter painter(&image);
        renderer.render(&painter);
    }
    if (size)
        *size = target;
    return image;
}
