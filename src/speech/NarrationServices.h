// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QUuid>

#include <functional>
#include <optional>

// What narration needs of the account side: the auth state, the minute balance and a valid token.
class AccountGate
{
public:
    virtual ~AccountGate() = default;
    virtual bool isSignedIn() const = 0;
    virtual qint64 balanceSeconds() const = 0;
    virtual int minutesRemaining() const = 0;
    // Calls `done` (on the GUI thread, while `context` lives) with a valid access token, or with nothing
    // when none can be had.
    virtual void getValidAccessToken(QObject *context, std::function<void(std::optional<QString>)> done) = 0;
    // A service narration of `seconds` has been delivered.
    virtual void deductSeconds(double seconds) = 0;
};

// Where finished narrations are kept: history with audio, and usage counts.
class NarrationRecords
{
public:
    virtual ~NarrationRecords() = default;
    virtual void addSession(const QString &text, const QString &voice, double durationSeconds,
                            const QByteArray &audioData) = 0;
    // The audio file of a history entry.
    virtual QString audioFile(const QUuid &id) const = 0;
    // A history entry's text; empty when it is not known, and then a replay is not followed along.
    virtual QString text(const QUuid &id) const
    {
        Q_UNUSED(id);
        return {};
    }
    virtual void recordUsage(qint64 characters) = 0;
};

// The selection of the frontmost application.
class SelectionSource
{
public:
    virtual ~SelectionSource() = default;
    // Whether this process may read other applications' selections (with `prompt`, explain what is missing).
    virtual bool isProcessTrusted(bool prompt) = 0;
    virtual std::optional<QString> captureSelectedText() = 0;
};

// No account: never signed in, so narration goes to the own-key backend or asks for sign-in.
class NoAccount final : public AccountGate
{
public:
    bool isSignedIn() const override { return false; }
    qint64 balanceSeconds() const override { return 0; }
    int minutesRemaining() const override { return 0; }
    void getValidAccessToken(QObject *, std::function<void(std::optional<QString>)> done) override
    {
        done(std::nullopt);
    }
    void deductSeconds(double) override {}
};

// Where no selection can be read (no capture backend for this session).
class NoSelection final : public SelectionSource
{
public:
    bool isProcessTrusted(bool) override { return false; }
    std::optional<QString> captureSelectedText() override { return std::nullopt; }
};
