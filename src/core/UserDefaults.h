// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QSettings>
#include <QString>

#include <memory>
#include <optional>

// The user-defaults store: plain string keys in an INI file. Every read checks the stored type and
// answers nothing for a missing or corrupt value, so that callers fall back to their defaults.
class UserDefaults
{
public:
    // Opens (or creates on first write) the INI file at filePath.
    explicit UserDefaults(const QString &filePath);
    ~UserDefaults();
    UserDefaults(const UserDefaults &) = delete;
    UserDefaults &operator=(const UserDefaults &) = delete;

    // The process-wide store at $XDG_CONFIG_HOME/Quillvox/Quillvox.conf.
    static UserDefaults &standard();
    static QString standardFilePath();

    QString filePath() const;
    bool contains(const QString &key) const;

    std::optional<QString> string(const QString &key) const;
    std::optional<bool> boolean(const QString &key) const;
    // A data value: only bytes that were stored as bytes count (a plain string does not).
    std::optional<QByteArray> data(const QString &key) const;
    // A date: only a value stored as a date counts (an ISO text does not).
    std::optional<QDateTime> date(const QString &key) const;
    // The value when it converts exactly to an unsigned 32/64-bit number: integral, not negative, in range.
    std::optional<quint32> unsigned32(const QString &key) const;
    std::optional<quint64> unsigned64(const QString &key) const;

    void setString(const QString &key, const QString &value);
    void setBoolean(const QString &key, bool value);
    void setData(const QString &key, const QByteArray &value);
    void setDate(const QString &key, const QDateTime &value);
    void setUnsigned32(const QString &key, quint32 value);
    void setUnsigned64(const QString &key, quint64 value);
    void remove(const QString &key);

    // Writes pending changes to disk (also happens on destruction and from the event loop).
    void sync();

private:
    std::unique_ptr<QSettings> m_settings;
};
