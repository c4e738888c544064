// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

// One JSON object per line and per request, appended once the response has ended, so that a test can
// check exactly what a client sent and what it was given back.
class RequestLog
{
public:
    struct Entry
    {
        std::string method;
        std::string path;
        std::string query;
        // As received: original spelling of names, repeated names kept apart.
        std::vector<std::pair<std::string, std::string>> headers;
        std::string body;
        // 0 when the connection was closed without any response.
        int status = 0;
        std::uint64_t bodyBytesSent = 0;
        // When the whole request had arrived, in milliseconds since the epoch (0: not known).
        std::int64_t receivedMs = 0;
    };

    // Throws std::runtime_error when the file cannot be opened for appending.
    explicit RequestLog(const std::string &path);
    ~RequestLog();
    RequestLog(const RequestLog &) = delete;
    RequestLog &operator=(const RequestLog &) = delete;

    void append(const Entry &entry);
    // Later appends are dropped; the file holds only whole lines.
    void close();

private:
    std::mutex m_mutex;
    std::FILE *m_file = nullptr;
};
