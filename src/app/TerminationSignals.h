// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>

class QSocketNotifier;

// SIGTERM (a session ending, systemd, `kill`), SIGINT and SIGHUP end the application the way Quit does:
// through the event loop, so that a narration stops and the settings are written out. The handler only
// writes a byte to a socket the event loop watches; everything else happens on the main thread.
class TerminationSignals final : public QObject
{
    Q_OBJECT

public:
    explicit TerminationSignals(QObject *parent = nullptr);
    ~TerminationSignals() override;

private:
    QSocketNotifier *m_notifier = nullptr;
};
