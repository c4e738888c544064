// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/SpeechManager.h"

#include "account/KeychainHelper.h"
#include "core/Logging.h"
#include "core/Published.h"
#include "core/SharedInstance.h"
#include "core/UserDefaults.h"
#include "platform/AudioSink.h"
#include "speech/FollowAlong.h"
#include "speech/NarrationServices.h"
#include "speech/NarrationText.h"
#include "speech/OpenAIServer.h"
#include "speech/ServerCatalogFetch.h"

#include <QFile>
#include <QNetworkAccessManager>
#include <QTimer>

#include <cmath>

namespace {

const QString kSelectedVoiceKey = QStringLiteral("selectedVoice");
const QString kSelectedVoiceStyleKey = QStringLiteral("selectedVoiceStyle");
const QString kWidgetAppearanceKey = QStringLiteral("widgetAppearance");
const QString kWidgetThemeKey = QStringLiteral("widgetTheme");

} // namespace

SpeechManager::SpeechManager(Services services, QObject *parent)
    : QObject(parent)
    , m_services(std::move(services))
    , m_stream({m_services.defaults, m_services.serviceOrigin, m_services.openAIOrigin,
                m_services.openAIOriginFromEnvironment},
               m_services.network, kAudioChunkSize)
    , m_playback(std::move(m_services.audioSink))
{
    Q_ASSERT(m_services.defaults && m_services.keychain && m_services.account && m_services.selection);

    UserDefaults &d = *m_services.defaults;
    m_selectedVoice = d.string(kSelectedVoiceKey).value_or(defaultVoice());
    m_selectedVoiceStyle = VoiceStyle::fromRawValue(d.string(kSelectedVoiceStyleKey).value_or(QString()))
                               .value_or(VoiceStyle::Standard);
    m_widgetAppearance = widgetAppearanceFromRawValue(d.string(kWidgetAppearanceKey).value_or(QString()));
    m_widgetTheme = widgetThemeFromRawValue(d.string(kWidgetThemeKey).value_or(QString()));

    connect(&m_stream, &NarrationStream::headReceived, this, &SpeechManager::onStreamHead);
    connect(&m_stream, &NarrationStream::failedBeforeHead, this, &SpeechManager::onStreamFailedBeforeHead);
    connect(&m_stream, &NarrationStream::chunkReceived, &m_playback, &NarrationPlayback::appendChunk);
    connect(&m_stream, &NarrationStream::laterPieceFailed, this, [this](int status) {
        const int minutes = m_services.account ? m_services.account->minutesRemaining() : 0;
        m_errorAfterHeard = status == 0 ? SpeechError::make(SpeechError::invalidResponse)
                                        : speechErrorForStatus(status, minutes, m_stream.serverMessage());
    });
    connect(&m_stream, &NarrationStream::audioUnplayable, this, [this](const QString &message) {
        if (m_stream.hasDeliveredAudio())
            m_errorAfterHeard = SpeechError::makeUnplayableAudio(message); // what came still plays
        else
            failBeforeAudio(SpeechError::makeUnplayableAudio(message));
    });
    connect(&m_stream, &NarrationStream::bodyFinished, this,
            [this] { recordNarration(m_stream.isViaService()); });

    m_followAlong = new FollowAlong(&d, this);
    connect(&m_stream, &NarrationStream::pieceStarted, m_followAlong, &FollowAlong::beginPiece);
    connect(&m_stream, &NarrationStream::chunkReceived, this,
            [this] { m_followAlong->setReceivedFrames(m_stream.receivedBytes() / 2); });
    connect(&m_playback, &NarrationPlayback::currentTimeChanged, this,
            [this] { m_followAlong->setPosition(std::llround(currentTime() * kSampleRateHz)); });

    const NarrationPlayback *playback = &m_playback;
    connect(playback, &NarrationPlayback::isProcessingChanged, this, &SpeechManager::isProcessingChanged);
    connect(playback, &NarrationPlayback::isPlayingChanged, this, &SpeechManager::isPlayingChanged);
    connect(playback, &NarrationPlayback::hasContentChanged, this, &SpeechManager::hasContentChanged);
    connect(playback, &NarrationPlayback::playbackSpeedChanged, this, &SpeechManager::playbackSpeedChanged);
    connect(playback, &NarrationPlayback::currentTimeChanged, this, &SpeechManager::currentTimeChanged);
    connect(playback, &NarrationPlayback::totalTimeChanged, this, &SpeechManager::totalTimeChanged);
    connect(playback, &NarrationPlayback::displayedTotalTimeChanged, this,
            &SpeechManager::displayedTotalTimeChanged);
    connect(playback, &NarrationPlayback::seekPerformed, this, &SpeechManager::seekPerformed);
    connect(playback, &NarrationPlayback::ended, this, &SpeechManager::onPlaybackEnded);
    connect(playback, &NarrationPlayback::errorCleared, this, [this] { setCurrentError(std::nullopt); });
    connect(playback, &NarrationPlayback::errorRaised, this, &SpeechManager::setCurrentError);
    const LevelPublisher *levels = &m_playback.levels();
    connect(levels, &LevelPublisher::currentAudioLevelChanged, this,
            &SpeechManager::currentAudioLevelChanged);
    connect(levels, &LevelPublisher::rawAudioLevelChanged, this, &SpeechManager::rawAudioLevelChanged);
    connect(levels, &LevelPublisher::lastLevelTimestampChanged, this,
            &SpeechManager::lastLevelTimestampChanged);

    if (const std::optional<QString> error = m_playback.connectOutput())
        setCurrentError(SpeechError::makeAudioEngineFailure(*error));
}

