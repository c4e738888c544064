// SPDX-License-Identifier: GPL-3.0-or-later
#include "DropBeforeHeadServer.h"

#include "RequestLog.h"
#include "StopFlag.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <string>
#include <string_view>

namespace {

// A client that stops sending mid-request is given up on after this long.
constexpr int idleTimeoutMs = 5000;
constexpr int pollSliceMs = 100;

std::string_view trimmed(std::string_view text)
{
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r'))
        text.remove_suffix(1);
    return text;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

// Fills method, path, query and headers from a request head; false when it is not one.
bool parseHead(std::string_view head, RequestLog::Entry &entry, std::size_t &contentLength)
{
    const auto lineEnd = head.find("\r\n");
    const std::string_view requestLine = head.substr(0, lineEnd);
    const auto firstSpace = requestLine.find(' ');
    const auto secondSpace = requestLine.find(' ', firstSpace + 1);
    if (firstSpace == std::string_view::npos || secondSpace == std::string_view::npos)
        return false;
    entry.method = requestLine.substr(0, firstSpace);
    const std::string_view target = requestLine.substr(firstSpace + 1, secondSpace - firstSpace - 1);
    const auto mark = target.find('?');
    entry.path = target.substr(0, mark);
    if (mark != std::string_view::npos)
        entry.query = target.substr(mark + 1);

    contentLength = 0;
    std::size_t position = lineEnd == std::string_view::npos ? head.size() : lineEnd + 2;
    while (position < head.size()) {
        auto end = head.find("\r\n", position);
        if (end == std::string_view::npos)
            end = head.size();
        const std::string_view line = head.substr(position, end - position);
        position = end + 2;
        const auto colon = line.find(':');
        if (colon == std::string_view::npos)
            continue;
        const std::string_view name = line.substr(0, colon);
        const std::string_view value = trimmed(line.substr(colon + 1));
        entry.headers.emplace_back(name, value);
        if (equalsIgnoringCase(name, "Content-Length"))
            std::from_chars(value.data(), value.data() + value.size(), contentLength);
    }
    return true;
}

} // namespace

DropBeforeHeadServer::DropBeforeHeadServer(RequestLog *log, const StopFlag &stop)
    : m_log(log)
    , m_stop(stop)
{}

DropBeforeHeadServer::~DropBeforeHeadServer()
{
    reapFinished(true);
    for (const int fd : {m_listenSocket, m_wakePipe[0], m_wakePipe[1]}) {
        if (fd >= 0)
            ::close(fd);
    }
}

int DropBeforeHeadServer::bindLoopback(int port)
{
    if (::pipe2(m_wakePipe, O_CLOEXEC) != 0)
        return -1;
    m_listenSocket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_listenSocket < 0)
        return -1;
    int yes = 1;
    ::setsockopt(m_listenSocket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(m_listenSocket, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        ::listen(m_listenSocket, SOMAXCONN) != 0 ||
        ::getsockname(m_listenSocket, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
        return -1;
    }
    return ntohs(address.sin_port);
}

bool DropBeforeHeadServer::serve()
{
    while (!m_stop.isRaised()) {
        pollfd fds[2] = {{m_listenSocket, POLLIN, 0}, {m_wakePipe[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        if (fds[1].revents != 0)
            break;
        const int socket = ::accept4(m_listenSocket, nullptr, nullptr, SOCK_CLOEXEC);
        if (socket < 0)
            continue;
        reapFinished(false);
        auto finished = std::make_shared<std::atomic<bool>>(false);
        ++m_openConnections;
        m_connections.push_back({std::thread([this, socket, finished] {
                                     readAndDrop(socket);
                                     --m_openConnections;
                                     *finished = true;
                                 }),
                                 finished});
    }
    reapFinished(true);
    return true;
}

void DropBeforeHeadServer::stop()
{
    if (m_wakePipe[1] >= 0) {
        const char wake = 0;
        [[maybe_unused]] const auto written = ::write(m_wakePipe[1], &wake, 1);
    }
}

bool DropBeforeHeadServer::hasActiveExchanges() const
{
    return m_openConnections > 0;
}

void DropBeforeHeadServer::reapFinished(bool all)
{
    for (auto it = m_connections.begin(); it != m_connections.end();) {
        if (all || *it->finished) {
            it->thread.join();
            it = m_connections.erase(it);
        } else {
            ++it;
        }
    }
}

// The whole request is read before closing: closing with unread bytes would send a reset, which a
// client reports differently from a plain end of stream.
void DropBeforeHeadServer::readAndDrop(int socket) const
{
    std::string received;
    RequestLog::Entry entry;
    std::size_t headEnd = std::string::npos;
    std::size_t contentLength = 0;
    bool complete = false;
    int idleMs = 0;
    char buffer[16384];
    while (!complete && idleMs < idleTimeoutMs && !m_stop.isRaised()) {
        pollfd fd = {socket, POLLIN, 0};
        const int ready = ::poll(&fd, 1, pollSliceMs);
        if (ready == 0) {
            idleMs += pollSliceMs;
            continue;
        }
        const ssize_t count = ready > 0 ? ::recv(socket, buffer, sizeof buffer, 0) : -1;
        if (count <= 0)
            break;
        idleMs = 0;
        received.append(buffer, static_cast<std::size_t>(count));
        if (headEnd == std::string::npos) {
            const auto end = received.find("\r\n\r\n");
            if (end == std::string::npos)
                continue;
            headEnd = end + 4;
            if (!parseHead(std::string_view(received).substr(0, end), entry, contentLength))
                break;
        }
        complete = received.size() >= headEnd + contentLength;
    }
    ::close(socket);

    if (m_log && headEnd != std::string::npos && !entry.method.empty()) {
        entry.body = received.substr(headEnd, contentLength);
        m_log->append(entry);
    }
}
