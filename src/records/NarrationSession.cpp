// SPDX-License-Identifier: GPL-3.0-or-later
#include "records/NarrationSession.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>

#include <algorithm>
#include <cmath>

namespace {

// 2001-01-01T00:00:00 UTC in milliseconds since the Unix epoch: the zero of every stored timestamp.
constexpr qint64 kReferenceDateMs = 978307200000;

// Far beyond any real timestamp, but small enough that the conversion to milliseconds cannot
// overflow.
constexpr double kMaxTimestampSeconds = 1e15;

const QString kId = QStringLiteral("id");
const QString kText = QStringLiteral("text");
const QString kVoice = QStringLiteral("voice");
const QString kTimestamp = QStringLiteral("timestamp");
const QString kDurationSeconds = QStringLiteral("durationSeconds");

bool isHex(QChar c)
{
    return (c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'f') || (c >= u'A' && c <= u'F');
}

// Only the bare 8-4-4-4-12 form (either case). QUuid would also take braces, and answers the nil
// UUID for text it cannot parse, so it cannot tell a nil id from garbage on its own.
std::optional<QUuid> parseUuid(const QString &text)
{
    if (text.size() != 36)
        return std::nullopt;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const bool hyphen = i == 8 || i == 13 || i == 18 || i == 23;
        if (hyphen ? text[i] != u'-' : !isHex(text[i]))
            return std::nullopt;
    }
    return QUuid::fromString(text);
}

double secondsSinceReferenceDate(const QDateTime &date)
{
    return double(date.toMSecsSinceEpoch() - kReferenceDateMs) / 1000.0;
}

std::optional<QDateTime> dateFromReferenceSeconds(double seconds)
{
    if (!std::isfinite(seconds) || std::fabs(seconds) > kMaxTimestampSeconds)
        return std::nullopt;
    return QDateTime::fromMSecsSinceEpoch(kReferenceDateMs + std::llround(seconds * 1000.0), Qt::UTC);
}

std::optional<NarrationSession> decodeSession(const QJsonValue &value)
{
    if (!value.isObject())
        return std::nullopt;
    const QJsonObject o = value.toObject();
    const QJsonValue id = o.value(kId);
    const QJsonValue text = o.value(kText);
    const QJsonValue voice = o.value(kVoice);
    const QJsonValue timestamp = o.value(kTimestamp);
    const QJsonValue duration = o.value(kDurationSeconds);
    if (!id.isString() || !text.isString() || !voice.isString() || !timestamp.isDouble() ||
        !duration.isDouble())
        return std::nullopt;

    NarrationSession s;
    const auto uuid = parseUuid(id.toString());
    const auto date = dateFromReferenceSeconds(timestamp.toDouble());
    if (!uuid || !date || !std::isfinite(duration.toDouble()))
        return std::nullopt;
    s.id = *uuid;
    s.text = text.toString();
    s.voice = voice.toString();
    s.timestamp = *date;
    s.durationSeconds = duration.toDouble();
    return s;
}

} // namespace

QString NarrationSession::formattedDuration() const
{
    // Clamped before the conversion: a corrupt stored duration must not make the cast undefined.
    constexpr double kLimit = 1e15;
    const double clamped = std::isnan(durationSeconds) ? 0.0 : std::clamp(durationSeconds, -kLimit, kLimit);
    const auto s = static_cast<qint64>(std::trunc(clamped));
    if (s < 60)
        return QString::number(s) + u's';
    return QString::number(s / 60) + u"m " + QString::number(s % 60) + u's';
}

QString NarrationSession::canonicalId(const QUuid &id)
{
    return id.toString(QUuid::WithoutBraces).toUpper();
}

QByteArray NarrationSession::encodeList(const QList<NarrationSession> &sessions)
{
    QJsonArray array;
    for (const NarrationSession &s : sessions) {
        QJsonObject o;
        o.insert(kId, canonicalId(s.id));
        o.insert(kText, s.text);
        o.insert(kVoice, s.voice);
        o.insert(kTimestamp, secondsSinceReferenceDate(s.timestamp));
        o.insert(kDurationSeconds, s.durationSeconds);
        array.append(o);
    }
    return QJsonDocument(array).toJson(QJsonDocument::Compact);
}

std::optional<QList<NarrationSession>> NarrationSession::decodeList(const QByteArray &json)
{
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError || !doc.isArray())
        return std::nullopt;
    QList<NarrationSession> sessions;
    const QJsonArray array = doc.array();
    sessions.reserve(array.size());
    for (const QJsonValue &v : array) {
        auto s = decodeSession(v);
        if (!s)
            return std::nullopt;
        sessions.append(std::move(*s));
    }
    return sessions;
}
