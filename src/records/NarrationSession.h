// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QMetaType>
#include <QString>
#include <QUuid>

#include <optional>

// One history record. The audio itself lives in a file named after the id; this is only what the
// list in the user defaults keeps.
struct NarrationSession
{
    Q_GADGET
    Q_PROPERTY(QUuid id MEMBER id)
    Q_PROPERTY(QString text MEMBER text)
    Q_PROPERTY(QString voice MEMBER voice)
    Q_PROPERTY(QDateTime timestamp MEMBER timestamp)
    Q_PROPERTY(double durationSeconds MEMBER durationSeconds)
    Q_PROPERTY(QString formattedDuration READ formattedDuration)

public:
    QUuid id;
    QString text;
    QString voice;
    // The end of the narration, not its start.
    QDateTime timestamp;
    double durationSeconds = 0;

    // "42s", "1m 0s", "2m 5s": whole seconds, truncated, never zero-padded.
    QString formattedDuration() const;

    // The 36-character upper-case form with hyphens, as used in the stored list and the file name.
    static QString canonicalId(const QUuid &id);

    // The stored list: a JSON array, newest first, of objects with exactly the five members. The
    // timestamp is seconds since 2001-01-01T00:00:00 UTC with fractions.
    static QByteArray encodeList(const QList<NarrationSession> &sessions);
    // Nothing unless every element decodes: one bad entry makes the whole list unreadable.
    static std::optional<QList<NarrationSession>> decodeList(const QByteArray &json);

    friend bool operator==(const NarrationSession &, const NarrationSession &) = default;
};
