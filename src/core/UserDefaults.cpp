// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/UserDefaults.h"

#include <QStandardPaths>

#include <cmath>
#include <limits>

namespace {

// Parses a decimal number without sign, spaces or exponent; nothing on overflow.
std::optional<quint64> parseUnsignedDecimal(QStringView text)
{
    if (text.isEmpty() || text.size() > 20)
        return std::nullopt;
    quint64 value = 0;
    for (QChar c : text) {
        if (c < u'0' || c > u'9')
            return std::nullopt;
        const quint64 digit = c.unicode() - u'0';
        if (value > (std::numeric_limits<quint64>::max() - digit) / 10)
            return std::nullopt;
        value = value * 10 + digit;
    }
    return value;
}

std::optional<quint64> unsignedValue(const QVariant &v, quint64 max)
{
    std::optional<quint64> result;
    switch (v.typeId()) {
    case QMetaType::QString:
        result = parseUnsignedDecimal(v.toString());
        break;
    case QMetaType::Int:
    case QMetaType::Long:
    case QMetaType::LongLong: {
        const qlonglong n = v.toLongLong();
        if (n >= 0)
            result = quint64(n);
        break;
    }
    case QMetaType::UInt:
    case QMetaType::ULong:
    case QMetaType::ULongLong:
        result = v.toULongLong();
        break;
    case QMetaType::Double: {
        // A number stored with a fraction does not convert; 2^64 itself is out of range.
        const double d = v.toDouble();
        if (std::isfinite(d) && d >= 0 && d < 18446744073709551616.0 && std::trunc(d) == d)
            result = quint64(d);
        break;
    }
    default:
        break;
    }
    if (result && *result > max)
        return std::nullopt;
    return result;
}

} // namespace

UserDefaults::UserDefaults(const QString &filePath)
    : m_settings(std::make_unique<QSettings>(filePath, QSettings::IniFormat))
{}

UserDefaults::~UserDefaults() = default;

QString UserDefaults::standardFilePath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
           QStringLiteral("/Quillvox/Quillvox.conf");
}

UserDefaults &UserDefaults::standard()
{
    static UserDefaults instance(standardFilePath());
    return instance;
}

QString UserDefaults::filePath() const
{
    return m_settings->fileName();
}

bool UserDefaults::contains(const QString &key) const
{
    return m_settings->contains(key);
}

std::optional<QString> UserDefaults::string(const QString &key) const
{
    const QVariant v = m_settings->value(key);
    if (v.typeId() != QMetaType::QString)
        return std::nullopt;
    return v.toString();
}

std::optional<bool> UserDefaults::boolean(const QString &key) const
{
    const QVariant v = m_settings->value(key);
    if (v.typeId() == QMetaType::Bool)
        return v.toBool();
    if (v.typeId() == QMetaType::QString) {
        // INI keeps Booleans as text.
        const QString s = v.toString();
        if (s == u"true" || s == u"1")
            return true;
        if (s == u"false" || s == u"0")
            return false;
    }
    return std::nullopt;
}

std::optional<QByteArray> UserDefaults::data(const QString &key) const
{
    const QVariant v = m_settings->value(key);
    if (v.typeId() != QMetaType::QByteArray)
        return std::nullopt;
    return v.toByteArray();
}

std::optional<QDateTime> UserDefaults::date(const QString &key) const
{
    const QVariant v = m_settings->value(key);
    if (v.typeId() != QMetaType::QDateTime)
        return std::nullopt;
    const QDateTime d = v.toDateTime();
    if (!d.isValid())
        return std::nullopt;
    return d;
}

std::optional<quint32> UserDefaults::unsigned32(const QString &key) const
{
    const auto v = unsignedValue(m_settings->value(key), std::numeric_limits<quint32>::max());
    if (!v)
        return std::nullopt;
    return quint32(*v);
}

std::optional<quint64> UserDefaults::unsigned64(const QString &key) const
{
    return unsignedValue(m_settings->value(key), std::numeric_limits<quint64>::max());
}

void UserDefaults::setString(const QString &key, const QString &value)
{
    m_settings->setValue(key, value);
}

void UserDefaults::setBoolean(const QString &key, bool value)
{
    m_settings->setValue(key, value);
}

void UserDefaults::setData(const QString &key, const QByteArray &value)
{
    m_settings->setValue(key, value);
}

void UserDefaults::setDate(const QString &key, const QDateTime &value)
{
    m_settings->setValue(key, value);
}

void UserDefaults::setUnsigned32(const QString &key, quint32 value)
{
    // Stored as decimal text so that the file stays readable and every reader parses the same form.
    m_settings->setValue(key, QString::number(value));
}

void UserDefaults::setUnsigned64(const QString &key, quint64 value)
{
    m_settings->setValue(key, QString::number(value));
}

void UserDefaults::remove(const QString &key)
{
    m_settings->remove(key);
}

void UserDefaults::sync()
{
    m_settings->sync();
}