SpeechManager::~SpeechManager()
{
    m_stream.cancel();
}

void SpeechManager::installShared(SpeechManager *manager)
{
    SharedInstance<SpeechManager>::install(manager);
}

SpeechManager &SpeechManager::shared()
{
    return SharedInstance<SpeechManager>::get();
}

// ---------------------------------------------------------------------------------------------------
// Narration

bool SpeechManager::isNewText(const QString &text) const
{
    const QString n = NarrationText::normalizedText(text);
    if (n.isEmpty())
        return false;
    const QString c = NarrationText::comparableText(text);
    if (m_lastSpokenTextNormalized && *m_lastSpokenTextNormalized == n)
        return false;
    if (m_lastSpokenTextComparable && *m_lastSpokenTextComparable == c)
        return false;
    return true;
}

void SpeechManager::handleNarrationTrigger()
{
    if (!m_services.selection->isProcessTrusted(false)) {
        setCurrentError(SpeechError::make(SpeechError::accessibilityPermissionMissing));
        return;
    }
    const std::optional<QString> captured = m_services.selection->captureSelectedText();
    const QString trimmed = captured ? captured->trimmed() : QString();
    if (!trimmed.isEmpty() && isNewText(trimmed)) {
        QTimer::singleShot(0, this, [this, trimmed] { speak(trimmed); });
        return;
    }
    if (m_playback.hasContent()) {
        togglePlayPause();
        return;
    }
    if (trimmed.isEmpty())
        setCurrentError(SpeechError::make(SpeechError::noTextSelected));
}

double SpeechManager::estimatedDuration(const QString &text) const
{
    return NarrationText::estimatedDuration(text, m_playback.playbackSpeed());
}

void SpeechManager::speak(const QString &text)
{
    if (text.isEmpty())
        return;
    const QString n = NarrationText::normalizedText(text);
    if (n.isEmpty())
        return;
    m_lastSpokenText = text;
    m_lastSpokenTextNormalized = n;
    m_lastSpokenTextComparable = NarrationText::comparableText(text);
    m_currentNarrationText = text;
    m_currentNarrationVoice = m_selectedVoice;
    m_isVoicePreview = false;

    stop();
    const quint64 generation = m_speakGeneration;

    // The backend follows the presence of an access token; there is no separate setting for it.
    if (m_services.keychain->load(KeychainKey::accessToken)) {
        startServiceNarration(text, generation);
        return;
    }
    const std::optional<QString> key = ownKeyCredential();
    if (!key)
        return;
    setCurrentError(std::nullopt);
    streamSpeech(SpeechBackend::OpenAI, *key, text, m_selectedVoice);
}

