// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/CommandLine.h"

#include "account/KeychainHelper.h"
#include "app/AppDelegate.h"
#include "app/AppServices.h"
#include "app/CommandLineArguments.h"
#include "app/SingleInstance.h"
#include "app/TerminationSignals.h"
#include "app/WindowingPlatform.h"
#include "core/DeploymentConfig.h"
#include "core/Logging.h"
#include "core/UserDefaults.h"
#include "speech/OpenAIServer.h"
#include "speech/SpeechManager.h"
#include "updates/UpdateChecker.h"

#include <QApplication>
#include <QCoreApplication>
#include <QFile>
#include <QJsonDocument>
#include <QLoggingCategory>
#include <QStringDecoder>
#include <QTextStream>
#include <QTimer>

#include <csignal>
#include <cstdio>
#include <functional>
#include <string>
#include <variant>

#include <termios.h>
#include <unistd.h>

namespace {

void printError(const QString &text)
{
    QTextStream(stderr) << text << Qt::endl;
}

// A refusal: one line, and exit status 1.
int refuse(const QString &why)
{
    printError(QStringLiteral("quillvox: ") + why);
    return 1;
}

termios g_shownTerminal{};

// Ctrl+C at the prompt leaves the terminal as it found it.
void restoreTerminalAndExit(int signal)
{
    ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &g_shownTerminal);
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

// Reads one line from standard input, without its line end. On a terminal it asks for the key and does
// not show it as typed. The key never travels in the arguments, where any user on the machine could
// read it from the process list.
QString readKeyFromStandardInput()
{
    const bool hide = ::isatty(STDIN_FILENO) && ::tcgetattr(STDIN_FILENO, &g_shownTerminal) == 0;
    if (hide) {
        termios hidden = g_shownTerminal;
        hidden.c_lflag &= ~tcflag_t(ECHO);
        hidden.c_lflag |= ECHONL;
        std::signal(SIGINT, restoreTerminalAndExit);
        std::signal(SIGTERM, restoreTerminalAndExit);
        ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden);
        std::fputs("OpenAI API key: ", stderr);
        std::fflush(stderr);
    }
    std::string line;
    for (int c = std::getchar(); c != EOF && c != '\n'; c = std::getchar())
        line.push_back(char(c));
    if (hide) {
        ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &g_shownTerminal);
        std::signal(SIGINT, SIG_DFL);
        std::signal(SIGTERM, SIG_DFL);
    }
    return QString::fromUtf8(line.data(), qsizetype(line.size())).trimmed();
}

// `--speak -`: the text on standard input, as UTF-8, no longer than an argument may be. Empty, with
// `error` set, when it cannot be narrated.
QString readTextFromStandardInput(QString &error)
{
    constexpr qsizetype kMaximumBytes = 128 * 1024; // the kernel's limit for one argument
    QFile in;
    if (!in.open(stdin, QIODevice::ReadOnly)) {
        error = QStringLiteral("Cannot read standard input.");
        return {};
    }
    const QByteArray bytes = in.read(kMaximumBytes + 1);
    QStringDecoder decoder(QStringConverter::Utf8, QStringConverter::Flag::Stateless);
    const QString text = decoder.decode(bytes);
    if (bytes.size() > kMaximumBytes)
        error = QStringLiteral("The text on standard input is longer than %1 bytes.").arg(kMaximumBytes);
    else if (decoder.hasError())
        error = QStringLiteral("The text on standard input is not UTF-8.");
    else if (text.trimmed().isEmpty())
        error = QStringLiteral("Nothing to narrate: the text is empty.");
    return error.isEmpty() ? text : QString();
}

int setApiKey()
{
    const QString key = readKeyFromStandardInput();
    if (key.isEmpty())
        return refuse(QStringLiteral("No API key given: type it when asked, or pipe it on standard input "
                                     "(printf '%s\\n' \"$OPENAI_API_KEY\" | quillvox --set-api-key)."));
    KeychainHelper &keychain = KeychainHelper::shared();
    if (!keychain.save(key, KeychainKey::openAIAPIKey))
        return refuse(QStringLiteral("Could not save the API key: ") + keychain.lastFailureReason());
    QTextStream(stdout) << "API key saved to the keyring." << Qt::endl;
    return 0;
}

