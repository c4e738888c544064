// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QProcessEnvironment>
#include <QString>
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

    static DeploymentConfig
    fromEnvironment(const QProcessEnvironment &env = QProcessEnvironment::systemEnvironment());
    // The configuration of this process, read once.
    static const DeploymentConfig &current();
};