void SpeechManager::startServiceNarration(const QString &text, quint64 speakGeneration)
{
    AccountGate &account = *m_services.account;
    if (!account.isSignedIn()) {
        setCurrentError(SpeechError::make(SpeechError::notSignedIn));
        return;
    }
    if (account.balanceSeconds() < 60) {
        setCurrentError(SpeechError::makeInsufficientBalance(account.minutesRemaining()));
        return;
    }
    account.getValidAccessToken(this, [this, text, speakGeneration](std::optional<QString> token) {
        // A stop or a newer narration while the token was fetched abandons this one.
        if (speakGeneration != m_speakGeneration)
            return;
        if (!token) {
            setCurrentError(SpeechError::make(SpeechError::notSignedIn));
            return;
        }
        setCurrentError(std::nullopt);
        streamSpeech(SpeechBackend::Service, *token, text, m_selectedVoice);
    });
}

void SpeechManager::streamSpeech(SpeechBackend backend, const QString &credential, const QString &text,
                                 const QString &voice)
{
    m_playback.beginStream(estimatedDuration(text));
    if (!ensureAudioEngine())
        return;
    // Wake the device now: an idle output swallows the first word.
    m_playback.prepareOutput();
    m_followAlong->start(text, m_stream.pieces(backend, text));
    m_stream.start({backend, credential, text, voice, m_selectedVoiceStyle.instructions()});
}

void SpeechManager::onStreamHead(int status)
{
    if (status == 200)
        return;
    const int minutes = m_services.account ? m_services.account->minutesRemaining() : 0;
    failBeforeAudio(speechErrorForStatus(status, minutes, m_stream.serverMessage()));
}

void SpeechManager::failBeforeAudio(const SpeechError &error)
{
    m_followAlong->clear();
    m_stream.cancel();
    setCurrentError(error);
    m_playback.abandonRequest();
}

std::optional<QString> SpeechManager::ownKeyCredential()
{
    const std::optional<QString> key = m_services.keychain->loadSecret(KeychainKey::openAIAPIKey);
    if (key && !key->isEmpty())
        return key;
    if (OpenAIServer::isLocalServer(
            OpenAIServer::chosenServer(*m_services.defaults, m_services.openAIOriginFromEnvironment)))
        return QString();
    setCurrentError(SpeechError::make(SpeechError::apiKeyMissing));
    return std::nullopt;
}

void SpeechManager::onStreamFailedBeforeHead()
{
    failBeforeAudio(speechErrorBeforeHead(m_stream.certificateProblem()));
}

void SpeechManager::recordNarration(bool viaService)
{
    m_playback.finishStream(m_stream.takeTail());
    m_followAlong->finish();
    m_stream.cancel();

    const QByteArray audio = m_isVoicePreview ? QByteArray() : m_playback.receivedAudio();
    if (!m_isVoicePreview && m_currentNarrationText && m_currentNarrationVoice && !audio.isEmpty()) {
        const double duration = double(audio.size() / 2) / kSampleRateHz;
        if (m_services.records) {
            m_services.records->addSession(*m_currentNarrationText, *m_currentNarrationVoice, duration,
                                           audio);
            m_services.records->recordUsage(NarrationText::characterCount(*m_currentNarrationText));
        }
        if (viaService)
            m_services.account->deductSeconds(duration);
    }
    m_playback.endIfDrained();
}