int clearApiKey()
{
    KeychainHelper &keychain = KeychainHelper::shared();
    if (!keychain.remove(KeychainKey::openAIAPIKey))
        return refuse(QStringLiteral("Could not remove the API key: ") + keychain.lastFailureReason());
    QTextStream(stdout) << "API key removed from the keyring." << Qt::endl;
    return 0;
}

// Runs one narration (or a voice sample) to the end of its playback. 0 when it was heard; 1 after an
// error, whose description goes to standard error.
int narrateOnce(QCoreApplication &app, const std::function<void(SpeechManager &)> &begin)
{
    SpeechManager &speech = createSharedSpeechManager();
    const auto failed = [&speech] {
        printError(QStringLiteral("quillvox: ") + speech.currentErrorDescription());
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

// Standalone runs keep the account's lines in its logging category, which --verbose shows; the default
// (none) prints them as the running application does.
std::function<void(const QString &)> accountLog(bool verbose)
{
    if (verbose)
        return {};
    return [](const QString &line) { qCInfo(lcAccount).noquote() << line; };
}

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

// A reply of the running instance: 0 when it did what was asked, 1 with its reason when not.
int replied(const QJsonObject &reply)
{
    if (reply.value(QStringLiteral("ok")).toBool())
        return 0;
    const QString why = reply.value(QStringLiteral("error")).toString();
    return refuse(why.isEmpty() ? QStringLiteral("Quillvox refused the command.") : why);
}

// Hands a command to the running instance. 2 when none runs.
int sendControl(const QString &command)
{
    const std::optional<QJsonObject> reply = SingleInstance::send(command);
    if (!reply) {
        printError(QStringLiteral("Quillvox is not running."));
        return 2;
    }
    if (const int code = replied(*reply); code != 0)
        return code;
    if (command == u"status") {
        const QJsonObject status = reply->value(QStringLiteral("status")).toObject();
        if (status.isEmpty())
            return refuse(QStringLiteral("The running Quillvox sent no status."));
        QTextStream(stdout) << QJsonDocument(status).toJson(QJsonDocument::Compact) << Qt::endl;
    }
    return 0;
}

int runApplication(int argc, char *argv[], const Invocation &invocation)
{
    const std::optional<QString> &url = invocation.url;
    WindowingPlatform::applyForThisSession();
    SingleInstance::keepLaunchActivation();
    // The bus connection wants the application object first.
    QApplication app(argc, argv);
    // Already running: a callback URL goes to it, a plain start shows its settings window. A login start
    // opens nothing: the user did not ask for a window.
    const std::optional<QJsonObject> running =
        invocation.autostart
            ? SingleInstance::send(QStringLiteral("status"))
            : SingleInstance::send(url ? QStringLiteral("open-url") : QStringLiteral("activate"),
                                   url.value_or(QString()));
    if (running)
        return replied(*running);
    app.setQuitOnLastWindowClosed(false);
    AppDelegate delegate(UserDefaults::standard(), KeychainHelper::shared());
    if (!delegate.applicationDidFinishLaunching(url)) {
        QTextStream(stderr) << "Quillvox is already running." << Qt::endl;
        return 0;
    }
    const TerminationSignals termination;
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
    CommandLineArguments commandLine;
    std::variant<Invocation, QString> checked = commandLine.check(arguments);
    if (const QString *error = std::get_if<QString>(&checked)) {
        printError(QStringLiteral("quillvox: ") + *error);
        printError(QStringLiteral("Try 'quillvox --help' for more information."));
        return 1;
    }
    Invocation &invocation = std::get<Invocation>(checked);
    const bool narrates = invocation.mode == Invocation::Mode::start ||
                          invocation.mode == Invocation::Mode::speak ||
                          invocation.mode == Invocation::Mode::preview;
    if (narrates && !DeploymentConfig::current().refusals.isEmpty()) {
        for (const QString &refusal : DeploymentConfig::current().refusals)
            printError(QStringLiteral("quillvox: ") + refusal);
        return 1;
    }
    if (invocation.readsStandardInput()) {
        QString error;
        invocation.text = readTextFromStandardInput(error);
        if (!error.isEmpty())
            return refuse(error);
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
        // Handed to the running instance, which answers once it has taken the text (or, with --wait,
        // once the narration was heard or failed).
        if (!invocation.hasRunOptions()) {
            if (const std::optional<QJsonObject> reply = SingleInstance::send(
                    invocation.wait ? QStringLiteral("speak-wait") : QStringLiteral("speak"),
                    invocation.text))
                return replied(*reply);
        }
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
