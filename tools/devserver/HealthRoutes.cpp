// SPDX-License-Identifier: GPL-3.0-or-later
#include "HealthRoutes.h"

#include "JsonResponse.h"

#include <httplib.h>

HealthRoutes::HealthRoutes(const Options &options)
    : m_synth(options.synth)
    , m_appcastVersion(options.appcastVersion)
    , m_appcastFailStatus(options.appcastFailStatus)
{}

void HealthRoutes::install(httplib::Server &server)
{
    const QJsonObject body{{"status", "ok"}, {"synth", m_synth == Options::Synth::Sine ? "sine" : "espeak"}};
    server.Get("/health", [body](const httplib::Request &, httplib::Response &response) {
        setJson(response, 200, body);
    });
    server.Get("/appcast.xml", [this](const httplib::Request &request, httplib::Response &response) {
        if (m_appcastFailStatus) {
            response.status = *m_appcastFailStatus;
            response.set_content("appcast unavailable\n", "text/plain");
            return;
        }
        const std::string origin = "http://" + request.get_header_value("Host");
        const std::string &v = m_appcastVersion;
        response.set_content(
            "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
            "<rss version=\"2.0\" xmlns:sparkle=\"http://www.andymatuschak.org/xml-namespaces/sparkle\">\n"
            "<channel><title>Quillvox</title>\n<item>\n  <title>Quillvox " +
                v +
                "</title>\n"
                "  <pubDate>Tue, 24 Nov 2026 10:00:00 +0000</pubDate>\n"
                "  <sparkle:version>" +
                v +
                "</sparkle:version>\n"
                "  <sparkle:shortVersionString>" +
                v +
                "</sparkle:shortVersionString>\n"
                "  <sparkle:releaseNotesLink>" +
                origin + "/releases/" + v +
                "</sparkle:releaseNotesLink>\n"
                "  <link>" +
                origin + "/download/" + v +
                "</link>\n"
                "</item>\n</channel></rss>\n",
            "application/rss+xml");
    });
}