void SpeechManager::playVoicePreview(const QString &voice)
{
    stop();
    m_isVoicePreview = true;
    m_currentNarrationText.reset();
    m_currentNarrationVoice = voice;
    // A chosen server's voices have no bundled samples: the server speaks one.
    if (OpenAIServer::chosenServer(*m_services.defaults, m_services.openAIOriginFromEnvironment)) {
        const std::optional<QString> key = ownKeyCredential();
        if (!key)
            return;
        const QString sample = QStringLiteral("Hello! This is how this voice sounds.");
        streamSpeech(SpeechBackend::OpenAI, *key, sample, voice);
        return;
    }
    const QString path = m_services.voiceSampleFolder + u'/' + voice + QStringLiteral(".mp3");
    if (!QFile::exists(path))
        return;
    QTimer::singleShot(0, this, [this, path, generation = m_speakGeneration] {
        if (generation != m_speakGeneration)
            return;
        const Conversion converted = convertAudioFileToPCM(path);
        if (converted.error) {
            qCInfo(lcSpeech) << "voice sample not playable:" << converted.error->description();
            return;
        }
        replayStoredAudio(converted.pcm);
    });
}

void SpeechManager::playFromHistory(const QUuid &sessionId)
{
    stop();
    m_isVoicePreview = true;
    m_currentNarrationText.reset();
    setCurrentPlayingSessionId(sessionId);
    QFile file(m_services.records ? m_services.records->audioFile(sessionId) : QString());
    if (!file.open(QIODevice::ReadOnly)) {
        setCurrentPlayingSessionId(std::nullopt);
        return;
    }
    const QByteArray audio = file.readAll();
    replayStoredAudio(audio);
    if (hasContent())
        m_followAlong->startComplete(m_services.records->text(sessionId), audio.size() / 2);
    setCurrentPlayingSessionId(sessionId); // the replay's own stop() cleared it
}

// ---------------------------------------------------------------------------------------------------
// Playback

void SpeechManager::onPlaybackEnded()
{
    if (m_errorAfterHeard)
        setCurrentError(std::exchange(m_errorAfterHeard, std::nullopt));
    Q_EMIT playbackEnded();
}

void SpeechManager::togglePlayPause()
{
    m_playback.togglePlayPause();
}

void SpeechManager::stop()
{
    ++m_speakGeneration;
    m_errorAfterHeard.reset();
    m_stream.cancel();
    m_playback.stop();
    m_followAlong->clear();
    setCurrentPlayingSessionId(std::nullopt);
}

void SpeechManager::seekToFrame(qint64 frame)
{
    m_playback.seekToFrame(frame);
}

void SpeechManager::seekToProgress(double fraction)
{
    m_playback.seekToProgress(fraction);
}

void SpeechManager::cyclePlaybackSpeed()
{
    setPlaybackSpeed(nextPlaybackSpeed(m_playback.playbackSpeed()));
}

void SpeechManager::setPlaybackSpeed(float speed)
{
    m_playback.setPlaybackSpeed(speed);
}

void SpeechManager::replayStoredAudio(const QByteArray &audio)
{
    stop();
    if (!ensureAudioEngine())
        return;
    m_playback.replay(audio);
}

void SpeechManager::skipBackward()
{
    m_playback.skipBackward();
}

void SpeechManager::skipForward()
{
    m_playback.skipForward();
}

bool SpeechManager::ensureAudioEngine()
{
    const std::optional<QString> error = m_playback.connectOutput();
    if (!error)
        return true;
    stop();
    setCurrentError(SpeechError::makeAudioEngineFailure(*error));
    return false;
}

// ---------------------------------------------------------------------------------------------------
// Published values

void SpeechManager::setCurrentPlayingSessionId(const std::optional<QUuid> &id)
{
    if (m_currentPlayingSessionId == id)
        return;
    m_currentPlayingSessionId = id;
    Q_EMIT currentPlayingSessionIdChanged();
}

QString SpeechManager::currentPlayingSessionIdText() const
{
    return m_currentPlayingSessionId ? m_currentPlayingSessionId->toString(QUuid::WithoutBraces).toUpper()
                                     : QString();
}

