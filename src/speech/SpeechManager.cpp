// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/SpeechManager.h"

#include "account/KeychainHelper.h"
#include "core/Logging.h"
#include "core/Published.h"
#include "core/SharedInstance.h"
#include "core/UserDefaults.h"
#include "platform/AudioSink.h"
#include "speech/AudioEngine.h"
#include "speech/NarrationServices.h"
#include "speech/NarrationText.h"
#include "speech/OpenAIServer.h"
#include "speech/ServerCatalogFetch.h"
#include "speech/ServerErrorBody.h"
#include "speech/SpeechSequence.h"
#include "speech/TextPieces.h"

#include <QFile>
#include <QNetworkAccessManager>

#include <algorithm>

namespace {

const QString kSelectedVoiceKey = QStringLiteral("selectedVoice");
const QString kSelectedVoiceStyleKey = QStringLiteral("selectedVoiceStyle");
const QString kWidgetAppearanceKey = QStringLiteral("widgetAppearance");
const QString kWidgetThemeKey = QStringLiteral("widgetTheme");

constexpr qsizetype kPrebufferBytes =
    qsizetype(SpeechManager::kPrebufferDurationSeconds * SpeechManager::kSampleRateHz * 2);

double secondsForBytes(qint64 bytes)
{
    return double(bytes) * 0.5 / SpeechManager::kSampleRateHz;
}

} // namespace

SpeechManager::SpeechManager(Services services, QObject *parent)
    : QObject(parent)
    , m_services(std::move(services))
{
    Q_ASSERT(m_services.defaults && m_services.keychain && m_services.account && m_services.selection);
    if (m_services.network) {
        m_network = m_services.network;
    } else {
        m_ownNetwork = std::make_unique<QNetworkAccessManager>();
        m_network = m_ownNetwork.get();
    }

    UserDefaults &d = *m_services.defaults;
    m_selectedVoice = d.string(kSelectedVoiceKey).value_or(defaultVoice());
    m_selectedVoiceStyle = VoiceStyle::fromRawValue(d.string(kSelectedVoiceStyleKey).value_or(QString()))
                               .value_or(VoiceStyle::Standard);
    m_widgetAppearance = widgetAppearanceFromRawValue(d.string(kWidgetAppearanceKey).value_or(QString()));
    m_widgetTheme = widgetThemeFromRawValue(d.string(kWidgetThemeKey).value_or(QString()));

    m_seekDebounce.setSingleShot(true);
    m_seekDebounce.setInterval(50);
    connect(&m_seekDebounce, &QTimer::timeout, this, &SpeechManager::performPendingSeek);
    m_progressTimer.setInterval(200);
    connect(&m_progressTimer, &QTimer::timeout, this, &SpeechManager::updateProgress);

    setupAudioEngine();

    m_catalog = std::make_unique<ServerCatalogFetch>(m_network, d);
    connect(m_catalog.get(), &ServerCatalogFetch::listsChanged, this, &SpeechManager::availableVoicesChanged);
}

SpeechManager::~SpeechManager()
{
    cancelCurrentTask();
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
    if (m_hasContent) {
        togglePlayPause();
        return;
    }
    if (trimmed.isEmpty())
        setCurrentError(SpeechError::make(SpeechError::noTextSelected));
}

double SpeechManager::estimatedDuration(const QString &text) const
{
    return NarrationText::estimatedDuration(text, m_playbackSpeed);
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
    const std::optional<QString> key = m_services.keychain->load(KeychainKey::openAIAPIKey);
    if ((!key || key->isEmpty()) && !isKeylessServer()) {
        setCurrentError(SpeechError::make(SpeechError::apiKeyMissing));
        return;
    }
    setCurrentError(std::nullopt);
    streamSpeech(SpeechBackend::OpenAI, key.value_or(QString()), text, estimatedDuration(text));
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
        streamSpeech(SpeechBackend::Service, *token, text, estimatedDuration(text));
    });
}

