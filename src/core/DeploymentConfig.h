// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QUrl>

// Origins, keys and backends that differ between deployments. Built-in defaults (the service, auth and
// appcast ones chosen when building, see the QUILLVOX_* CMake cache variables), overridden by
// the environment (QUILLVOX_*); the environment always wins over anything the user set.
struct DeploymentConfig
{
    enum class AudioOutput { Pulse, Null };

    QUrl serviceOrigin;
    QUrl authOrigin;
    QString authAnonKey;
    QUrl openAIOrigin;
    bool openAIOriginFromEnvironment = false;
    QUrl appcastUrl;
    AudioOutput audioOutput = AudioOutput::Pulse;
    QString keychainService;
    // The service and auth origins are sent sign-in tokens: https, or plain http only to this computer.
    // One message for each that is refused; Quillvox does not start with any.
    QStringList refusals;

    // https, or http to localhost, 127.0.0.0/8 or ::1.
    static bool carriesTokensSafely(const QUrl &origin);
    static bool isLoopbackHost(const QString &host);

    static DeploymentConfig
    fromEnvironment(const QProcessEnvironment &env = QProcessEnvironment::systemEnvironment());
    // The configuration of this process, read once.
    static const DeploymentConfig &current();
};
