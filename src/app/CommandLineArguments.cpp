// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/CommandLineArguments.h"

#include "app/RemoteControl.h"
#include "core/DeploymentConfig.h"
#include "core/UserDefaults.h"
#include "speech/OpenAIServer.h"
#include "speech/SpeechManager.h"

#include <QCoreApplication>

namespace {

enum Option {
    help,
    version,
    setKey,
    clearKey,
    speak,
    voice,
    style,
    speed,
    wait,
    preview,
    checkUpdates,
    autostart,
    verbose
};

QCommandLineOption option(const QStringList &names, const char *description, const char *valueName = nullptr)
{
    return QCommandLineOption(names, QString::fromUtf8(description),
                              valueName ? QString::fromLatin1(valueName) : QString());
}

// "0.5, 1.0, 1.25, 1.5, 2.0", as users write them.
QString joined(const QList<float> &speeds)
{
    QStringList texts;
    for (float speed : speeds) {
        QString text = QString::number(double(speed), 'f', 2);
        if (text.endsWith(u'0'))
            text.chop(1);
        texts.append(text);
    }
    return texts.join(QStringLiteral(", "));
}

QString styleNames()
{
    QStringList names;
    for (VoiceStyle style : VoiceStyle::allCases())
        names.append(style.rawValue());
    return names.join(QStringLiteral(", "));
}

// A speech server the user chose may list voices of its own.
QStringList offeredVoices()
{
    return OpenAIServer::offeredVoices(UserDefaults::standard(),
                                       DeploymentConfig::current().openAIOriginFromEnvironment);
}

QString unknownVoice(const QString &voice)
{
    return QStringLiteral("Unknown voice \"%1\". Voices: %2")
        .arg(voice, offeredVoices().join(QStringLiteral(", ")));
}

QString controlDescription(const QString &command)
{
    if (command == u"narrate-selection")
        return QStringLiteral("Narrate the current selection, like the narration shortcut.");
    if (command == u"toggle")
        return QStringLiteral("Pause or resume the narration.");
    if (command == u"stop")
        return QStringLiteral("Stop the narration.");
    if (command == u"skip-back")
        return QStringLiteral("Go back 5 seconds.");
    if (command == u"skip-forward")
        return QStringLiteral("Go forward 5 seconds.");
    if (command == u"cycle-speed")
        return QStringLiteral("Switch to the next playback speed.");
    if (command == u"status")
        return QStringLiteral("Print the running Quillvox's state as JSON: narration, account, the "
                              "backend narration would use, whether an API key is stored, shortcuts.");
    return command;
}

} // namespace

CommandLineArguments::CommandLineArguments()
{
    m_options = {
        option({"h", "help"}, "Show this help."),
        option({"v", "version"}, "Show the version."),
        option({"set-api-key"}, "Save the OpenAI API key, asked for on a terminal or read from standard "
                                "input."),
        option({"clear-api-key"}, "Remove the saved OpenAI API key."),
        option({"speak"},
               "Narrate TEXT, or standard input for \"-\" (through the running Quillvox when one runs and no "
               "voice, style or speed is given).",
               "TEXT"),
        option({"voice"}, "The voice for this --speak.", "NAME"),
        option({"style"}, "The speaking style for this --speak.", "NAME"),
        option({"speed"}, "The playback speed for this --speak.", "X"),
        option({"wait"}, "With --speak handed to the running Quillvox: wait until the narration was heard "
                         "(exit 0) or failed (exit 1)."),
        option({"preview"}, "Play VOICE's sample.", "VOICE"),
        option({"check-for-updates"},
               "Ask the update feed whether a newer Quillvox exists; exit 1 when the check failed."),
        option({"autostart"},
               "Start as at login: the tray and the widget only, nothing when Quillvox already "
               "runs."),
        option({"verbose"}, "Also print Quillvox's log lines."),
    };
    m_parser.setApplicationDescription(QStringLiteral("Quillvox reads selected text aloud."));
    m_parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    m_parser.addOptions(m_options);
    for (const QString &command : RemoteControl::controlCommands()) {
        m_controls.append(QCommandLineOption(command, controlDescription(command)));
        m_parser.addOption(m_controls.last());
    }
    m_parser.addPositionalArgument(QStringLiteral("url"),
                                   QStringLiteral("A quillvox:// callback URL from the browser."),
                                   QStringLiteral("[url]"));
}

