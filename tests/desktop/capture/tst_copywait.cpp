// SPDX-License-Identifier: GPL-3.0-or-later
// The capture's copy wait on a real X server: over as soon as the application in front has taken the
// clipboard, and never longer than 0.1 s when it takes nothing.
#include "capture/TextCaptureManager.h"

#include "X11Desktop.h"

#include <QElapsedTimer>
#include <QFile>
#include <QGuiApplication>
#include <QTemporaryDir>
#include <QTest>

class TestCopyWait : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

private Q_SLOTS:
    void initTestCase()
    {
        if (QGuiApplication::platformName() != u"xcb")
            QSKIP("needs an X11 display: run inside scripts/rig.sh");
        QVERIFY(m_dir.isValid());
    }

    void waitEndsWhenTheCopyLands_data()
    {
        QTest::addColumn<bool>("selected");
        QTest::newRow("a selection") << true;
        QTest::newRow("no selection") << false;
    }

    void waitEndsWhenTheCopyLands()
    {
        QFETCH(bool, selected);
        const QString file = m_dir.filePath(QStringLiteral("copy%1.txt").arg(selected));
        const QByteArray text = "Copied in a few milliseconds.";
        {
            QFile f(file);
            QVERIFY(f.open(QIODevice::WriteOnly));
            f.write(text);
        }
        ChildProcess editor;
        QVERIFY2(!openInMousepad(editor, file).isEmpty(), "mousepad did not show a window");
        if (selected)
            xdotool({"key", "ctrl+a"});

        TextCaptureManager &capture = TextCaptureManager::shared();
        std::optional<QString> captured;
        QList<qint64> elapsed;
        for (int i = 0; i < 5; ++i) {
            QElapsedTimer timer;
            timer.start();
            captured = capture.captureSelectedText();
            elapsed << timer.elapsed();
        }
        std::sort(elapsed.begin(), elapsed.end());
        if (selected) {
            QCOMPARE(captured, std::optional(QString::fromUtf8(text)));
            QVERIFY2(elapsed[2] < 60, qPrintable(QStringLiteral("median %1 ms").arg(elapsed[2])));
        } else {
            QVERIFY(!captured || captured->isEmpty());
            QVERIFY2(elapsed.first() >= 100, qPrintable(QStringLiteral("%1 ms").arg(elapsed.first())));
        }
    }
};

QTEST_MAIN(TestCopyWait)
#include "tst_copywait.moc"
