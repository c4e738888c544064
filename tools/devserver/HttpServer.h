// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "Listener.h"
#include "Routes.h"

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace httplib {
class Server;
}

class RequestLog;

// cpp-httplib serving the given route groups on 127.0.0.1, logging every exchange when it has ended.
class HttpServer final : public Listener
{
public:
    // log may be null. With a certificate and key (PEM files) it serves HTTPS; throws std::runtime_error
    // when they cannot be used.
    HttpServer(std::vector<std::unique_ptr<Routes>> routes, RequestLog *log,
               const std::string &tlsCertPath = {}, const std::string &tlsKeyPath = {});
    ~HttpServer() override;

    int bindLoopback(int port) override;
    bool serve() override;
    void stop() override;
    bool hasActiveExchanges() const override;

private:
    std::atomic<int> m_activeExchanges = 0;
    std::vector<std::unique_ptr<Routes>> m_routes;
    std::unique_ptr<httplib::Server> m_server;
};
