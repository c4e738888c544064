// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/MprisPlayer.h"

#include "core/AppEvents.h"
#include "core/Logging.h"
#include "records/HistoryManager.h"
#include "speech/FollowAlong.h"
#include "speech/SpeechManager.h"
#include "speech/VoiceStyle.h"

#include <QCoreApplication>
#include <QDBusAbstractAdaptor>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QTimer>

#include <cmath>

namespace {

const QString kObjectPath = QStringLiteral("/org/mpris/MediaPlayer2");
const QString kPlayerInterface = QStringLiteral("org.mpris.MediaPlayer2.Player");
const QString kNoTrack = QStringLiteral("/org/mpris/MediaPlayer2/TrackList/NoTrack");
constexpr double kMicroseconds = 1e6;

qlonglong toMicroseconds(double seconds)
{
    return qlonglong(std::llround(seconds * kMicroseconds));
}

QString titleOf(const QString &text)
{
    return text.simplified().left(MprisPlayer::kTitleCharacters);
}

} // namespace

class MprisRootAdaptor : public QDBusAbstractAdaptor
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.mpris.MediaPlayer2")
    Q_PROPERTY(bool CanQuit READ canQuit)
    Q_PROPERTY(bool CanRaise READ canRaise)
    Q_PROPERTY(bool HasTrackList READ hasTrackList)
    Q_PROPERTY(QString Identity READ identity)
    Q_PROPERTY(QString DesktopEntry READ desktopEntry)
    Q_PROPERTY(QStringList SupportedUriSchemes READ none)
    Q_PROPERTY(QStringList SupportedMimeTypes READ none)
public:
    explicit MprisRootAdaptor(QObject *object)
        : QDBusAbstractAdaptor(object)
    {}

    bool canQuit() const { return true; }
    bool canRaise() const { return true; }
    bool hasTrackList() const { return false; }
    QString identity() const { return QStringLiteral("Quillvox"); }
    QString desktopEntry() const { return QStringLiteral("com.vantor.Quillvox"); }
    QStringList none() const { return {}; }

public Q_SLOTS:
    // Our only window that a user raises is the settings window.
    void Raise() { Q_EMIT AppEvents::shared().openSettingsWindow(); }
    void Quit() { QTimer::singleShot(0, qApp, &QCoreApplication::quit); }
};

class MprisPlayerAdaptor : public QDBusAbstractAdaptor
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.mpris.MediaPlayer2.Player")
    Q_PROPERTY(QString PlaybackStatus READ playbackStatus)
    Q_PROPERTY(double Rate READ rate WRITE setRate)
    Q_PROPERTY(double MinimumRate READ minimumRate)
    Q_PROPERTY(double MaximumRate READ maximumRate)
    Q_PROPERTY(QVariantMap Metadata READ metadata)
    // Narration has no volume of its own: the desktop's mixer sets it.
    Q_PROPERTY(double Volume READ volume)
    Q_PROPERTY(qlonglong Position READ position)
    Q_PROPERTY(bool CanGoNext READ no)
    Q_PROPERTY(bool CanGoPrevious READ no)
    Q_PROPERTY(bool CanPlay READ canPlay)
    Q_PROPERTY(bool CanPause READ canPause)
    Q_PROPERTY(bool CanSeek READ canSeek)
    Q_PROPERTY(bool CanControl READ canControl)
public:
    explicit MprisPlayerAdaptor(MprisPlayer *player)
        : QDBusAbstractAdaptor(player)
        , m_player(*player)
    {
        connect(player, &MprisPlayer::seeked, this, &MprisPlayerAdaptor::Seeked);
    }

    QVariant property(const char *name) const
    {
        return m_player.playerProperties().value(QLatin1String(name));
    }
    QString playbackStatus() const { return property("PlaybackStatus").toString(); }
    double rate() const { return property("Rate").toDouble(); }
    void setRate(double rate)
    {
        // A rate of 0 means pause; any other picks the nearest speed we have.
        if (rate <= 0) {
            Pause();
            return;
        }
        const QList<float> &speeds = playbackSpeeds();
        const auto nearest = std::min_element(speeds.begin(), speeds.end(), [rate](float a, float b) {
            return std::abs(double(a) - rate) < std::abs(double(b) - rate);
        });
        speech().setPlaybackSpeed(*nearest);
    }
    double minimumRate() const { return MprisPlayer::kMinimumRate; }
    double maximumRate() const { return MprisPlayer::kMaximumRate; }
    QVariantMap metadata() const { return property("Metadata").toMap(); }
    double volume() const { return 1.0; }
    qlonglong position() const { return property("Position").toLongLong(); }
    bool no() const { return false; }
    bool canPlay() const { return property("CanPlay").toBool(); }
    bool canPause() const { return property("CanPause").toBool(); }
    bool canSeek() const { return property("CanSeek").toBool(); }
    bool canControl() const { return true; }

