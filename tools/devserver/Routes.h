// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

namespace httplib {
class Server;
}

// A group of endpoints that plays one remote party. Each group registers its own handlers, so that a
// new party (the auth backend, the account pages) is one more class and one line in main.cpp.
class Routes
{
public:
    virtual ~Routes() = default;
    virtual void install(httplib::Server &server) = 0;
};
