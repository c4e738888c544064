// SPDX-License-Identifier: GPL-3.0-or-later
// Narrating on sway: a Wayland client's highlighted text (wl-copy --primary stands in for an editor)
// reaches the speech server through `quillvox --narrate-selection`, which is what a sway user binds, and
// the clipboard stays as it was.
#include "AppUnderTest.h"

#include "account/KeychainHelper.h"

const QString kKey = QStringLiteral("sk-sway-2468");

class TestSwaySession : public QObject
{
    Q_OBJECT

    QTemporaryDir m_runtime{QDir::tempPath() + QStringLiteral("/qv-sway-XXXXXX")};
    DevServer m_server;
    ChildProcess m_sway;
    AppUnderTest m_app{AppUnderTest::Accessibility::Off};

private Q_SLOTS:
    void initTestCase()
    {
        const QString user = qEnvironmentVariable("RIG_WAYLAND_USER");
        if (user.isEmpty())
            QSKIP("needs the rig's unprivileged user for sway (RIG_WAYLAND_USER)");
        if (const QString lack = desktopLacks({"sway", "wl-copy", "wl-paste"}); !lack.isEmpty())
            QSKIP(qPrintable(lack));
        QVERIFY(m_runtime.isValid());
        const QString config = m_runtime.filePath(QStringLiteral("sway.conf"));
        QVERIFY(writeFile(config, "output HEADLESS-1 resolution 1280x800\n"));
        QCOMPARE(runProgram(QStringLiteral("chown"), {"-R", user, m_runtime.path()}), QByteArray());
        m_sway.startAs(user, m_runtime.path(),
                       {"WLR_BACKENDS=headless", "WLR_RENDERER=pixman", "WLR_LIBINPUT_NO_DEVICES=1", "sway",
                        "-c", config},
                       QStringLiteral("sway.log"));
        QStringList sockets;
        QTRY_VERIFY_WITH_TIMEOUT(
            !(sockets = QDir(m_runtime.path()).entryList({QStringLiteral("wayland-?")}, QDir::System))
                 .isEmpty(),
            15000);

        QVERIFY2(m_server.start({"--pace", "0", "--openai-key", kKey}), qPrintable(m_server.errorString()));
        QVERIFY(KeychainHelper::shared().save(kKey, KeychainKey::openAIAPIKey));
        AppUnderTest::setSettings({{"hasCompletedOnboarding", true}});

        m_app.useServer(m_server);
        m_app.env = waylandClient(m_app.env, m_runtime.filePath(sockets.first()));
        QVERIFY(m_app.start());
        qputenv("WAYLAND_DISPLAY", m_app.env.value("WAYLAND_DISPLAY").toUtf8()); // for wl-copy and wl-paste
        runProgram(QStringLiteral("wl-copy"), {"The user's clipboard."});
    }

    // Highlighted text is narrated as it stands; nothing highlighted sends nothing. The clipboard never
    // changes.
    void narratesTheHighlight_data()
    {
        QTest::addColumn<QString>("highlighted");
        QTest::newRow("highlighted") << QStringLiteral(
            "Highlighted in a Wayland window, \u00e9t\u00e9 \u2014 ok.");
        QTest::newRow("nothing highlighted") << QString();
    }
    void narratesTheHighlight()
    {
        QFETCH(QString, highlighted);
        const qsizetype before = m_server.requests().size();
        runProgram(QStringLiteral("wl-copy"), {"--primary", highlighted.isEmpty() ? "--clear" : highlighted});

        QCOMPARE(m_app.run({"--narrate-selection"}).exitCode, 0);
        if (highlighted.isEmpty()) {
            QTest::qWait(2000);
            QCOMPARE(m_server.requests().size(), before);
        } else {
            const QList<QJsonObject> log = m_server.waitForRequests(before + 1, std::chrono::seconds(10));
            QCOMPARE(log.size(), before + 1);
            QCOMPARE(DevServer::input(log.last()), highlighted);
        }
        QCOMPARE(runProgram(QStringLiteral("wl-paste"), {"--no-newline"}),
                 QByteArray("The user's clipboard."));
    }

    void cleanupTestCase()
    {
        m_app.stop();
        // runuser hands SIGTERM on to sway and waits for it.
        QVERIFY(m_sway.end());
    }
};

QTEST_GUILESS_MAIN(TestSwaySession)
#include "tst_swaysession.moc"
