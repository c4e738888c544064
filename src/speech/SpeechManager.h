// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "speech/LevelPublisher.h"
#include "speech/NarrationPlayback.h"
#include "speech/NarrationStream.h"
#include "speech/SpeechError.h"
#include "speech/TTSRequest.h"
#include "speech/VoiceStyle.h"
#include "speech/WidgetStyle.h"

#include <QObject>
#include <QStringList>
#include <QUrl>
#include <QUuid>

#include <memory>
#include <optional>

class AccountGate;
class AudioEngine;
class FollowAlong;
class AudioSink;
class KeychainHelper;
class NarrationRecords;
class QNetworkAccessManager;
class SelectionSource;
class ServerCatalogFetch;
class UserDefaults;

// The one long-lived object that turns text into a spoken narration: the checks before a request, the
// user's voice and appearance choices, the published error and the records at the end. The requests
// and their stream are NarrationStream's, playback and its published state NarrationPlayback's (with
// the levels in its LevelPublisher); their values are published here under the names the views use.
// Everything here lives on the GUI thread.
class SpeechManager : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool isProcessing READ isProcessing NOTIFY isProcessingChanged)
    Q_PROPERTY(bool isPlaying READ isPlaying NOTIFY isPlayingChanged)
    Q_PROPERTY(bool hasContent READ hasContent NOTIFY hasContentChanged)
    Q_PROPERTY(QString currentPlayingSessionId READ currentPlayingSessionIdText NOTIFY
                   currentPlayingSessionIdChanged)
    Q_PROPERTY(bool hasError READ hasError NOTIFY currentErrorChanged)
    Q_PROPERTY(QString currentErrorDescription READ currentErrorDescription NOTIFY currentErrorChanged)
    Q_PROPERTY(QString currentErrorId READ currentErrorId NOTIFY currentErrorChanged)
    Q_PROPERTY(float playbackSpeed READ playbackSpeed WRITE setPlaybackSpeed NOTIFY playbackSpeedChanged)
    Q_PROPERTY(QString selectedVoice READ selectedVoice WRITE setSelectedVoice NOTIFY selectedVoiceChanged)
    Q_PROPERTY(QString selectedVoiceStyle READ selectedVoiceStyleRawValue WRITE setSelectedVoiceStyleRawValue
                   NOTIFY selectedVoiceStyleChanged)
    Q_PROPERTY(QString widgetAppearance READ widgetAppearanceRawValue WRITE setWidgetAppearanceRawValue NOTIFY
                   widgetAppearanceChanged)
    Q_PROPERTY(
        QString widgetTheme READ widgetThemeRawValue WRITE setWidgetThemeRawValue NOTIFY widgetThemeChanged)
    Q_PROPERTY(double currentTime READ currentTime NOTIFY currentTimeChanged)
    Q_PROPERTY(double totalTime READ totalTime NOTIFY totalTimeChanged)
    Q_PROPERTY(double displayedTotalTime READ displayedTotalTime NOTIFY displayedTotalTimeChanged)
    Q_PROPERTY(float currentAudioLevel READ currentAudioLevel NOTIFY currentAudioLevelChanged)
    Q_PROPERTY(float rawAudioLevel READ rawAudioLevel NOTIFY rawAudioLevelChanged)
    Q_PROPERTY(double lastLevelTimestamp READ lastLevelTimestamp NOTIFY lastLevelTimestampChanged)
    // The built-in voices, or those a chosen speech server lists.
    Q_PROPERTY(QStringList availableVoices READ availableVoices NOTIFY availableVoicesChanged)

