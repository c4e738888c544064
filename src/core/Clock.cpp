// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/Clock.h"

#include <QTimer>

namespace {

class SystemClock final : public Clock
{
public:
    QDateTime now() const override { return QDateTime::currentDateTimeUtc(); }
    void callAfter(std::chrono::milliseconds delay, const QObject *context,
                   std::function<void()> done) override
    {
        QTimer::singleShot(delay, context, std::move(done));
    }
};

} // namespace

Clock &Clock::system()
{
    static SystemClock clock;
    return clock;
}
