// SPDX-License-Identifier: GPL-3.0-or-later
#include "AccountPageRoutes.h"
#include "AccountRoutes.h"
#include "AccountState.h"
#include "AuthRoutes.h"
#include "DevControlRoutes.h"
#include "DropBeforeHeadServer.h"
#include "HealthRoutes.h"
#include "HttpServer.h"
#include "Options.h"
#include "RequestLog.h"
#include "SpeechRoutes.h"
#include "StopFlag.h"
#include "Synthesizer.h"

#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <future>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

// Responses in progress end promptly once the stop flag is raised; this only bounds a stuck one.
constexpr std::chrono::milliseconds shutdownGrace{2000};
constexpr std::chrono::milliseconds shutdownPoll{5};

} // namespace

int main(int argc, char **argv)
{
    Options options;
    try {
        options = Options::parse(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const std::invalid_argument &error) {
        std::cerr << "quillvox-devserver: " << error.what() << '\n';
        return 2;
    }
    if (options.showHelp) {
        std::cout << Options::usage();
        return 0;
    }

    std::signal(SIGPIPE, SIG_IGN);
    // Forks its helper process, which is only safe while this process has a single thread.
    std::optional<Synthesizer> synthesizer;
    if (!options.dropBeforeHead) {
        try {
            synthesizer.emplace(options.synth, options.sineHz);
        } catch (const std::runtime_error &error) {
            std::cerr << "quillvox-devserver: " << error.what() << '\n';
            return 1;
        }
    }

    // Blocked before any thread exists, so every thread inherits the mask and the signals are taken
    // only by sigwait below: no handler ever runs in signal context.
    sigset_t exitSignals;
    sigemptyset(&exitSignals);
    sigaddset(&exitSignals, SIGTERM);
    sigaddset(&exitSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &exitSignals, nullptr);

    std::unique_ptr<RequestLog> log;
    if (!options.logPath.empty()) {
        try {
            log = std::make_unique<RequestLog>(options.logPath);
        } catch (const std::runtime_error &error) {
            std::cerr << "quillvox-devserver: " << error.what() << '\n';
            return 1;
        }
    }
    StopFlag stop;
    AccountState account(options);
    std::unique_ptr<Listener> listener;
    if (options.dropBeforeHead) {
        listener = std::make_unique<DropBeforeHeadServer>(log.get(), stop);
    } else {
        std::vector<std::unique_ptr<Routes>> routes;
        routes.push_back(std::make_unique<HealthRoutes>(options));
        routes.push_back(std::make_unique<SpeechRoutes>(options, *synthesizer, account, stop));
        routes.push_back(std::make_unique<AuthRoutes>(account, options.autoConsent));
        routes.push_back(std::make_unique<AccountRoutes>(account));
        routes.push_back(std::make_unique<AccountPageRoutes>(account));
        routes.push_back(std::make_unique<DevControlRoutes>(account));
        try {
            listener = std::make_unique<HttpServer>(std::move(routes), log.get(), options.tlsCertPath,
                                                    options.tlsKeyPath);
        } catch (const std::runtime_error &error) {
            std::cerr << "quillvox-devserver: " << error.what() << '\n';
            return 1;
        }
    }

    const int port = listener->bindLoopback(options.port);
    if (port <= 0) {
        std::cerr << "quillvox-devserver: cannot listen on 127.0.0.1:" << options.port << '\n';
        return 1;
    }
    std::cout << "listening on " << (options.tlsCertPath.empty() ? "http" : "https")
              << "://127.0.0.1:" << port << std::endl;

    std::promise<bool> served;
    std::future<bool> servedResult = served.get_future();
    std::thread serving([&] {
        const bool ok = listener->serve();
        served.set_value(ok);
        if (!ok)
            ::kill(::getpid(), SIGTERM);
    });

    int signal = 0;
    sigwait(&exitSignals, &signal);
    stop.raise();
    listener->stop();

    const auto giveUp = std::chrono::steady_clock::now() + shutdownGrace;
    while (servedResult.wait_for(shutdownPoll) != std::future_status::ready) {
        if (!listener->hasActiveExchanges() || std::chrono::steady_clock::now() >= giveUp) {
            // What is left are idle keep-alive connections: cpp-httplib keeps a worker on each until
            // its keep-alive timeout, with nothing to send on them. Don't make the caller wait.
            if (log)
                log->close();
            std::cout.flush();
            std::_Exit(0);
        }
    }
    serving.join();
    if (!servedResult.get()) {
        std::cerr << "quillvox-devserver: serving failed\n";
        return 1;
    }
    return 0;
}
