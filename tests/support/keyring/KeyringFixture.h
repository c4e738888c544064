// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QMap>
#include <QProcess>
#include <QTemporaryDir>

#include <memory>
#include <optional>

// A private session bus for a test, optionally with gnome-keyring serving the Secret Service on it, so
// that tests never see the user's keyring. Exports DBUS_SESSION_BUS_ADDRESS while it lives (and puts the
// previous value back afterwards): create it before the first libsecret call of the process, because
// libsecret stays with the bus it first connected to. Stops exactly the processes it started.
class KeyringFixture
{
public:
    enum class Mode {
        GnomeKeyring,         // gnome-keyring-daemon with a fresh login collection, unlocked, as default
        NoSecretService,      // nothing owns org.freedesktop.secrets and nothing can be activated
        StalledSecretService, // org.freedesktop.secrets can be activated, but the activation never finishes
    };

    struct Item
    {
        QString path, label;
        bool locked = false;
    };

    struct Run
    {
        bool finished = false; // false when the program did not start or did not end in time
        int exitCode = -1;
        QByteArray out, err;
    };

    // `otherUser` may connect to the bus too (a desktop shell the test runs as the rig's unprivileged
    // user); by default only this process's user can.
    explicit KeyringFixture(Mode mode = Mode::GnomeKeyring, const QString &otherUser = {});
    ~KeyringFixture();

    bool isReady() const { return m_error.isEmpty(); }
    QString errorString() const { return m_error; }
    QString busAddress() const { return m_address; }

    QProcessEnvironment environment() const;

    // The items whose attributes include `attributes`, locked ones too, as the Secret Service lists them.
    QList<Item> items(const QMap<QString, QString> &attributes) const;
    // With no prompter on the private bus it stays locked: gnome-keyring dismisses every unlock prompt.
    bool lockLoginCollection() const;
    // Puts a prompter on the bus that takes gnome-keyring's prompts and never answers, like a user who
    // walked away from the unlock dialog, until releaseUnlockPrompts().
    bool holdUnlockPrompts();
    void releaseUnlockPrompts();
    int unlockPromptCalls() const;

    // At most 30 s, in `environment` (by default this process's with the private bus).
    Run run(const QString &program, const QStringList &arguments, const QByteArray &input = {},
            const std::optional<QProcessEnvironment> &environment = std::nullopt) const;
    Run secretTool(const QStringList &arguments, const QByteArray &input = {}) const
    {
        return run(QStringLiteral("secret-tool"), arguments, input);
    }

    // The bus's and gnome-keyring's standard error.
    QString logs() const;

private:
    class SilentPrompter;

    QString startBus(Mode mode, const QString &otherUser); // the error, if any
    QString startGnomeKeyring();

    QTemporaryDir m_dir;
    QProcess m_bus;
    QProcess m_keyring;
    QString m_address;
    QString m_connectionName;
    std::optional<QByteArray> m_previousAddress; // none: it was not set
    QString m_error;
    std::unique_ptr<SilentPrompter> m_prompter;
};