QStringList CommandLineArguments::withoutQtOptions(const QStringList &arguments)
{
    // As QGuiApplication and QApplication take them, with one dash or two.
    static const QStringList withValue{"platform",
                                       "platformpluginpath",
                                       "platformtheme",
                                       "plugin",
                                       "qmljsdebugger",
                                       "qwindowgeometry",
                                       "qwindowicon",
                                       "qwindowtitle",
                                       "display",
                                       "geometry",
                                       "style",
                                       "stylesheet",
                                       "session",
                                       "title",
                                       "name",
                                       "font",
                                       "fn",
                                       "background",
                                       "bg",
                                       "foreground",
                                       "fg",
                                       "button",
                                       "btn",
                                       "visual",
                                       "ncols",
                                       "im",
                                       "inputstyle",
                                       "dialogs"};
    static const QStringList flags{"reverse", "widgetcount", "nograb",     "dograb",
                                   "sync",    "cmap",        "testability"};
    QStringList kept;
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const QString &argument = arguments[i];
        if (argument == u"--") {
            kept.append(arguments.mid(i));
            break;
        }
        if (i == 0 || !argument.startsWith(u'-') || argument == u"-") {
            kept.append(argument);
            continue;
        }
        const bool doubleDash = argument.startsWith(u"--");
        const QString name = argument.mid(doubleDash ? 2 : 1).section(u'=', 0, 0);
        // "--style" is this run's speaking style; Qt's widget style is "-style".
        if (flags.contains(name) || (withValue.contains(name) && !(doubleDash && name == u"style"))) {
            if (withValue.contains(name) && !argument.contains(u'='))
                ++i;
            continue;
        }
        kept.append(argument);
    }
    return kept;
}

std::variant<Invocation, QString> CommandLineArguments::check(const QStringList &arguments)
{
    const bool parsed = m_parser.parse(withoutQtOptions(arguments));
    Invocation invocation;
    // Asking for help or the version is never a mistake, whatever comes with it.
    if (m_parser.isSet(m_options[help]) || m_parser.isSet(m_options[version])) {
        invocation.mode =
            m_parser.isSet(m_options[help]) ? Invocation::Mode::help : Invocation::Mode::version;
        return invocation;
    }
    if (!parsed)
        return m_parser.errorText();

    invocation.verbose = m_parser.isSet(m_options[verbose]);
    QStringList actions;
    const auto action = [&](const QCommandLineOption &option, Invocation::Mode mode) {
        if (!m_parser.isSet(option))
            return;
        actions.append(QStringLiteral("--") + option.names().constLast());
        invocation.mode = mode;
    };
    action(m_options[setKey], Invocation::Mode::setApiKey);
    action(m_options[clearKey], Invocation::Mode::clearApiKey);
    action(m_options[speak], Invocation::Mode::speak);
    action(m_options[preview], Invocation::Mode::preview);
    action(m_options[checkUpdates], Invocation::Mode::checkForUpdates);
    action(m_options[autostart], Invocation::Mode::start);
    invocation.autostart = m_parser.isSet(m_options[autostart]);
    for (const QCommandLineOption &control : std::as_const(m_controls)) {
        action(control, Invocation::Mode::control);
        if (m_parser.isSet(control))
            invocation.control = control.names().constFirst();
    }
    if (actions.size() > 1)
        return QStringLiteral("Give one of %1 at a time.").arg(actions.join(QStringLiteral(", ")));

    for (const QString &argument : m_parser.positionalArguments()) {
        const bool isUrl = argument.startsWith(QStringLiteral("quillvox:"));
        if (!isUrl || !actions.isEmpty() || invocation.url)
            return QStringLiteral("Unexpected argument '%1'.").arg(argument);
        // Kept as written: routing compares host and path exactly.
        invocation.url = argument;
    }

    for (Option speakOnly : {voice, style, speed, wait}) {
        if (m_parser.isSet(m_options[speakOnly]) && invocation.mode != Invocation::Mode::speak)
            return QStringLiteral("--%1 goes with --speak.").arg(m_options[speakOnly].names().constFirst());
    }
    if (invocation.mode == Invocation::Mode::speak) {
        if (const std::optional<QString> error = checkSpeak(invocation))
            return *error;
    }
    if (invocation.mode == Invocation::Mode::preview) {
        invocation.text = m_parser.value(m_options[preview]);
        if (!offeredVoices().contains(invocation.text))
            return unknownVoice(invocation.text);
    }
    return invocation;
}

