// SPDX-License-Identifier: GPL-3.0-or-later
#include "HealthRoutes.h"

#include "JsonResponse.h"

#include <httplib.h>

HealthRoutes::HealthRoutes(Options::Synth synth)
    : m_synth(synth)
{}

void HealthRoutes::install(httplib::Server &server)
{
    const QJsonObject body{{"status", "ok"}, {"synth", m_synth == Options::Synth::Sine ? "sine" : "espeak"}};
    server.Get("/health", [body](const httplib::Request &, httplib::Response &response) {
        setJson(response, 200, body);
    });
}
