// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/CommandLine.h"

#include "account/KeychainHelper.h"
#include "app/AppDelegate.h"
#include "app/AppServices.h"
#include "app/RemoteControl.h"
#include "app/SingleInstance.h"
#include "app/WindowingPlatform.h"
#include "core/DeploymentConfig.h"
#include "core/Logging.h"
#include "core/UserDefaults.h"
#include "speech/OpenAIServer.h"
#include "speech/SpeechManager.h"
#include "speech/VoiceStyle.h"
#include "updates/UpdateChecker.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <QJsonDocument>
#include <QLoggingCategory>
#include <QTextStream>
#include <QTimer>

#include <cstdio>
#include <functional>
#include <variant>

namespace {

void printError(const QString &text)
{
    QTextStream(stderr) << text << Qt::endl;
}

// Reads one line from standard input, without its line end. The key never travels in the arguments,
// where any user on the machine could read it from the process list.
QString readKeyFromStandardInput()
{
    QFile in;
    if (!in.open(stdin, QIODevice::ReadOnly))
        return {};
    QByteArray line = in.readLine();
    while (line.endsWith('\n') || line.endsWith('\r'))
        line.chop(1);
    return QString::fromUtf8(line);
}

int setApiKey()
{
    const QString key = readKeyFromStandardInput();
    if (key.isEmpty()) {
        printError(QStringLiteral("No API key given: pipe the key on standard input, for example\n"
                                  "  printf '%s\\n' \"$OPENAI_API_KEY\" | quillvox --set-api-key"));
        return 1;
    }
    KeychainHelper &keychain = KeychainHelper::shared();
    if (!keychain.save(key, KeychainKey::openAIAPIKey)) {
        printError(QStringLiteral("Could not save the API key: ") + keychain.lastFailureReason());
        return 1;
    }
    QTextStream(stdout) << "API key saved to the keyring." << Qt::endl;
    return 0;
}

int clearApiKey()
{
    KeychainHelper &keychain = KeychainHelper::shared();
    if (!keychain.remove(KeychainKey::openAIAPIKey)) {
        printError(QStringLiteral("Could not remove the API key: ") + keychain.lastFailureReason());
        return 1;
    }
    QTextStream(stdout) << "API key removed from the keyring." << Qt::endl;
    return 0;
}

// Runs one narration (or a voice sample) to the end of its playback. 0 when it was heard; 1 after an
// error, whose description goes to standard error.
int narrateOnce(QCoreApplication &app, const std::function<void(SpeechManager &)> &begin)
{
    SpeechManager &speech = createSharedSpeechManager();
    const auto failed = [&speech] {
        printError(speech.currentErrorDescription());
        const QString keyring = KeychainHelper::shared().lastFailureReason();
        if (speech.currentError()->kind() == SpeechError::apiKeyMissing && !keyring.isEmpty())
            printError(keyring);
    };
    if (speech.currentError()) {
        failed();
        return 1;
    }
    bool running = false;
    QObject::connect(&speech, &SpeechManager::playbackEnded, &app, [&] { app.exit(0); });
    QObject::connect(&speech, &SpeechManager::currentErrorChanged, &app, [&] {
        if (running && speech.currentError() && !speech.isPlaying()) {
            failed();
            app.exit(1);
        }
    });
    // In the event loop, so that exit() is heard; and only once the stored session has been checked,
    // so that a signed-in user is not told to sign in.
    QTimer::singleShot(0, &app, [&] {
        whenAccountSettled(&app, [&] {
            begin(speech);
            if (speech.currentError()) {
                failed();
                app.exit(1);
                return;
            }
            running = true;
        });
    });
    return app.exec();
}

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
    QString text;    // speak: the text; preview: the voice
    QString voice;   // speak: this run's voice, or empty
    std::optional<VoiceStyle> style;
    std::optional<float> speed;
    std::optional<QString> url; // start: a callback URL
    bool autostart = false;     // start: from the login entry
    bool verbose = false;

    bool hasRunOptions() const { return !voice.isEmpty() || style || speed; }
};

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

// Standalone runs keep the account's lines in its logging category, which --verbose shows; the default
// (none) prints them as the running application does.
std::function<void(const QString &)> accountLog(bool verbose)
{
    if (verbose)
        return {};
    return [](const QString &line) { qCInfo(lcAccount).noquote() << line; };
}

QString styleNames()
{
    QStringList names;
    for (VoiceStyle style : VoiceStyle::allCases())
        names.append(style.rawValue());
    return names.join(QStringLiteral(", "));
}

