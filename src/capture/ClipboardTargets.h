// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <optional>

// Which selection targets are data worth saving, and how plain text is read from them.
class ClipboardTargets
{
public:
    // False for the X11 meta targets (TARGETS, TIMESTAMP, MULTIPLE, SAVE_TARGETS and the side-effect
    // targets such as DELETE) and for application-private ones: names that are not MIME types, such as
    // GTK_TEXT_BUFFER_CONTENTS, which only mean something inside the application that offered them.
    // The ICCCM text targets (UTF8_STRING, STRING, COMPOUND_TEXT) are data, and so is the password
    // manager hint.
    static bool isRestorable(const QString &target);

    // The target to read plain text from: UTF8_STRING, else text/plain;charset=utf-8, else text/plain,
    // else STRING.
    static std::optional<QString> plainTextTarget(const QStringList &targets);
    // The text exactly as delivered: UTF-8, or Latin-1 for STRING. Nothing is trimmed or rewritten.
    static QString decodePlainText(const QString &target, const QByteArray &bytes);
};