public Q_SLOTS:
    void Next() {}
    void Previous() {}
    void Pause()
    {
        if (speech().isPlaying())
            speech().togglePlayPause();
    }
    void PlayPause()
    {
        if (speech().hasContent() && !speech().isProcessing())
            speech().togglePlayPause();
    }
    void Stop() { speech().stop(); }
    void Play()
    {
        if (!speech().isPlaying() && speech().hasContent())
            speech().togglePlayPause();
    }
    void Seek(qlonglong offsetUs)
    {
        m_player.seekTo(speech().currentTime() + double(offsetUs) / kMicroseconds);
    }
    void SetPosition(const QDBusObjectPath &trackId, qlonglong positionUs)
    {
        // A position meant for an earlier narration, or outside this one, is ignored.
        if (!speech().hasContent() || trackId.path() != m_player.trackId() || positionUs < 0 ||
            double(positionUs) / kMicroseconds > speech().displayedTotalTime())
            return;
        m_player.seekTo(double(positionUs) / kMicroseconds);
    }
    void OpenUri(const QString &) {}

Q_SIGNALS:
    void Seeked(qlonglong position);

private:
    SpeechManager &speech() const { return m_player.speech(); }

    MprisPlayer &m_player;
};

MprisPlayer::MprisPlayer(SpeechManager &speech, const HistoryManager *history, QDBusConnection bus,
                         QObject *parent)
    : QObject(parent)
    , m_speech(speech)
    , m_history(history)
    , m_bus(std::move(bus))
{
    new MprisRootAdaptor(this);
    new MprisPlayerAdaptor(this);

    connect(&m_speech, &SpeechManager::hasContentChanged, this, [this] {
        m_atEnd = false;
        if (m_speech.hasContent())
            onContentLoaded();
    });
    connect(&m_speech, &SpeechManager::playbackEnded, this, [this] {
        m_atEnd = true;
        queuePublish();
    });
    connect(&m_speech, &SpeechManager::isPlayingChanged, this, [this] {
        // Played again from the end: it starts over, a jump clients hear of only through Seeked.
        if (m_speech.isPlaying() && std::exchange(m_atEnd, false))
            Q_EMIT seeked(0);
    });
    connect(&m_speech, &SpeechManager::seekPerformed, this, [this](qint64 frame) {
        m_atEnd = frame >= m_speech.accumulatedByteCount() / 2;
        Q_EMIT seeked(toMicroseconds(double(frame) / SpeechManager::kSampleRateHz));
        queuePublish();
    });
    for (auto signal : {&SpeechManager::isProcessingChanged, &SpeechManager::isPlayingChanged,
                        &SpeechManager::hasContentChanged, &SpeechManager::playbackSpeedChanged,
                        &SpeechManager::currentPlayingSessionIdChanged})
        connect(&m_speech, signal, this, &MprisPlayer::queuePublish);
    // The total grows with every piece of a stream, but the length is published only once the stream
    // has ended (then the narration is recorded as well).
    connect(&m_speech, &SpeechManager::totalTimeChanged, this, [this] {
        if (!m_speech.isStreamActive())
            queuePublish();
    });
    if (m_history) // a narration's length is known once it is recorded
        connect(m_history, &HistoryManager::sessionsChanged, this, &MprisPlayer::queuePublish);
    connect(m_speech.followAlong(), &FollowAlong::sentenceChanged, this, &MprisPlayer::queuePublish);
    m_published = playerProperties();
    m_published.remove(QStringLiteral("Position"));
}

MprisPlayer::~MprisPlayer()
{
    if (!m_name.isEmpty()) {
        m_bus.unregisterService(m_name);
        m_bus.unregisterObject(kObjectPath);
    }
}

QString MprisPlayer::busNameFor(bool defaultProfile, qint64 pid)
{
    QString name = QStringLiteral("org.mpris.MediaPlayer2.quillvox");
    if (!defaultProfile)
        name += QStringLiteral(".instance") + QString::number(pid);
    return name;
}

