// SPDX-License-Identifier: GPL-3.0-or-later
#include "capture/ClipboardTargets.h"

namespace {

const QString kUtf8String = QStringLiteral("UTF8_STRING");
const QString kString = QStringLiteral("STRING");
const QString kTextPlainUtf8 = QStringLiteral("text/plain;charset=utf-8");
const QString kTextPlain = QStringLiteral("text/plain");

} // namespace

bool ClipboardTargets::isRestorable(const QString &target)
{
    if (target.contains(u'/'))
        return true;
    // The password manager hint is no MIME type, but without it a restored secret would look like any
    // other clipboard content to clipboard history tools.
    return target == kUtf8String || target == kString || target == u"COMPOUND_TEXT" ||
           target == u"x-kde-passwordManagerHint";
}

std::optional<QString> ClipboardTargets::plainTextTarget(const QStringList &targets)
{
    for (const QString &preferred : {kUtf8String, kTextPlainUtf8, kTextPlain, kString}) {
        if (targets.contains(preferred))
            return preferred;
    }
    return std::nullopt;
}

QString ClipboardTargets::decodePlainText(const QString &target, const QByteArray &bytes)
{
    if (target == kString)
        return QString::fromLatin1(bytes);
    return QString::fromUtf8(bytes);
}