void SpeechManager::streamSpeech(SpeechBackend backend, const QString &credential, const QString &text,
                                 double estimate)
{
    setIsProcessing(true);
    withState([](StreamState &s) { s.isStreamActive = true; });
    setHasContent(true);
    setIsPlaying(false);
    withState([](StreamState &s) { s.hasStartedPlayback = false; });
    setDisplayedTotalTime(estimate <= 0.1 ? 0.1 : estimate);

    if (!ensureAudioEngine())
        return;
    // Wake the device now: an idle output swallows the first word.
    m_engine->prepare();

    TTSRequest body;
    body.model = speechModel(backend);
    body.input = text;
    body.voice = m_previewVoice.value_or(m_selectedVoice);
    body.instructions = m_selectedVoiceStyle.instructions();
    QUrl origin = backend == SpeechBackend::Service ? m_services.serviceOrigin : m_services.openAIOrigin;
    std::optional<QUrl> chosen;
    int inputLimit = int(TextPieces::kOpenAIInputLimit);
    int timeoutMs = 60000;
    // Read per request, so that a server chosen in the settings applies to the next narration.
    if (backend == SpeechBackend::OpenAI && m_services.defaults) {
        body.model = OpenAIServer::effectiveModel(*m_services.defaults);
        origin = OpenAIServer::effectiveOrigin(*m_services.defaults, m_services.openAIOrigin,
                                               m_services.openAIOriginFromEnvironment);
        chosen = OpenAIServer::chosenServer(*m_services.defaults, m_services.openAIOriginFromEnvironment);
        if (chosen) {
            body.model = OpenAIServer::chosenServerModel(*m_services.defaults);
            inputLimit = OpenAIServer::maxInputChars(*m_services.defaults);
            if (OpenAIServer::isLocalHost(chosen->host()))
                timeoutMs = OpenAIServer::kLocalHeadTimeoutMs;
        }
    }

    // OpenAI's endpoint takes a limited input, so a long text goes out as consecutive pieces; the
    // service takes any length in one request.
    QStringList texts =
        backend == SpeechBackend::OpenAI ? TextPieces::split(text, inputLimit) : QStringList{text};
    const QNetworkRequest request = buildSpeechRequest(backend, origin, credential, timeoutMs);
    const auto piecesOf = [request, body](const QStringList &inputs) {
        QList<SpeechSequence::Piece> pieces;
        TTSRequest piece = body;
        for (const QString &input : inputs) {
            piece.input = input;
            pieces.append({request, piece.toJson()});
        }
        return pieces;
    };
    auto *stream = new SpeechSequence(m_network, piecesOf(texts), this);
    if (chosen) {
        stream->setChosenServer(true);
        // A server that refuses a piece for its size gets the rest of the text in pieces half as long, for
        // the rest of this narration; each piece is retried once.
        stream->setRetryRefused([texts, inputLimit, piecesOf, retried = QSet<qsizetype>()](
                                    qsizetype index, int status, const QString &message) mutable {
            QList<SpeechSequence::Piece> none;
            if (!ServerErrorBody::refusesInputLength(status, message) || retried.contains(index) ||
                inputLimit <= ServerErrorBody::kMinInputChars)
                return none;
            retried.insert(index);
            inputLimit = ServerErrorBody::halvedLimit(inputLimit);
            const QString rest = texts.mid(index).join(QString());
            texts = texts.first(index) + TextPieces::split(rest, inputLimit);
            return piecesOf(texts.mid(index));
        });
    }
    m_currentTask = stream;
    m_currentTaskViaService = backend == SpeechBackend::Service;
    m_chunker.clear();
    connect(stream, &SpeechSequence::headReceived, this, &SpeechManager::onStreamHead);
    connect(stream, &SpeechSequence::failedBeforeHead, this, &SpeechManager::onStreamFailedBeforeHead);
    connect(stream, &SpeechSequence::dataReceived, this, &SpeechManager::appendStreamBytes);
    connect(stream, &SpeechSequence::laterPieceFailed, this, [this, stream](int status) {
        const int minutes = m_services.account ? m_services.account->minutesRemaining() : 0;
        m_errorAfterHeard = status == 0 ? SpeechError::make(SpeechError::invalidResponse)
                                        : speechErrorForStatus(status, minutes, stream->serverMessage());
    });
    connect(stream, &SpeechSequence::audioUnplayable, this, [this, stream](const QString &message) {
        if (stream->hasDeliveredAudio())
            m_errorAfterHeard = SpeechError::makeUnplayableAudio(message); // what came still plays
        else
            failBeforeAudio(SpeechError::makeUnplayableAudio(message));
    });
    connect(stream, &SpeechSequence::bodyFinished, this,
            [this] { recordNarration(m_currentTaskViaService); });
    stream->start();
}

