// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "Options.h"
#include "Routes.h"

// GET /health: lets scripts see that the server is up and which synthesiser it runs.
// GET /appcast.xml: the update feed, with one release of the version asked for.
class HealthRoutes final : public Routes
{
public:
    explicit HealthRoutes(const Options &options);
    void install(httplib::Server &server) override;

private:
    Options::Synth m_synth;
    std::string m_appcastVersion;
    std::optional<int> m_appcastFailStatus;
};
