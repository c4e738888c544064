// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/CommandLine.h"

#include "account/KeychainHelper.h"
#include "app/AppServices.h"
#include "app/NormalOperation.h"
#include "app/RemoteControl.h"
#include "app/SingleInstance.h"
#include "speech/SpeechManager.h"
#include "speech/VoiceStyle.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <QJsonDocument>
#include <QTextStream>
#include <QTimer>

#include <cstdio>
#include <functional>

namespace {

const QStringList kHeadlessOptions{QStringLiteral("--set-api-key"),
                                   QStringLiteral("--clear-api-key"),
                                   QStringLiteral("--narrate-selection"),
                                   QStringLiteral("--toggle"),
                                   QStringLiteral("--stop"),
                                   QStringLiteral("--skip-back"),
                                   QStringLiteral("--skip-forward"),
                                   QStringLiteral("--cycle-speed"),
                                   QStringLiteral("--status"),
                                   QStringLiteral("--speak"),
                                   QStringLiteral("--preview"),
                                   QStringLiteral("--help"),
                                   QStringLiteral("-h"),
                                   QStringLiteral("--version"),
                                   QStringLiteral("-v")};

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

int speakOnce(QCoreApplication &app, const QString &text, const QString &voice, const QString &style,
              const QString &speed)
{
    if (text.trimmed().isEmpty()) {
        printError(QStringLiteral("Nothing to narrate: the text is empty."));
        return 1;
    }
    std::optional<VoiceStyle> chosenStyle;
    if (!style.isEmpty()) {
        chosenStyle = VoiceStyle::fromRawValue(style);
        if (!chosenStyle) {
            QStringList names;
            for (VoiceStyle s : VoiceStyle::allCases())
                names << s.rawValue();
            printError(QStringLiteral("Unknown style \"") + style + QStringLiteral("\". Styles: ") +
                       names.join(QStringLiteral(", ")));
            return 1;
        }
    }
    float rate = 1.0f;
    if (!speed.isEmpty()) {
        bool ok = false;
        rate = speed.toFloat(&ok);
        if (!ok || !playbackSpeeds().contains(rate)) {
            printError(QStringLiteral("Unsupported speed \"") + speed +
                       QStringLiteral("\". Speeds: 0.5, 1.0, 1.25, 1.5, 2.0"));
            return 1;
        }
    }
    return narrateOnce(app, [&](SpeechManager &speech) {
        if (!voice.isEmpty())
            speech.useVoiceForThisRun(voice);
        if (chosenStyle)
            speech.useStyleForThisRun(*chosenStyle);
        speech.setPlaybackSpeed(rate);
        speech.speak(text);
    });
}

int previewVoice(QCoreApplication &app, const QString &voice)
{
    if (!availableVoices().contains(voice)) {
        printError(QStringLiteral("Unknown voice \"") + voice + QStringLiteral("\". Voices: ") +
                   availableVoices().join(QStringLiteral(", ")));
        return 1;
    }
    return narrateOnce(app, [&](SpeechManager &speech) { speech.playVoicePreview(voice); });
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

} // namespace

bool isHeadlessMode(const QStringList &arguments)
{
    for (const QString &a : arguments) {
        if (kHeadlessOptions.contains(a))
            return true;
    }
    return false;
}

int runQuillvox(int argc, char *argv[])
{
    QCoreApplication::setApplicationName(QStringLiteral("Quillvox"));
    QCoreApplication::setApplicationVersion(QStringLiteral(QUILLVOX_VERSION));

    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    if (!isHeadlessMode(arguments.mid(1))) {
        // A callback URL from the browser, or a plain start.
        // Kept as written: routing compares host and path exactly.
        std::optional<QString> url;
        for (const QString &a : arguments.mid(1)) {
            if (a.startsWith(QStringLiteral("quillvox:")))
                url = a;
        }
        if (SingleInstance::send(url ? QStringLiteral("open-url") : QStringLiteral("ping"),
                                 url.value_or(QString()), 2000)) {
            if (!url)
                QTextStream(stderr) << "Quillvox is already running." << Qt::endl;
            return 0;
        }
        if (url || arguments.size() == 1) {
            QApplication app(argc, argv);
            return runNormalOperation(app, url);
        }
    }

    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Reads selected text aloud."));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption setKey(QStringLiteral("set-api-key"),
                                    QStringLiteral("Save the OpenAI API key read from standard input."));
    const QCommandLineOption clearKey(QStringLiteral("clear-api-key"),
                                      QStringLiteral("Remove the saved OpenAI API key."));
    const QCommandLineOption speak(QStringLiteral("speak"), QStringLiteral("Narrate TEXT once and exit."),
                                   QStringLiteral("TEXT"));
    const QCommandLineOption voice(QStringLiteral("voice"), QStringLiteral("Voice for this run."),
                                   QStringLiteral("NAME"));
    const QCommandLineOption style(QStringLiteral("style"), QStringLiteral("Speaking style for this run."),
                                   QStringLiteral("NAME"));
    const QCommandLineOption speed(QStringLiteral("speed"), QStringLiteral("Playback speed for this run."),
                                   QStringLiteral("X"));
    const QCommandLineOption preview(QStringLiteral("preview"), QStringLiteral("Play a voice's sample."),
                                     QStringLiteral("VOICE"));
    parser.addOptions({setKey, clearKey, speak, voice, style, speed, preview});
    QList<QCommandLineOption> controls;
    for (const QString &command : RemoteControl::controlCommands()) {
        controls.append(QCommandLineOption(command, QStringLiteral("Ask the running Quillvox to ") + command +
                                                        QStringLiteral(".")));
        parser.addOption(controls.last());
    }
    parser.process(app);

    if (parser.isSet(setKey))
        return setApiKey();
    if (parser.isSet(clearKey))
        return clearApiKey();
    for (const QCommandLineOption &control : controls) {
        if (parser.isSet(control))
            return sendControl(control.names().first());
    }
    if (parser.isSet(speak) && !parser.isSet(voice) && !parser.isSet(style) && !parser.isSet(speed) &&
        SingleInstance::send(QStringLiteral("speak"), parser.value(speak), 2000))
        return 0; // handed to the running instance
    if (parser.isSet(speak))
        return speakOnce(app, parser.value(speak), parser.value(voice), parser.value(style),
                         parser.value(speed));
    if (parser.isSet(preview))
        return previewVoice(app, parser.value(preview));
    parser.showHelp(0);
}
