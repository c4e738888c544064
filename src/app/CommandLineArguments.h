// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "speech/VoiceStyle.h"

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QList>
#include <QString>
#include <QStringList>

#include <optional>
#include <variant>

// What the command line asks for, once every argument has been checked.
struct Invocation
{
    enum class Mode {
        start,
        help,
        version,
        setApiKey,
        clearApiKey,
        control,
        speak,
        preview,
        checkForUpdates
    };
    Mode mode = Mode::start;
    QString control; // control: the command for the running instance
    QString text;    // speak: the text ("-": read from standard input); preview: the voice
    QString voice;   // speak: this run's voice, or empty
    std::optional<VoiceStyle> style;
    std::optional<float> speed;
    bool wait = false;          // speak: wait for the running instance's narration to end
    std::optional<QString> url; // start: a callback URL
    bool autostart = false;     // start: from the login entry
    bool verbose = false;

    bool hasRunOptions() const { return !voice.isEmpty() || style || speed; }
    bool readsStandardInput() const { return mode == Mode::speak && text == u"-"; }
};

// Checks the arguments. --help and --version win over anything else given with them, and Qt's own
// options (-platform, -display, -style, ...) are left to Qt.
class CommandLineArguments
{
public:
    CommandLineArguments();

    // The invocation, or what is wrong with the arguments (without the "quillvox: " prefix).
    std::variant<Invocation, QString> check(const QStringList &arguments);
    // Needs the application object: Qt names the program from it.
    QString helpText() const;

    // `arguments` without the options that Qt's application objects take themselves, and their values.
    static QStringList withoutQtOptions(const QStringList &arguments);

private:
    std::optional<QString> checkSpeak(Invocation &invocation) const;

    QCommandLineParser m_parser;
    QList<QCommandLineOption> m_options;
    QList<QCommandLineOption> m_controls;
};