public:
    static constexpr int kSampleRateHz = NarrationPlayback::kSampleRateHz;
    static constexpr qsizetype kAudioChunkSize = NarrationPlayback::kAudioChunkSize;
    static constexpr double kPrebufferDurationSeconds = NarrationPlayback::kPrebufferDurationSeconds;
    static constexpr qint64 kSkipFrames = NarrationPlayback::kSkipFrames;

    struct Services
    {
        UserDefaults *defaults = nullptr;
        KeychainHelper *keychain = nullptr;
        AccountGate *account = nullptr;
        NarrationRecords *records = nullptr; // none: nothing is recorded
        SelectionSource *selection = nullptr;
        std::unique_ptr<AudioSink> audioSink;
        QNetworkAccessManager *network = nullptr; // none: one of its own
        QUrl serviceOrigin;
        QUrl openAIOrigin;
        // The deployment fixed openAIOrigin; otherwise the user's "openAIServer" setting wins over it.
        bool openAIOriginFromEnvironment = false;
        QString voiceSampleFolder = QStringLiteral(":/voices");
    };

    explicit SpeechManager(Services services, QObject *parent = nullptr);
    ~SpeechManager() override;

    // The process-wide instance, set up by the application (installShared) or else created on first
    // use with the production services.
    static SpeechManager &shared();
    static void installShared(SpeechManager *manager);

    // Narration.
    Q_INVOKABLE void speak(const QString &text);
    Q_INVOKABLE void handleNarrationTrigger();
    bool isNewText(const QString &text) const;
    // The text of the latest narration as given, for media controls' titles.
    QString lastSpokenText() const { return m_lastSpokenText; }
    // The voice of the latest narration or voice sample, as it spoke (the selection may have changed
    // since), for media controls.
    std::optional<QString> currentNarrationVoice() const { return m_currentNarrationVoice; }
    Q_INVOKABLE void playVoicePreview(const QString &voice);
    Q_INVOKABLE void playFromHistory(const QUuid &sessionId);
    void recordNarration(bool viaService);

    // Playback.
    Q_INVOKABLE void togglePlayPause();
    Q_INVOKABLE void stop();
    Q_INVOKABLE void seekToFrame(qint64 frame);
    Q_INVOKABLE void seekToProgress(double fraction);
    Q_INVOKABLE void cyclePlaybackSpeed();
    // Plays audio that is already complete (a preview or a history entry); nothing is recorded.
    void replayStoredAudio(const QByteArray &audio);
    // The narration frame being heard now: the frame the clock last restarted at plus what was heard since.
    qint64 currentPlaybackFrame() const { return m_playback.currentPlaybackFrame(); }
    Q_INVOKABLE void skipBackward();
    Q_INVOKABLE void skipForward();

    // Published values.
    bool isProcessing() const { return m_playback.isProcessing(); }
    bool isPlaying() const { return m_playback.isPlaying(); }
    bool hasContent() const { return m_playback.hasContent(); }
    std::optional<QUuid> currentPlayingSessionId() const { return m_currentPlayingSessionId; }
    QString currentPlayingSessionIdText() const;
    const std::optional<SpeechError> &currentError() const { return m_currentError; }
    void setCurrentError(const std::optional<SpeechError> &error);
    bool hasError() const { return m_currentError.has_value(); }
    QString currentErrorDescription() const;
    QString currentErrorId() const;
    float playbackSpeed() const { return m_playback.playbackSpeed(); }
    void setPlaybackSpeed(float speed);
    QString selectedVoice() const { return m_selectedVoice; }
    void setSelectedVoice(const QString &voice);
    VoiceStyle selectedVoiceStyle() const { return m_selectedVoiceStyle; }
    void setSelectedVoiceStyle(VoiceStyle style);
    QString selectedVoiceStyleRawValue() const { return m_selectedVoiceStyle.rawValue(); }
    void setSelectedVoiceStyleRawValue(const QString &raw);
    WidgetAppearance widgetAppearance() const { return m_widgetAppearance; }
    void setWidgetAppearance(WidgetAppearance appearance);
    QString widgetAppearanceRawValue() const { return rawValue(m_widgetAppearance); }
    void setWidgetAppearanceRawValue(const QString &raw);
    WidgetTheme widgetTheme() const { return m_widgetTheme; }
    void setWidgetTheme(WidgetTheme theme);
    QString widgetThemeRawValue() const { return rawValue(m_widgetTheme); }
    void setWidgetThemeRawValue(const QString &raw);
    double currentTime() const { return m_playback.currentTime(); }
    double totalTime() const { return m_playback.totalTime(); }
    double displayedTotalTime() const { return m_playback.displayedTotalTime(); }
    float currentAudioLevel() const { return m_playback.levels().currentAudioLevel(); }
    float rawAudioLevel() const { return m_playback.levels().rawAudioLevel(); }
    double lastLevelTimestamp() const { return m_playback.levels().lastLevelTimestamp(); }
    QStringList availableVoices() const;
    // Asks a chosen server for its voices and models again (after the server or the key changed).
    Q_INVOKABLE void refreshServerCatalog();
    // The same, only when a chosen server's lists are missing or were given by another server.
    void refreshServerCatalogIfStale();

    // Voice and style for this process only, not persisted (the command line's per-run choices).
    void useVoiceForThisRun(const QString &voice);
    void useStyleForThisRun(VoiceStyle style);

    // Seconds a text is expected to take at the current speed.
    double estimatedDuration(const QString &text) const;

    AudioEngine *audioEngine() const { return m_playback.audioEngine(); }
    // The sentence being heard.
    FollowAlong *followAlong() const { return m_followAlong; }
    bool isTapInstalled() const { return m_playback.levels().isTapInstalled(); }
    // Levels are measured only while someone shows them: `watcher` (a waveform on screen) says when.
    void watchLevels(QObject *watcher, bool watching) { m_playback.levels().setWatching(watcher, watching); }
    // Received audio bytes of the current narration.
    qsizetype accumulatedByteCount() const { return m_playback.accumulatedByteCount(); }
    // Audio is still arriving: the narration's length is not known yet.
    bool isStreamActive() const { return m_playback.isStreamActive(); }

    // Converts an audio file (a path or a resource) to raw 16-bit mono 24 kHz; nothing and the reason on
    // failure.
    struct Conversion
    {
        QByteArray pcm;
        std::optional<SpeechError> error;
    };
    static Conversion convertAudioFileToPCM(const QString &path);

