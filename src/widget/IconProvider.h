// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QQuickImageProvider>

// Our SVG symbols in any colour and at the size asked for, so that they stay crisp at every scale:
// "image://quillvox-icons/<name>/<rrggbb or aarrggbb>". The symbols draw with "currentColor".
class IconProvider : public QQuickImageProvider
{
public:
    static constexpr const char *kProviderId = "quillvox-icons";

    IconProvider();

    QImage requestImage(const QString &id, QSize *size, const QSize &requestedSize) override;
    // The symbol's SVG with its colour (hex digits, no '#') filled in; empty for an unknown name.
    static QByteArray coloredSvg(const QString &name, const QString &color);
};
