// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "Listener.h"

#include <atomic>
#include <list>
#include <memory>
#include <thread>

class RequestLog;
class StopFlag;

// Reads each request and closes its connection without a single byte of response: the failure a client
// sees when a server dies before answering. cpp-httplib always writes a response head, so this mode
// has its own accept loop.
class DropBeforeHeadServer final : public Listener
{
public:
    // log may be null.
    DropBeforeHeadServer(RequestLog *log, const StopFlag &stop);
    ~DropBeforeHeadServer() override;
    DropBeforeHeadServer(const DropBeforeHeadServer &) = delete;
    DropBeforeHeadServer &operator=(const DropBeforeHeadServer &) = delete;

    int bindLoopback(int port) override;
    bool serve() override;
    void stop() override;
    bool hasActiveExchanges() const override;

private:
    struct Connection
    {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> finished;
    };

    void readAndDrop(int socket) const;
    void reapFinished(bool all);

    RequestLog *m_log;
    const StopFlag &m_stop;
    int m_listenSocket = -1;
    // Written to by stop() to wake the accept loop.
    int m_wakePipe[2] = {-1, -1};
    std::list<Connection> m_connections;
    std::atomic<int> m_openConnections = 0;
};
