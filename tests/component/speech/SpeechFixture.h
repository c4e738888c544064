// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// What the speech component tests share: a dev server on loopback that speaks a sine tone, and a
// SpeechManager that talks to it with the own key "local" from an in-memory keychain, playing on the
// null sink's virtual clock; fakes stand in for the account, the records and the selection.
#include "DevServer.h"

#include "account/KeychainHelper.h"
#include "core/UserDefaults.h"
#include "platform/null/MemorySecretStore.h"
#include "platform/null/NullAudioSink.h"
#include "speech/NarrationServices.h"
#include "speech/SpeechManager.h"

#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

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
        QString text, voice;
        double duration;
        qsizetype bytes;
    };
    QList<Session> sessions;
    QList<qint64> usage;
    QString folder;

    void addSession(const QString &text, const QString &voice, double durationSeconds,
                    const QByteArray &audioData) override
    {
        sessions << Session{text, voice, durationSeconds, audioData.size()};
    }
    QString audioFile(const QUuid &id) const override
    {
        return folder + u'/' + id.toString(QUuid::WithoutBraces).toUpper() + QStringLiteral(".pcm");
    }
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

// The base of a speech test class: call setUpSpeech() from init() and tearDownSpeech() from cleanup().
class SpeechFixture : public QObject
{
protected:
    QTemporaryDir m_dir;
    std::unique_ptr<DevServer> m_server;
    std::unique_ptr<UserDefaults> m_defaults;
    std::unique_ptr<KeychainHelper> m_keychain;
    FakeAccount m_account;
    FakeRecords m_records;
    FakeSelection m_selection;
    QNetworkAccessManager *m_network = nullptr; // none: the manager's own
    NullAudioSink *m_sink = nullptr;            // the manager's, when it plays on the null sink
    std::unique_ptr<SpeechManager> m_speech;

    void setUpSpeech()
    {
        m_defaults = std::make_unique<UserDefaults>(m_dir.filePath(QStringLiteral("defaults.conf")));
        m_keychain = std::make_unique<KeychainHelper>(QStringLiteral("com.vantor.quillvox.test.speech"),
                                                      std::make_unique<MemorySecretStore>());
        m_keychain->save(QStringLiteral("local"), KeychainKey::openAIAPIKey);
        m_account = FakeAccount();
        m_records = FakeRecords();
        m_records.folder = m_dir.path();
        m_selection = FakeSelection();
    }

    void tearDownSpeech()
    {
        m_speech.reset();
        m_server.reset();
        QFile::remove(m_dir.filePath(QStringLiteral("defaults.conf")));
    }

    // Starts a dev server with `arguments` and a manager on the null sink that talks to it.
    bool startServer(const QStringList &arguments)
    {
        m_server = std::make_unique<DevServer>();
        if (!m_server->start(QStringList{QStringLiteral("--synth"), QStringLiteral("sine")} + arguments)) {
            qWarning() << m_server->errorString();
            return false;
        }
        createManager(m_server->url());
        return true;
    }

    // A new manager for both the service and the own-key origin; on the null sink unless given a sink.
    void createManager(const QUrl &origin, std::unique_ptr<AudioSink> sink = {})
    {
        m_speech.reset();
        m_sink = nullptr;
        if (!sink) {
            auto null = std::make_unique<NullAudioSink>(NullAudioSink::Clock::Manual);
            m_sink = null.get();
            sink = std::move(null);
        }
        SpeechManager::Services services;
        services.defaults = m_defaults.get();
        services.keychain = m_keychain.get();
        services.account = &m_account;
        services.records = &m_records;
        services.selection = &m_selection;
        services.audioSink = std::move(sink);
        services.network = m_network;
        services.serviceOrigin = origin;
        services.openAIOrigin = origin;
        m_speech = std::make_unique<SpeechManager>(std::move(services));
    }

    // Renders virtual time, `frames` a step, until the narration has been heard to its end; false
    // when it does not end, or when there is nothing left to play.
    bool playToEnd(int frames = 2400, int maxSteps = 2000)
    {
        QSignalSpy ended(m_speech.get(), &SpeechManager::playbackEnded);
        for (int i = 0; i < maxSteps && ended.isEmpty(); ++i) {
            m_sink->advance(frames);
            QCoreApplication::processEvents();
            if (!m_speech->isPlaying() && !m_speech->isProcessing() && i > 10 && ended.isEmpty() &&
                !m_speech->hasContent())
                return false;
        }
        return !ended.isEmpty();
    }
};