class CommandLine
{
public:
    CommandLine()
    {
        m_parser.setApplicationDescription(QStringLiteral("Quillvox reads selected text aloud."));
        m_parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
        m_parser.addOptions({m_help, m_version, m_setKey, m_clearKey, m_speak, m_voice, m_style, m_speed,
                             m_preview, m_checkUpdates, m_autostart, m_verbose});
        for (const QString &command : RemoteControl::controlCommands()) {
            m_controls.append(QCommandLineOption(command, controlDescription(command)));
            m_parser.addOption(m_controls.last());
        }
        m_parser.addPositionalArgument(QStringLiteral("url"),
                                       QStringLiteral("A quillvox:// callback URL from the browser."),
                                       QStringLiteral("[url]"));
    }

    // The invocation, or what is wrong with the arguments.
    std::variant<Invocation, QString> check(const QStringList &arguments)
    {
        if (!m_parser.parse(arguments))
            return m_parser.errorText();

        Invocation invocation;
        invocation.verbose = m_parser.isSet(m_verbose);
        QStringList actions;
        const auto action = [&](const QCommandLineOption &option, Invocation::Mode mode) {
            if (!m_parser.isSet(option))
                return;
            actions.append(QStringLiteral("--") + option.names().constLast());
            invocation.mode = mode;
        };
        action(m_help, Invocation::Mode::help);
        action(m_version, Invocation::Mode::version);
        action(m_setKey, Invocation::Mode::setApiKey);
        action(m_clearKey, Invocation::Mode::clearApiKey);
        action(m_speak, Invocation::Mode::speak);
        action(m_preview, Invocation::Mode::preview);
        action(m_checkUpdates, Invocation::Mode::checkForUpdates);
        action(m_autostart, Invocation::Mode::start);
        invocation.autostart = m_parser.isSet(m_autostart);
        for (const QCommandLineOption &control : std::as_const(m_controls)) {
            action(control, Invocation::Mode::control);
            if (m_parser.isSet(control))
                invocation.control = control.names().constFirst();
        }
        if (actions.size() > 1)
            return QStringLiteral("Give one of %1 at a time.").arg(actions.join(QStringLiteral(", ")));

        const QStringList positional = m_parser.positionalArguments();
        for (const QString &argument : positional) {
            const bool isUrl = argument.startsWith(QStringLiteral("quillvox:"));
            if (!isUrl || !actions.isEmpty() || invocation.url)
                return QStringLiteral("Unexpected argument '%1'.").arg(argument);
            // Kept as written: routing compares host and path exactly.
            invocation.url = argument;
        }

        for (const QCommandLineOption *option : {&m_voice, &m_style, &m_speed}) {
            if (m_parser.isSet(*option) && invocation.mode != Invocation::Mode::speak)
                return QStringLiteral("--%1 goes with --speak.").arg(option->names().constFirst());
        }

        if (invocation.mode == Invocation::Mode::speak) {
            invocation.text = m_parser.value(m_speak);
            if (invocation.text.trimmed().isEmpty())
                return QStringLiteral("Nothing to narrate: the text is empty.");
            if (m_parser.isSet(m_voice)) {
                invocation.voice = m_parser.value(m_voice);
                if (!offeredVoices().contains(invocation.voice))
                    return unknownVoice(invocation.voice);
            }
            if (m_parser.isSet(m_style)) {
                invocation.style = VoiceStyle::fromRawValue(m_parser.value(m_style));
                if (!invocation.style)
                    return QStringLiteral("Unknown style \"%1\". Styles: %2")
                        .arg(m_parser.value(m_style), styleNames());
            }
            if (m_parser.isSet(m_speed)) {
                bool ok = false;
                const float speed = m_parser.value(m_speed).toFloat(&ok);
                if (!ok || !playbackSpeeds().contains(speed))
                    return QStringLiteral("Unsupported speed \"%1\". Speeds: %2")
                        .arg(m_parser.value(m_speed), joined(playbackSpeeds()));
                invocation.speed = speed;
            }
        }
        if (invocation.mode == Invocation::Mode::preview) {
            invocation.text = m_parser.value(m_preview);
            if (!offeredVoices().contains(invocation.text))
                return unknownVoice(invocation.text);
        }
        return invocation;
    }