bool MprisPlayer::registerOnBus(const QString &name)
{
    if (!m_bus.isConnected() || !m_bus.registerObject(kObjectPath, this))
        return false;
    if (!m_bus.registerService(name)) {
        qCWarning(lcApp) << "cannot own" << name << m_bus.lastError().message();
        m_bus.unregisterObject(kObjectPath);
        return false;
    }
    m_name = name;
    return true;
}

QString MprisPlayer::playbackStatus(bool isProcessing, bool isPlaying, bool hasContent, bool atEnd)
{
    if (isProcessing || isPlaying)
        return QStringLiteral("Playing");
    if (hasContent && !atEnd)
        return QStringLiteral("Paused");
    return QStringLiteral("Stopped");
}

QString MprisPlayer::trackId() const
{
    if (!m_speech.hasContent() && !m_speech.isProcessing())
        return kNoTrack;
    return QStringLiteral("/com/vantor/Quillvox/Track/%1").arg(m_trackNumber);
}

void MprisPlayer::onContentLoaded()
{
    ++m_trackNumber;
    // A narration is generating when its audio is loaded; a replay or a sample plays what it has.
    m_trackIsNarration = m_speech.isProcessing();
    // A replay names its entry only after loading: described on the next turn.
    m_trackDescribed = false;
}

void MprisPlayer::describeTrack()
{
    if (std::exchange(m_trackDescribed, true))
        return;
    const std::optional<QUuid> replayed = m_speech.currentPlayingSessionId();
    if (replayed && m_history) {
        for (const NarrationSession &session : m_history->sessions()) {
            if (session.id == *replayed) {
                m_title = titleOf(session.text);
                m_artist = session.voice;
                return;
            }
        }
    }
    m_artist = m_speech.currentNarrationVoice().value_or(m_speech.selectedVoice());
    m_title = m_trackIsNarration ? titleOf(m_speech.lastSpokenText())
                                 : QStringLiteral("Voice sample (%1)").arg(m_artist);
}

QVariantMap MprisPlayer::playerProperties() const
{
    const SpeechManager &s = m_speech;
    const bool loaded = s.hasContent();
    QVariantMap metadata{{QStringLiteral("mpris:trackid"), QVariant::fromValue(QDBusObjectPath(trackId()))}};
    if (trackId() != kNoTrack) {
        metadata.insert(QStringLiteral("xesam:title"), m_title);
        metadata.insert(QStringLiteral("xesam:artist"), QStringList{m_artist});
        if (!s.isStreamActive() && s.totalTime() > 0)
            metadata.insert(QStringLiteral("mpris:length"), toMicroseconds(s.totalTime()));
        if (const QString sentence = s.followAlong()->sentence(); !sentence.isEmpty())
            metadata.insert(QStringLiteral("xesam:comment"), QStringList{sentence});
    }
    return {
        {QStringLiteral("PlaybackStatus"), playbackStatus(s.isProcessing(), s.isPlaying(), loaded, m_atEnd)},
        {QStringLiteral("Rate"), double(s.playbackSpeed())},
        {QStringLiteral("Metadata"), metadata},
        {QStringLiteral("Position"), toMicroseconds(s.currentTime())},
        {QStringLiteral("CanPlay"), loaded},
        {QStringLiteral("CanPause"), loaded},
        {QStringLiteral("CanSeek"), loaded},
    };
}

void MprisPlayer::seekTo(double seconds)
{
    if (!m_speech.hasContent())
        return;
    if (seconds > m_speech.displayedTotalTime()) {
        m_speech.stop();
        return;
    }
    m_speech.seekToFrame(qint64(std::max(0.0, seconds) * SpeechManager::kSampleRateHz));
}

void MprisPlayer::queuePublish()
{
    // Several values change in one step; one announcement carries them all.
    if (!std::exchange(m_publishQueued, true))
        QTimer::singleShot(0, this, &MprisPlayer::publishChanges);
}

void MprisPlayer::publishChanges()
{
    m_publishQueued = false;
    describeTrack();
    QVariantMap now = playerProperties();
    now.remove(QStringLiteral("Position")); // clients extrapolate it from Rate and Seeked
    QVariantMap changed;
    for (auto it = now.constBegin(); it != now.constEnd(); ++it) {
        if (m_published.value(it.key()) != it.value())
            changed.insert(it.key(), it.value());
    }
    m_published = now;
    if (changed.isEmpty() || !m_bus.isConnected())
        return;
    QDBusMessage signal = QDBusMessage::createSignal(
        kObjectPath, QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("PropertiesChanged"));
    signal << kPlayerInterface << changed << QStringList();
    m_bus.send(signal);
}

#include "MprisPlayer.moc"
