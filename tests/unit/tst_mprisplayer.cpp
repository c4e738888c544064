// SPDX-License-Identifier: GPL-3.0-or-later
// What media controls are told: the playback status for each published state, and the track (id, title,
// artist) of a narration, a history replay and a voice sample, on a real speech controller with the null
// sink and no bus.
#include "app/MprisPlayer.h"

#include "account/KeychainHelper.h"
#include "core/UserDefaults.h"
#include "platform/null/MemorySecretStore.h"
#include "platform/null/NullAudioSink.h"
#include "records/HistoryManager.h"
#include "speech/NarrationServices.h"
#include "speech/SpeechManager.h"

#include <QDBusObjectPath>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

namespace {

class HistoryRecords final : public NarrationRecords
{
public:
    explicit HistoryRecords(HistoryManager &history)
        : m_history(history)
    {}
    void addSession(const QString &, const QString &, double, const QByteArray &) override {}
    QString audioFile(const QUuid &id) const override { return m_history.audioFile(id); }
    void recordUsage(qint64) override {}

private:
    HistoryManager &m_history;
};

} // namespace

class TestMprisPlayer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Processing, playing, content, at the end: the status media controls show.
    void playbackStatus()
    {
        const std::tuple<bool, bool, bool, bool, const char *> rows[] = {
            {false, false, false, false, "Stopped"}, // nothing loaded
            {true, false, true, false, "Playing"},   // generating
            {true, false, false, false, "Playing"},  // generating, asking the service
            {false, true, true, false, "Playing"},   {false, false, true, false, "Paused"},
            {false, false, true, true, "Stopped"}}; // played to the end
        for (const auto &[processing, playing, content, atEnd, status] : rows)
            QCOMPARE(MprisPlayer::playbackStatus(processing, playing, content, atEnd),
                     QString::fromLatin1(status));
    }

    // Each narration, replay and voice sample is a track of its own, named by its text and by the voice
    // that speaks it, whatever is selected now; with nothing loaded there is no track and no seeking.
    void trackPerNarrationReplayAndSample()
    {
        QTemporaryDir dir;
        UserDefaults defaults(dir.filePath("q.conf"));
        HistoryManager history(defaults, dir.filePath("History"));
        const QString kept = QStringLiteral("A narration kept in the history, replayed later from there.");
        history.addSession(kept, QStringLiteral("cedar"), 1, QByteArray(48000, 0));
        HistoryRecords records(history);
        KeychainHelper keychain("test", std::make_unique<MemorySecretStore>());
        QVERIFY(keychain.save("sk-test\n", KeychainKey::openAIAPIKey));
        NoAccount account;
        NoSelection selection;
        SpeechManager speech({.defaults = &defaults,
                              .keychain = &keychain,
                              .account = &account,
                              .records = &records,
                              .selection = &selection,
                              .audioSink = std::make_unique<NullAudioSink>(),
                              .serviceOrigin = {},
                              .openAIOrigin = QUrl("http://127.0.0.1:9"), // refused, later
                              .openAIOriginFromEnvironment = true});
        MprisPlayer player(speech, &history, QDBusConnection(QStringLiteral("no bus")));
        const auto metadata = [&] { return player.playerProperties().value("Metadata").toMap(); };
        const auto trackId = [&] {
            return metadata().value("mpris:trackid").value<QDBusObjectPath>().path();
        };
        const auto title = [&] { return metadata().value("xesam:title").toString(); };
        const auto artist = [&] { return metadata().value("xesam:artist").toStringList().join(u','); };
        const QString noTrack = QStringLiteral("/org/mpris/MediaPlayer2/TrackList/NoTrack");
        QCOMPARE(trackId(), noTrack);
        QCOMPARE(player.playerProperties().value("CanSeek").toBool(), false);

        const QString text = QStringLiteral(
            "This narration is longer than a title,   and only its first sixty characters name it.");
        speech.setSelectedVoice(QStringLiteral("marin"));
        speech.speak(text);
        QVERIFY(speech.isProcessing());
        speech.setSelectedVoice(QStringLiteral("echo"));
        QTRY_COMPARE(title(), QStringLiteral("This narration is longer than a title, and only its first si"));
        QCOMPARE(artist(), "marin");
        const QString narration = trackId();
        QVERIFY(narration != noTrack);

        speech.playFromHistory(history.sessions().constFirst().id);
        QTRY_COMPARE(title(), kept.left(60));
        QCOMPARE(artist(), "cedar");
        QCOMPARE(metadata().value("mpris:length").toLongLong(), 1000000);
        const QString replay = trackId();
        QVERIFY(replay != narration && replay != noTrack);

        speech.playVoicePreview(QStringLiteral("alloy"));
        QTRY_COMPARE(artist(), "alloy");
        QVERIFY(trackId() != replay && trackId() != narration && trackId() != noTrack);

        speech.stop();
        QCOMPARE(trackId(), noTrack);
        QSignalSpy seeks(&speech, &SpeechManager::seekPerformed);
        player.seekTo(0.5);
        QTest::qWait(150); // past the seek's debounce
        QCOMPARE(seeks.count(), 0);
    }
};

QTEST_GUILESS_MAIN(TestMprisPlayer)
#include "tst_mprisplayer.moc"