    // Needs the application object: Qt names the program from it.
    QString helpText() const
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
                    "Exit status: 0 when done, 1 for a wrong argument or a failure, 2 when a command needs "
                    "the running Quillvox and none runs.\n")
                    .arg(availableVoices().join(QStringLiteral(", ")), defaultVoice(), styleNames(),
                         joined(playbackSpeeds()));
        return text;
    }

private:
    // A speech server the user chose may list voices of its own.
    static QStringList offeredVoices()
    {
        return OpenAIServer::offeredVoices(UserDefaults::standard(),
                                           DeploymentConfig::current().openAIOriginFromEnvironment);
    }

    static QString unknownVoice(const QString &voice)
    {
        return QStringLiteral("Unknown voice \"%1\". Voices: %2")
            .arg(voice, offeredVoices().join(QStringLiteral(", ")));
    }

    static QString controlDescription(const QString &command)
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

    QCommandLineParser m_parser;
    const QCommandLineOption m_help{{QStringLiteral("h"), QStringLiteral("help")},
                                    QStringLiteral("Show this help.")};
    const QCommandLineOption m_version{{QStringLiteral("v"), QStringLiteral("version")},
                                       QStringLiteral("Show the version.")};
    const QCommandLineOption m_setKey{QStringLiteral("set-api-key"),
                                      QStringLiteral("Save the OpenAI API key read from standard input.")};
    const QCommandLineOption m_clearKey{QStringLiteral("clear-api-key"),
                                        QStringLiteral("Remove the saved OpenAI API key.")};
    const QCommandLineOption m_speak{QStringLiteral("speak"),
                                     QStringLiteral("Narrate TEXT (through the running Quillvox when one "
                                                    "runs and no voice, style or speed is given)."),
                                     QStringLiteral("TEXT")};
    const QCommandLineOption m_voice{QStringLiteral("voice"), QStringLiteral("The voice for this --speak."),
                                     QStringLiteral("NAME")};
    const QCommandLineOption m_style{QStringLiteral("style"),
                                     QStringLiteral("The speaking style for this --speak."),
                                     QStringLiteral("NAME")};
    const QCommandLineOption m_speed{
        QStringLiteral("speed"), QStringLiteral("The playback speed for this --speak."), QStringLiteral("X")};
    const QCommandLineOption m_preview{QStringLiteral("preview"), QStringLiteral("Play VOICE's sample."),
                                       QStringLiteral("VOICE")};
    const QCommandLineOption m_checkUpdates{
        QStringLiteral("check-for-updates"),
        QStringLiteral("Ask the update feed whether a newer Quillvox exists; exit 1 when the check failed.")};
    const QCommandLineOption m_autostart{
        QStringLiteral("autostart"),
        QStringLiteral(
            "Start as at login: the tray and the widget only, nothing when Quillvox already runs.")};
    const QCommandLineOption m_verbose{QStringLiteral("verbose"),
                                       QStringLiteral("Also print Quillvox's log lines.")};
    QList<QCommandLineOption> m_controls;
};

int speakOnce(QCoreApplication &app, const Invocation &invocation)
{
    return narrateOnce(app, [&](SpeechManager &speech) {
        if (!invocation.voice.isEmpty())
            speech.useVoiceForThisRun(invocation.voice);
        if (invocation.style)
            speech.useStyleForThisRun(*invocation.style);
        speech.setPlaybackSpeed(invocation.speed.value_or(1.0f));
        speech.speak(invocation.text);
    });
}

// The check of "Check for Updates...", in the same words.
int checkForUpdatesOnce(QCoreApplication &app)
{
    UpdateChecker checker({&UserDefaults::standard(), nullptr, nullptr,
                           DeploymentConfig::current().appcastUrl, QStringLiteral(QUILLVOX_VERSION)});
    int code = 1;
    bool done = false;
    QObject::connect(&checker, &UpdateChecker::finished, &app, [&](const UpdateChecker::Result &result) {
        QTextStream out(result.outcome == UpdateChecker::Result::Outcome::Failed ? stderr : stdout);
        out << result.headline() << Qt::endl;
        if (result.outcome == UpdateChecker::Result::Outcome::UpToDate)
            out << "Quillvox " << result.currentVersion << " is the newest version." << Qt::endl;
        if (result.outcome == UpdateChecker::Result::Outcome::Available && result.item->link.isValid())
            out << "Download: " << result.item->link.toString() << Qt::endl;
        code = result.outcome == UpdateChecker::Result::Outcome::Failed ? 1 : 0;
        done = true;
        app.quit();
    });
    checker.checkForUpdates();
    if (!done) // a feed refused before any request answers at once
        app.exec();
    return code;
}

