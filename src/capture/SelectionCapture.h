// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "speech/NarrationServices.h"

#include <QList>
#include <QObject>

#include <functional>
#include <optional>

// One way of reading the selected text, usable in some sessions and not in others.
struct CaptureBackend
{
    // Why it cannot read selections in this session; empty when it can.
    std::function<QString()> unavailableReason;
    std::function<std::optional<QString>()> capture;
};

// Reads the selected text with the first backend this session allows: on X11 a synthetic copy
// (TextCaptureManager), on a Wayland compositor with data-control the highlighted text itself.
// GUI thread only.
class SelectionCapture : public QObject, public SelectionSource
{
    Q_OBJECT

public:
    // In order of preference; the first one's reason explains a session where none works.
    explicit SelectionCapture(QList<CaptureBackend> backends, QObject *parent = nullptr);

    // The process-wide instance with this session's backends, created on first use.
    static SelectionCapture &shared();

    // True exactly when a backend can read selections. With `prompt`, a false answer also explains
    // what the session lacks: logged, and handed on through permissionExplanationRequested.
    bool isProcessTrusted(bool prompt) override;
    std::optional<QString> captureSelectedText() override;

    // Why selections cannot be read in this session; empty when they can.
    Q_INVOKABLE QString untrustedReason() const;

Q_SIGNALS:
    void permissionExplanationRequested(const QString &explanation);

private:
    const CaptureBackend *usable() const;

    QList<CaptureBackend> m_backends;
};
