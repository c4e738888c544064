// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "DevServer.h"

#include "account/KeychainHelper.h"
#include "core/UserDefaults.h"
#include "platform/null/MemorySecretStore.h"
#include "platform/null/NullAudioSink.h"
#include "speech/NarrationServices.h"
#include "speech/SpeechManager.h"

#include <QNetworkAccessManager>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <memory>

class FakeAccount final : public AccountGate
{
public:
    bool signedIn = false;
    qint64 balance = 3600;
    int minutes = 60;
    std::optional<QString> token = QStringLiteral("service-token");
    QList<double> deducted;

    bool isSignedIn() const override { return signedIn; }
    qint64 balanceSeconds() const override { return balance; }
    int minutesRemaining() const override { return minutes; }
    void getValidAccessToken(QObject *context, std::function<void(std::optional<QString>)> done) override
    {
        // Answer in a later turn of the event loop, as a real refresh would.
        QTimer::singleShot(0, context, [done, t = token] { done(t); });
    }
    void deductSeconds(double seconds) override { deducted << seconds; }
};

class FakeRecords final : public NarrationRecords
{
public:
    struct Session
    {
        QString text;
        double duration;
        qsizetype bytes;
    };
    QList<Session> sessions;
    QList<qint64> usage;
    QString folder;
    QHash<QUuid, QString> texts;

    void addSession(const QString &text, const QString &, double durationSeconds,
                    const QByteArray &audioData) override
    {
        sessions << Session{text, durationSeconds, audioData.size()};
    }
    QString audioFile(const QUuid &id) const override
    {
        return folder + u'/' + id.toString(QUuid::WithoutBraces).toUpper() + QStringLiteral(".pcm");
    }
    QString text(const QUuid &id) const override { return texts.value(id); }
    void recordUsage(qint64 characters) override { usage << characters; }
};

class FakeSelection final : public SelectionSource
{
public:
    bool trusted = true;
    std::optional<QString> selection;
    bool isProcessTrusted(bool) override { return trusted; }
    std::optional<QString> captureSelectedText() override { return selection; }
};

// Notes when each request leaves.
// A narration controller with every service it needs, for one test case: settings and an in-memory
// keychain holding the own key "local" in a folder of its own, the fakes above, a dev server, and the
// null sink on virtual time unless given another sink.
class SpeechFixture
{
public:
    QTemporaryDir dir;
    UserDefaults defaults{dir.filePath(QStringLiteral("defaults.conf"))};
    KeychainHelper keychain{QStringLiteral("com.vantor.quillvox.test.speech"),
                            std::make_unique<MemorySecretStore>()};
    FakeAccount account;
    FakeRecords records;
    FakeSelection selection;
    QNetworkAccessManager network;
    bool originFromEnvironment = false;
    std::unique_ptr<DevServer> server;
    NullAudioSink *sink = nullptr; // the manager's, when it plays on the null sink
    std::unique_ptr<SpeechManager> speech;

    SpeechFixture()
    {
        keychain.save(QStringLiteral("local"), KeychainKey::openAIAPIKey);
        records.folder = dir.path();
    }

    // A dev server speaking the sine tone with `arguments`, and a manager that narrates through it.
    bool startServer(const QStringList &arguments)
    {
        server = std::make_unique<DevServer>();
        if (!server->start(QStringList{QStringLiteral("--synth"), QStringLiteral("sine")} + arguments)) {
            qWarning() << server->errorString();
            return false;
        }
        createManager(server->url());
        return true;
    }

    // A new manager with `origin` for both the service and the own key.
    void createManager(const QUrl &origin, std::unique_ptr<AudioSink> audio = {})
    {
        speech.reset();
        sink = audio ? nullptr : new NullAudioSink(NullAudioSink::Clock::Manual);
        SpeechManager::Services services;
        services.defaults = &defaults;
        services.keychain = &keychain;
        services.account = &account;
        services.records = &records;
        services.selection = &selection;
        services.audioSink = audio ? std::move(audio) : std::unique_ptr<AudioSink>(sink);
        services.network = &network;
        services.serviceOrigin = origin;
        services.openAIOrigin = origin;
        services.openAIOriginFromEnvironment = originFromEnvironment;
        speech = std::make_unique<SpeechManager>(std::move(services));
    }

    bool waitUntilPlaying() const
    {
        return QTest::qWaitFor([&] { return speech->isPlaying(); }, 10000);
    }

    // Renders `frames` of virtual time and delivers what the engine reported.
    void advance(int frames)
    {
        sink->advance(frames);
        QCoreApplication::processEvents();
    }

    // Renders virtual time, `frames` a step, until the narration has been heard to its end.
    bool playToEnd(int frames = 2400, int maxSteps = 2000)
    {
        QSignalSpy ended(speech.get(), &SpeechManager::playbackEnded);
        for (int i = 0; i < maxSteps && ended.isEmpty(); ++i)
            advance(frames);
        return !ended.isEmpty();
    }
};