std::optional<QString> CommandLineArguments::checkSpeak(Invocation &invocation) const
{
    invocation.text = m_parser.value(m_options[speak]);
    if (invocation.text.trimmed().isEmpty())
        return QStringLiteral("Nothing to narrate: the text is empty.");
    invocation.wait = m_parser.isSet(m_options[wait]);
    if (m_parser.isSet(m_options[voice])) {
        invocation.voice = m_parser.value(m_options[voice]);
        if (!offeredVoices().contains(invocation.voice))
            return unknownVoice(invocation.voice);
    }
    if (m_parser.isSet(m_options[style])) {
        invocation.style = VoiceStyle::fromRawValue(m_parser.value(m_options[style]));
        if (!invocation.style)
            return QStringLiteral("Unknown style \"%1\". Styles: %2")
                .arg(m_parser.value(m_options[style]), styleNames());
    }
    if (m_parser.isSet(m_options[speed])) {
        bool ok = false;
        const float value = m_parser.value(m_options[speed]).toFloat(&ok);
        if (!ok || !playbackSpeeds().contains(value))
            return QStringLiteral("Unsupported speed \"%1\". Speeds: %2")
                .arg(m_parser.value(m_options[speed]), joined(playbackSpeeds()));
        invocation.speed = value;
    }
    return std::nullopt;
}

QString CommandLineArguments::helpText() const
{
    QString text = m_parser.helpText();
    text.replace(QCoreApplication::arguments().constFirst(), QStringLiteral("quillvox"));
    text += QStringLiteral(
                "\nWithout options Quillvox starts in the tray and listens for its shortcuts; started "
                "again while it runs, it opens its settings window. --autostart starts it the same "
                "way (the login entry of \"Start Quillvox at login\" uses it) but does nothing when it "
                "already runs.\n\n"
                "Voices are %1. The default is %2, and the settings window keeps your choice.\n\n"
                "Speaking styles are %3. Put a style with spaces in quotes, as in "
                "--style \"Bedtime Story\".\n\n"
                "Speeds are %4; 1.0 is the normal pace.\n\n"
                "A quillvox:// URL is how the browser hands a finished sign-in or purchase back to "
                "Quillvox; it is passed to the running Quillvox, which starts first when needed.\n\n"
                "The playback commands and --status go to the running Quillvox; bind them to keys in "
                "your desktop's keyboard settings where global shortcuts are unavailable (Wayland).\n\n"
                "Qt's own options, such as -platform, -display and -style, are passed to Qt.\n\n"
                "Exit status: 0 when done, 1 for a wrong argument or a failure, 2 when a command needs "
                "the running Quillvox and none runs.\n")
                .arg(availableVoices().join(QStringLiteral(", ")), defaultVoice(), styleNames(),
                     joined(playbackSpeeds()));
    return text;
}