void SpeechManager::onStreamHead(int status)
{
    if (status == 200)
        return;
    const QString serverMessage = m_currentTask ? m_currentTask->serverMessage() : QString();
    const int minutes = m_services.account ? m_services.account->minutesRemaining() : 0;
    failBeforeAudio(speechErrorForStatus(status, minutes, serverMessage));
}

void SpeechManager::failBeforeAudio(const SpeechError &error)
{
    cancelCurrentTask();
    setCurrentError(error);
    setIsProcessing(false);
    if (m_engine && !m_isPlaying)
        m_engine->stop(); // let the device idle again
}

bool SpeechManager::isKeylessServer() const
{
    const std::optional<QUrl> chosen =
        m_services.defaults
            ? OpenAIServer::chosenServer(*m_services.defaults, m_services.openAIOriginFromEnvironment)
            : std::nullopt;
    return chosen && OpenAIServer::isLocalHost(chosen->host());
}

void SpeechManager::onStreamFailedBeforeHead()
{
    cancelCurrentTask();
    setCurrentError(SpeechError::make(SpeechError::invalidResponse));
    setIsProcessing(false);
    if (m_engine && !m_isPlaying)
        m_engine->stop();
}

void SpeechManager::cancelCurrentTask()
{
    if (SpeechSequence *stream = m_currentTask) {
        m_currentTask = nullptr;
        stream->disconnect(this);
        stream->cancel();
        stream->deleteLater();
    }
}

void SpeechManager::recordNarration(bool viaService)
{
    withState([](StreamState &s) { s.isStreamActive = false; });
    finishStream();
    cancelCurrentTask();

    const QByteArray audio = m_isVoicePreview
                                 ? QByteArray()
                                 : withState([](StreamState &s) { return s.accumulatedData.joined(); });
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
    if (withState([](StreamState &s) { return s.activeBuffersCount; }) == 0)
        endOfPlayback();
}