// Hands a command to the running instance. 2 when none runs.
int sendControl(const QString &command)
{
    const std::optional<QJsonObject> reply = SingleInstance::send(command);
    if (!reply) {
        printError(QStringLiteral("Quillvox is not running."));
        return 2;
    }
    if (command == u"status") {
        QTextStream(stdout)
            << QJsonDocument(reply->value(QStringLiteral("status")).toObject()).toJson(QJsonDocument::Compact)
            << Qt::endl;
    }
    return reply->value(QStringLiteral("ok")).toBool() ? 0 : 1;
}

int runApplication(int argc, char *argv[], const Invocation &invocation)
{
    const std::optional<QString> &url = invocation.url;
    WindowingPlatform::applyForThisSession();
    // The bus connection wants the application object first.
    QApplication app(argc, argv);
    // Already running: a callback URL goes to it, a plain start shows its settings window. A login start
    // opens nothing: the user did not ask for a window.
    if (invocation.autostart) {
        if (SingleInstance::send(QStringLiteral("status"), {}, 2000))
            return 0;
    } else if (SingleInstance::send(url ? QStringLiteral("open-url") : QStringLiteral("activate"),
                                    url.value_or(QString()), 2000)) {
        return 0;
    }
    app.setQuitOnLastWindowClosed(false);
    AppDelegate delegate(UserDefaults::standard(), KeychainHelper::shared());
    if (!delegate.applicationDidFinishLaunching(url)) {
        QTextStream(stderr) << "Quillvox is already running." << Qt::endl;
        return 0;
    }
    return app.exec();
}

} // namespace

int runQuillvox(int argc, char *argv[])
{
    QCoreApplication::setApplicationName(QStringLiteral("Quillvox"));
    QCoreApplication::setApplicationVersion(QStringLiteral(QUILLVOX_VERSION));

    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    CommandLine commandLine;
    const std::variant<Invocation, QString> checked = commandLine.check(arguments);
    if (const QString *error = std::get_if<QString>(&checked)) {
        printError(QStringLiteral("quillvox: ") + *error);
        printError(QStringLiteral("Try 'quillvox --help' for more information."));
        return 1;
    }
    const Invocation &invocation = std::get<Invocation>(checked);
    const bool narrates = invocation.mode == Invocation::Mode::start ||
                          invocation.mode == Invocation::Mode::speak ||
                          invocation.mode == Invocation::Mode::preview;
    if (narrates && !DeploymentConfig::current().refusals.isEmpty()) {
        for (const QString &refusal : DeploymentConfig::current().refusals)
            printError(QStringLiteral("quillvox: ") + refusal);
        return 1;
    }

    if (invocation.mode == Invocation::Mode::start) {
        if (invocation.verbose)
            QLoggingCategory::setFilterRules(QStringLiteral("quillvox.*.debug=true"));
        return runApplication(argc, argv, invocation);
    }
    // A one-off command prints what the user asked for and errors, nothing of the inner workings.
    if (!invocation.verbose)
        QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false\n*.info=false\n*.warning=false"));

    QCoreApplication app(argc, argv);
    switch (invocation.mode) {
    case Invocation::Mode::help:
        QTextStream(stdout) << commandLine.helpText() << Qt::flush;
        return 0;
    case Invocation::Mode::version:
        QTextStream(stdout) << "Quillvox " << QCoreApplication::applicationVersion() << Qt::endl;
        return 0;
    case Invocation::Mode::setApiKey:
        return setApiKey();
    case Invocation::Mode::clearApiKey:
        return clearApiKey();
    case Invocation::Mode::control:
        return sendControl(invocation.control);
    case Invocation::Mode::speak:
        if (!invocation.hasRunOptions() &&
            SingleInstance::send(QStringLiteral("speak"), invocation.text, 2000))
            return 0; // handed to the running instance
        createSharedAccount(accountLog(invocation.verbose));
        return speakOnce(app, invocation);
    case Invocation::Mode::preview:
        createSharedAccount(accountLog(invocation.verbose));
        return narrateOnce(app, [&](SpeechManager &speech) { speech.playVoicePreview(invocation.text); });
    case Invocation::Mode::checkForUpdates:
        return checkForUpdatesOnce(app);
    case Invocation::Mode::start:
        break;
    }
    Q_UNREACHABLE();
    return 1;
}