void SpeechManager::setCurrentError(const std::optional<SpeechError> &error)
{
    if (m_currentError == error)
        return;
    m_currentError = error;
    Q_EMIT currentErrorChanged();
}

QString SpeechManager::currentErrorDescription() const
{
    return m_currentError ? m_currentError->description() : QString();
}

QString SpeechManager::currentErrorId() const
{
    return m_currentError ? m_currentError->id() : QString();
}

void SpeechManager::setSelectedVoice(const QString &voice)
{
    if (m_persistChoices)
        m_services.defaults->setString(kSelectedVoiceKey, voice);
    if (m_selectedVoice == voice)
        return;
    m_selectedVoice = voice;
    Q_EMIT selectedVoiceChanged();
}

void SpeechManager::setSelectedVoiceStyle(VoiceStyle style)
{
    if (m_persistChoices)
        m_services.defaults->setString(kSelectedVoiceStyleKey, style.rawValue());
    if (m_selectedVoiceStyle == style)
        return;
    m_selectedVoiceStyle = style;
    Q_EMIT selectedVoiceStyleChanged();
}

void SpeechManager::setSelectedVoiceStyleRawValue(const QString &raw)
{
    setSelectedVoiceStyle(VoiceStyle::fromRawValue(raw).value_or(VoiceStyle::Standard));
}

void SpeechManager::setWidgetAppearance(WidgetAppearance appearance)
{
    m_services.defaults->setString(kWidgetAppearanceKey, rawValue(appearance));
    if (m_widgetAppearance == appearance)
        return;
    m_widgetAppearance = appearance;
    Q_EMIT widgetAppearanceChanged();
}

void SpeechManager::setWidgetAppearanceRawValue(const QString &raw)
{
    setWidgetAppearance(widgetAppearanceFromRawValue(raw));
}

void SpeechManager::setWidgetTheme(WidgetTheme theme)
{
    m_services.defaults->setString(kWidgetThemeKey, rawValue(theme));
    if (m_widgetTheme == theme)
        return;
    m_widgetTheme = theme;
    Q_EMIT widgetThemeChanged();
}

void SpeechManager::setWidgetThemeRawValue(const QString &raw)
{
    setWidgetTheme(widgetThemeFromRawValue(raw));
}

QStringList SpeechManager::availableVoices() const
{
    return OpenAIServer::offeredVoices(*m_services.defaults, m_services.openAIOriginFromEnvironment);
}

void SpeechManager::refreshServerCatalog()
{
    if (!m_catalog) {
        if (!m_services.network) {
            m_ownNetwork = std::make_unique<QNetworkAccessManager>();
            m_services.network = m_ownNetwork.get();
        }
        m_catalog = std::make_unique<ServerCatalogFetch>(m_services.network, *m_services.defaults);
        connect(m_catalog.get(), &ServerCatalogFetch::listsChanged, this,
                &SpeechManager::availableVoicesChanged);
    }
    const std::optional<QUrl> chosen =
        OpenAIServer::chosenServer(*m_services.defaults, m_services.openAIOriginFromEnvironment);
    m_catalog->refresh(chosen,
                       chosen ? m_services.keychain->loadSecret(KeychainKey::openAIAPIKey).value_or(QString())
                              : QString());
}

void SpeechManager::refreshServerCatalogIfStale()
{
    if (OpenAIServer::catalogIsStale(*m_services.defaults, m_services.openAIOriginFromEnvironment))
        refreshServerCatalog();
}

void SpeechManager::useVoiceForThisRun(const QString &voice)
{
    const bool persist = std::exchange(m_persistChoices, false);
    setSelectedVoice(voice);
    m_persistChoices = persist;
}

void SpeechManager::useStyleForThisRun(VoiceStyle style)
{
    const bool persist = std::exchange(m_persistChoices, false);
    setSelectedVoiceStyle(style);
    m_persistChoices = persist;
}