void SpeechManager::playVoicePreview(const QString &voice)
{
    stop();
    m_isVoicePreview = true;
    m_currentNarrationText.reset();
    // A chosen server's voices have no bundled samples: the server speaks one.
    if (m_services.defaults &&
        OpenAIServer::chosenServer(*m_services.defaults, m_services.openAIOriginFromEnvironment)) {
        const std::optional<QString> key = m_services.keychain->load(KeychainKey::openAIAPIKey);
        if ((!key || key->isEmpty()) && !isKeylessServer()) {
            setCurrentError(SpeechError::make(SpeechError::apiKeyMissing));
            return;
        }
        const QString sample = QStringLiteral("Hello! This is how this voice sounds.");
        m_previewVoice = voice;
        streamSpeech(SpeechBackend::OpenAI, key.value_or(QString()), sample, estimatedDuration(sample));
        m_previewVoice.reset();
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
    setCurrentPlayingSessionId(sessionId); // the replay's own stop() cleared it
}

// ---------------------------------------------------------------------------------------------------
// Stream and playback

void SpeechManager::appendStreamBytes(const QByteArray &piece)
{
    m_chunker.push(piece, [this](const QByteArray &chunk) {
        acceptChunk(chunk);
        publishTotals();
        startCheck(false);
    });
}

void SpeechManager::acceptChunk(const QByteArray &chunk)
{
    withState([&](StreamState &s) { s.accumulatedData.append(chunk); });
    scheduleChunk(chunk, 0, chunk.size());
    withState([&](StreamState &s) { s.receivedByteCount += chunk.size(); });
}

void SpeechManager::publishTotals()
{
    setTotalTime(secondsForBytes(withState([](StreamState &s) { return s.receivedByteCount; })));
    raiseDisplayedTotalTime();
}

void SpeechManager::startCheck(bool streamEnded)
{
    const auto [started, held] =
        withState([](StreamState &s) { return std::pair(s.hasStartedPlayback, s.accumulatedData.size()); });
    if (started)
        return;
    // A stream that ended short of the prebuffer is played anyway: people select single words.
    if (held >= kPrebufferBytes || (streamEnded && held > 0))
        startPlayback();
}

void SpeechManager::finishStream()
{
    if (const QByteArray tail = m_chunker.takeTail(); !tail.isEmpty())
        acceptChunk(tail);
    withState([](StreamState &s) { s.isStreamActive = false; });
    publishTotals();
    startCheck(true);
    if (m_engine)
        m_engine->markEndOfInput();
}

void SpeechManager::scheduleChunk(const QByteArray &storage, qsizetype offset, qsizetype bytes)
{
    if (!m_engine || bytes / 2 == 0)
        return;
    withState([](StreamState &s) { ++s.activeBuffersCount; });
    m_engine->scheduleBuffer(storage, offset, bytes, m_bufferGeneration);
}

void SpeechManager::scheduleAllFrom(qsizetype fromByte)
{
    AccumulatedAudio audio;
    bool streamActive = false;
    withState([&](StreamState &s) {
        audio = s.accumulatedData;
        streamActive = s.isStreamActive;
    });
    audio.forEachRange(fromByte, kAudioChunkSize,
                       [this](const QByteArray &storage, qsizetype offset, qsizetype bytes) {
                           scheduleChunk(storage, offset, bytes);
                       });
    if (!streamActive && m_engine)
        m_engine->markEndOfInput();
}

void SpeechManager::startPlayback()
{
    if (!m_engine)
        return;
    m_engine->play();
    setIsPlaying(true);
    startProgressTimer();
    if (!m_isTapInstalled)
        installLevelTap();
    setCurrentError(std::nullopt);
    withState([](StreamState &s) { s.hasStartedPlayback = true; });
    raiseDisplayedTotalTime();
    setIsProcessing(false);
}

void SpeechManager::endOfPlayback()
{
    setIsPlaying(false);
    m_progressTimer.stop();
    removeLevelTap();
    if (m_engine)
        m_engine->stop();
    withState([](StreamState &s) { s.hasStartedPlayback = false; });
    setCurrentTime(m_totalTime);
    raiseDisplayedTotalTime();
    if (m_errorAfterHeard)
        setCurrentError(std::exchange(m_errorAfterHeard, std::nullopt));
    Q_EMIT playbackEnded();
}

void SpeechManager::onBufferCompleted(quint64 generation)
{
    if (generation != m_bufferGeneration)
        return; // scheduled before a stop or seek
    const bool finished = withState(
        [](StreamState &s) { return --s.activeBuffersCount == 0 && !s.isStreamActive && !s.isSeeking; });
    if (finished)
        endOfPlayback();
}

void SpeechManager::togglePlayPause()
{
    if (m_seekDebounce.isActive()) {
        m_seekDebounce.stop();
        performPendingSeek();
    }
    if (!m_engine)
        return;
    if (m_isPlaying) {
        m_engine->pause();
        setIsPlaying(false);
        m_progressTimer.stop();
        return;
    }
    const auto [active, held] =
        withState([](StreamState &s) { return std::pair(s.activeBuffersCount, s.accumulatedData.size()); });
    // Nothing to play (stopped, failed before any audio, or audio still to come, which starts by itself).
    if (!m_hasContent || held == 0)
        return;
    if (active == 0) {
        // Played to the end: start again from the beginning.
        if (!ensureAudioEngine(true))
            return;
        m_engine->stop();
        m_currentFrameOffset = 0;
        setCurrentTime(0);
        scheduleAllFrom(0);
    }
    if (!ensureAudioEngine(true))
        return;
    m_engine->play();
    setIsPlaying(true);
    startProgressTimer();
    if (!m_isTapInstalled)
        installLevelTap();
    setCurrentError(std::nullopt);
}

void SpeechManager::stop()
{
    ++m_speakGeneration;
    m_errorAfterHeard.reset();
    m_seekDebounce.stop();
    m_pendingSeekFrame.reset();
    cancelCurrentTask();
    withState([](StreamState &s) { s.isSeeking = false; });
    ++m_bufferGeneration;
    withState([](StreamState &s) { s.activeBuffersCount = 0; });
    if (m_engine)
        m_engine->stop();
    m_progressTimer.stop();
    removeLevelTap();
    m_chunker.clear();
    withState([](StreamState &s) {
        s.accumulatedData.clear();
        s.receivedByteCount = 0;
        s.hasStartedPlayback = false;
    });
    m_currentFrameOffset = 0;
    setCurrentTime(0);
    setTotalTime(0);
    setDisplayedTotalTime(0);
    withState([](StreamState &s) { s.isStreamActive = false; });
    setIsPlaying(false);
    setIsProcessing(false);
    setHasContent(false);
    setCurrentPlayingSessionId(std::nullopt);
}

void SpeechManager::seekToFrame(qint64 frame)
{
    m_pendingSeekFrame = frame;
    const qint64 frames = accumulatedByteCount() / 2;
    setCurrentTime(double(std::clamp<qint64>(frame, 0, frames)) / kSampleRateHz);
    m_seekDebounce.start();
}

void SpeechManager::seekToProgress(double fraction)
{
    performSeek(qint64(double(accumulatedByteCount()) * 0.5 * fraction));
}

void SpeechManager::performPendingSeek()
{
    if (const std::optional<qint64> frame = std::exchange(m_pendingSeekFrame, std::nullopt))
        performSeek(*frame);
}

void SpeechManager::performSeek(qint64 frame)
{
    withState([](StreamState &s) { s.isSeeking = true; });
    const qint64 frames = accumulatedByteCount() / 2;
    const qint64 target = std::clamp<qint64>(frame, 0, frames);
    ++m_bufferGeneration;
    withState([](StreamState &s) { s.activeBuffersCount = 0; });
    if (m_engine)
        m_engine->stop();
    m_currentFrameOffset = target;
    setCurrentTime(double(target) / kSampleRateHz);
    if (target < frames) {
        scheduleAllFrom(target * 2);
        if (m_isPlaying && m_engine)
            m_engine->play(); // a paused narration stays paused at the new place
    } else {
        endOfPlayback();
    }
    withState([](StreamState &s) { s.isSeeking = false; });
    Q_EMIT seekPerformed(target);
}

void SpeechManager::cyclePlaybackSpeed()
{
    setPlaybackSpeed(nextPlaybackSpeed(m_playbackSpeed));
}

void SpeechManager::replayStoredAudio(const QByteArray &audio)
{
    stop();
    if (!ensureAudioEngine())
        return;
    withState([&](StreamState &s) {
        s.accumulatedData.assign(audio);
        s.receivedByteCount = audio.size();
    });
    const double total = double(audio.size() / 2) / kSampleRateHz;
    setTotalTime(total);
    setDisplayedTotalTime(total);
    setCurrentTime(0);
    m_currentFrameOffset = 0;
    setHasContent(true);
    scheduleAllFrom(0);
    m_engine->play();
    setIsPlaying(true);
    startProgressTimer();
    installLevelTap();
    setCurrentError(std::nullopt);
}

qint64 SpeechManager::currentPlaybackFrame() const
{
    const std::optional<qint64> heard = m_engine ? m_engine->sampleTime() : std::nullopt;
    return m_currentFrameOffset + heard.value_or(0);
}

void SpeechManager::skipBackward()
{
    seekToFrame(currentPlaybackFrame() - kSkipFrames);
}

void SpeechManager::skipForward()
{
    seekToFrame(currentPlaybackFrame() + kSkipFrames);
}

qsizetype SpeechManager::accumulatedByteCount() const
{
    return withState([](const StreamState &s) { return s.accumulatedData.size(); });
}

void SpeechManager::startProgressTimer()
{
    m_progressTimer.start();
}

void SpeechManager::updateProgress()
{
    setCurrentTime(double(currentPlaybackFrame()) / kSampleRateHz);
}

// ---------------------------------------------------------------------------------------------------
// Audio engine and levels

void SpeechManager::setupAudioEngine()
{
    m_engine = std::make_unique<AudioEngine>(std::move(m_services.audioSink));
    m_engine->setRate(m_playbackSpeed);
    connect(m_engine.get(), &AudioEngine::bufferCompleted, this, &SpeechManager::onBufferCompleted);
    connect(m_engine.get(), &AudioEngine::levelMeasured, this, &SpeechManager::onLevelMeasured);
    connect(m_engine.get(), &AudioEngine::failed, this, &SpeechManager::onEngineFailed);
    QString error;
    if (!m_engine->start(&error))
        setCurrentError(SpeechError::makeAudioEngineFailure(error));
}

bool SpeechManager::ensureAudioEngine(bool keepNarration)
{
    if (m_engine->isRunning())
        return true;
    QString error;
    if (m_engine->start(&error))
        return true;
    if (!keepNarration)
        stop();
    setCurrentError(SpeechError::makeAudioEngineFailure(error));
    return false;
}

void SpeechManager::onEngineFailed(const QString &reason)
{
    qCWarning(lcSpeech) << "audio output lost:" << reason;
    if (m_hasContent)
        holdAfterLostOutput();
    setCurrentError(SpeechError::makeAudioEngineFailure(reason));
}

// The sound server went away: the narration keeps its audio, place and record, and waits, paused, for
// the user to press play once a server is back. Nothing reconnects by itself, not even when more audio
// arrives.
void SpeechManager::holdAfterLostOutput()
{
    const qint64 heard = m_pendingSeekFrame.value_or(currentPlaybackFrame());
    m_seekDebounce.stop();
    m_pendingSeekFrame.reset();
    setIsPlaying(false);
    m_progressTimer.stop();
    removeLevelTap();
    // Queued again from the place heard, paused; what is still to come is queued after it.
    const qint64 frames = accumulatedByteCount() / 2;
    const qint64 target = std::clamp<qint64>(heard, 0, frames);
    const bool streaming = withState([](StreamState &s) {
        s.hasStartedPlayback = true;
        s.activeBuffersCount = 0;
        return s.isStreamActive;
    });
    ++m_bufferGeneration;
    m_engine->stop();
    m_currentFrameOffset = target;
    setCurrentTime(double(target) / kSampleRateHz);
    if (target < frames)
        scheduleAllFrom(target * 2);
    else if (!streaming)
        endOfPlayback();
}

void SpeechManager::installLevelTap()
{
    m_engine->setTapEnabled(true);
    m_isTapInstalled = true;
}

void SpeechManager::removeLevelTap()
{
    if (!m_isTapInstalled)
        return;
    m_engine->setTapEnabled(false);
    m_isTapInstalled = false;
}

void SpeechManager::onLevelMeasured(float level, double timestamp)
{
    if (m_rawAudioLevel != level) {
        m_rawAudioLevel = level;
        Q_EMIT rawAudioLevelChanged();
    }
    if (m_lastLevelTimestamp != timestamp) {
        m_lastLevelTimestamp = timestamp;
        Q_EMIT lastLevelTimestampChanged();
    }
    if (m_isPlaying) {
        const float smoothed = level * 0.3f + m_currentAudioLevel * 0.7f;
        if (smoothed != m_currentAudioLevel) {
            m_currentAudioLevel = smoothed;
            Q_EMIT currentAudioLevelChanged();
        }
    }
}

// ---------------------------------------------------------------------------------------------------
// Published values

void SpeechManager::setIsProcessing(bool v)
{
    if (assignIfChanged(m_isProcessing, v))
        Q_EMIT isProcessingChanged();
}

void SpeechManager::setIsPlaying(bool v)
{
    if (assignIfChanged(m_isPlaying, v))
        Q_EMIT isPlayingChanged();
}

void SpeechManager::setHasContent(bool v)
{
    if (assignIfChanged(m_hasContent, v))
        Q_EMIT hasContentChanged();
}

void SpeechManager::setCurrentTime(double v)
{
    if (assignIfChanged(m_currentTime, v))
        Q_EMIT currentTimeChanged();
}

void SpeechManager::setTotalTime(double v)
{
    if (assignIfChanged(m_totalTime, v))
        Q_EMIT totalTimeChanged();
}

void SpeechManager::setDisplayedTotalTime(double v)
{
    if (assignIfChanged(m_displayedTotalTime, v))
        Q_EMIT displayedTotalTimeChanged();
}

void SpeechManager::raiseDisplayedTotalTime()
{
    setDisplayedTotalTime(std::max(m_displayedTotalTime, m_totalTime));
}

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

void SpeechManager::setPlaybackSpeed(float speed)
{
    if (m_engine)
        m_engine->setRate(speed);
    if (m_playbackSpeed == speed)
        return;
    m_playbackSpeed = speed;
    Q_EMIT playbackSpeedChanged();
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
    const std::optional<QUrl> chosen =
        OpenAIServer::chosenServer(*m_services.defaults, m_services.openAIOriginFromEnvironment);
    m_catalog->refresh(chosen, chosen
                                   ? m_services.keychain->load(KeychainKey::openAIAPIKey).value_or(QString())
                                   : QString());
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
