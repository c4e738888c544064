// SPDX-License-Identifier: GPL-3.0-or-later
#include "RequestLog.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace {

QString fromUtf8(const std::string &text)
{
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

} // namespace

RequestLog::RequestLog(const std::string &path)
    : m_file(std::fopen(path.c_str(), "ae"))
{
    if (!m_file)
        throw std::runtime_error("cannot open log " + path + ": " + std::strerror(errno));
}

RequestLog::~RequestLog()
{
    close();
}

void RequestLog::append(const Entry &entry)
{
    // HTTP allows a repeated header to be folded into one comma-separated value.
    QJsonObject headers;
    for (const auto &[name, value] : entry.headers) {
        const QString key = fromUtf8(name);
        const QString folded =
            headers.contains(key) ? headers.value(key).toString() + u", " + fromUtf8(value) : fromUtf8(value);
        headers.insert(key, folded);
    }
    const QJsonObject record{
        {"time", QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs)},
        {"method", fromUtf8(entry.method)},
        {"path", fromUtf8(entry.path)},
        {"query", fromUtf8(entry.query)},
        {"headers", headers},
        {"body", fromUtf8(entry.body)},
        {"status", entry.status},
        {"bodyBytesSent", static_cast<qint64>(entry.bodyBytesSent)},
        {"receivedMs", static_cast<qint64>(entry.receivedMs)},
    };
    const QByteArray line = QJsonDocument(record).toJson(QJsonDocument::Compact) + '\n';

    std::lock_guard lock(m_mutex);
    if (!m_file)
        return;
    std::fwrite(line.constData(), 1, static_cast<std::size_t>(line.size()), m_file);
    std::fflush(m_file);
}

void RequestLog::close()
{
    std::lock_guard lock(m_mutex);
    if (m_file)
        std::fclose(std::exchange(m_file, nullptr));
}
