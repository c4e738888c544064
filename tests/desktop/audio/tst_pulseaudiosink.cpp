// SPDX-License-Identifier: GPL-3.0-or-later
// The sink against a sound server that accepts the connection and then never answers: it gives up in
// its own time rather than hanging the narration.
#include "PulseServer.h"

#include "platform/pulse/PulseAudioSink.h"
#include "speech/AudioEngine.h"

#include <QDir>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

class TestPulseAudioSink : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        if (QStandardPaths::findExecutable(QStringLiteral("pulseaudio")).isEmpty())
            QSKIP("pulseaudio is not installed");
    }

    void unresponsiveServerDoesNotHang()
    {
        QTemporaryDir dir(QDir::tempPath() + QStringLiteral("/qv-pulse-XXXXXX"));
        PulseServer server(dir.path());
        QVERIFY(server.start());
        PulseServerEnvironment env(server.address());
        server.signal(SIGSTOP);

        AudioEngine engine(std::make_unique<PulseAudioSink>(1000));
        QString error;
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("audio output unavailable"));
        QVERIFY(!engine.start(&error));
        QVERIFY2(error.contains(QStringLiteral("did not answer")), qPrintable(error));
        QVERIFY(!engine.isRunning());

        server.signal(SIGCONT);
        QVERIFY2(engine.start(&error), qPrintable(error));
    }
};

QTEST_GUILESS_MAIN(TestPulseAudioSink)
#include "tst_pulseaudiosink.moc"
