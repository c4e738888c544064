// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "Options.h"
#include "Routes.h"

// GET /health: lets scripts see that the server is up and which synthesiser it runs.
class HealthRoutes final : public Routes
{
public:
    explicit HealthRoutes(Options::Synth synth);
    void install(httplib::Server &server) override;

private:
    Options::Synth m_synth;
};
