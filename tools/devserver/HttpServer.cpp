// SPDX-License-Identifier: GPL-3.0-or-later
#include "HttpServer.h"

#include "BodyMeter.h"
#include "JsonResponse.h"
#include "RequestLog.h"

#include <httplib.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <exception>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace {

// Connections held open by keep-alive each occupy a worker, and a client may hold several while tests
// run more requests in parallel.
constexpr std::size_t workerThreads = 16;

// Whether the exchange on this worker thread was counted as active: requests cpp-httplib rejects
// before routing reach the logger without passing the pre-routing handler.
thread_local bool exchangeCounted = false;
// When the request being answered on this worker thread had arrived whole.
thread_local std::int64_t requestReceivedMs = 0;

// WORKAROUND: cpp-httplib stores the peer and local addresses among the request headers; they were
// never sent by the client and must not appear in the log.
bool addedByHttplib(std::string_view name)
{
    constexpr std::array<std::string_view, 4> pseudoHeaders = {"REMOTE_ADDR", "REMOTE_PORT", "LOCAL_ADDR",
                                                               "LOCAL_PORT"};
    return std::find(pseudoHeaders.begin(), pseudoHeaders.end(), name) != pseudoHeaders.end();
}

RequestLog::Entry logEntry(const httplib::Request &request, const httplib::Response &response)
{
    RequestLog::Entry entry;
    entry.method = request.method;
    entry.path = request.path;
    if (const auto mark = request.target.find('?'); mark != std::string::npos)
        entry.query = request.target.substr(mark + 1);
    for (const auto &[name, value] : request.headers) {
        if (!addedByHttplib(name))
            entry.headers.emplace_back(name, value);
    }
    entry.body = request.body;
    entry.status = response.status;
    entry.bodyBytesSent = BodyMeter::takeStreamedBytes().value_or(response.body.size());
    entry.receivedMs = std::exchange(requestReceivedMs, 0);
    return entry;
}

std::unique_ptr<httplib::Server> makeServer(const std::string &tlsCertPath, const std::string &tlsKeyPath)
{
    if (tlsCertPath.empty())
        return std::make_unique<httplib::Server>();
    auto server = std::make_unique<httplib::SSLServer>(tlsCertPath.c_str(), tlsKeyPath.c_str());
    if (!server->is_valid())
        throw std::runtime_error("cannot use the certificate " + tlsCertPath + " with the key " + tlsKeyPath);
    return server;
}

} // namespace

HttpServer::HttpServer(std::vector<std::unique_ptr<Routes>> routes, RequestLog *log,
                       const std::string &tlsCertPath, const std::string &tlsKeyPath)
    : m_routes(std::move(routes))
    , m_server(makeServer(tlsCertPath, tlsKeyPath))
{
    httplib::Server &server = *m_server;
    server.new_task_queue = [] { return new httplib::ThreadPool(workerThreads); };
    server.set_address_family(AF_INET);
    // Streamed pieces are small; without this, Nagle's algorithm holds them back behind delayed ACKs.
    server.set_tcp_nodelay(true);
    // The default also sets SO_REUSEPORT, which would let a second server share a busy port silently.
    server.set_socket_options([](socket_t socket) {
        int yes = 1;
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    server.set_pre_routing_handler([this](const httplib::Request &, httplib::Response &) {
        BodyMeter::reset();
        requestReceivedMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                                std::chrono::system_clock::now().time_since_epoch())
                                .count();
        if (!std::exchange(exchangeCounted, true))
            ++m_activeExchanges;
        return httplib::Server::HandlerResponse::Unhandled;
    });
    server.set_exception_handler(
        [](const httplib::Request &, httplib::Response &response, std::exception_ptr error) {
            std::string message = "unknown error";
            try {
                std::rethrow_exception(error);
            } catch (const std::exception &e) {
                message = e.what();
            } catch (...) {
            }
            setJsonError(response, 500, message, "server_error");
        });
    // cpp-httplib calls the logger once the response has been written, or has failed to be.
    server.set_logger([this, log](const httplib::Request &request, const httplib::Response &response) {
        if (log)
            log->append(logEntry(request, response));
        else
            BodyMeter::reset();
        if (std::exchange(exchangeCounted, false))
            --m_activeExchanges;
    });
    for (const auto &routes : m_routes)
        routes->install(server);
}

HttpServer::~HttpServer() = default;

int HttpServer::bindLoopback(int port)
{
    if (port == 0)
        return m_server->bind_to_any_port("127.0.0.1");
    return m_server->bind_to_port("127.0.0.1", port) ? port : -1;
}

bool HttpServer::serve()
{
    return m_server->listen_after_bind();
}

void HttpServer::stop()
{
    m_server->stop();
}

bool HttpServer::hasActiveExchanges() const
{
    return m_activeExchanges > 0;
}
