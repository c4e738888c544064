// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Something that accepts connections on a loopback port until told to stop.
class Listener
{
public:
    virtual ~Listener() = default;
    // Returns the bound port (useful when asked for port 0), or -1 when binding failed.
    virtual int bindLoopback(int port) = 0;
    // Blocks until stop(); false when serving failed on its own.
    virtual bool serve() = 0;
    // Callable from any thread.
    virtual void stop() = 0;
    // Whether some request has been taken on and its response has not ended yet.
    virtual bool hasActiveExchanges() const = 0;
};