Q_SIGNALS:
    void isProcessingChanged();
    void isPlayingChanged();
    void hasContentChanged();
    void currentPlayingSessionIdChanged();
    void currentErrorChanged();
    void playbackSpeedChanged();
    void selectedVoiceChanged();
    void selectedVoiceStyleChanged();
    void widgetAppearanceChanged();
    void widgetThemeChanged();
    void currentTimeChanged();
    void totalTimeChanged();
    void displayedTotalTimeChanged();
    void currentAudioLevelChanged();
    void rawAudioLevelChanged();
    void lastLevelTimestampChanged();
    // Also when a chosen server's models changed: both lists come together.
    void availableVoicesChanged();
    // The end-of-playback step ran (the narration was heard to its end).
    void playbackEnded();
    // A seek was carried out (after its debounce), at this frame.
    void seekPerformed(qint64 frame);

private:
    // Connects the audio output if it is not; on failure ends the narration and publishes why.
    bool ensureAudioEngine();
    void startServiceNarration(const QString &text, quint64 speakGeneration);
    void streamSpeech(SpeechBackend backend, const QString &credential, const QString &text,
                      const QString &voice);
    void onStreamHead(int status);
    // Ends a narration whose request failed before any audio came, showing why.
    void failBeforeAudio(const SpeechError &error);
    // The own key to send: empty for a chosen server on this computer or the local network that has
    // none; none, with the error published, when a key is needed and missing.
    std::optional<QString> ownKeyCredential();
    void onStreamFailedBeforeHead();
    void onPlaybackEnded();
    void setCurrentPlayingSessionId(const std::optional<QUuid> &id);

    Services m_services;
    NarrationStream m_stream;
    NarrationPlayback m_playback;
    FollowAlong *m_followAlong = nullptr;

    // Published.
    std::optional<QUuid> m_currentPlayingSessionId;
    std::optional<SpeechError> m_currentError;
    QString m_selectedVoice;
    VoiceStyle m_selectedVoiceStyle;
    WidgetAppearance m_widgetAppearance = WidgetAppearance::Dark;
    WidgetTheme m_widgetTheme = WidgetTheme::Default;

    // Private.
    // A later piece of a long text failed: published once what came before it has been heard.
    std::optional<SpeechError> m_errorAfterHeard;
    quint64 m_speakGeneration = 0; // a stop() or a newer speak() abandons a pending token wait
    QString m_lastSpokenText;
    std::optional<QString> m_lastSpokenTextNormalized;
    std::optional<QString> m_lastSpokenTextComparable;
    std::optional<QString> m_currentNarrationText;
    std::optional<QString> m_currentNarrationVoice;
    bool m_isVoicePreview = false;
    std::unique_ptr<QNetworkAccessManager> m_ownNetwork; // for the catalog, when not given one
    std::unique_ptr<ServerCatalogFetch> m_catalog;
    bool m_persistChoices = true;
};
