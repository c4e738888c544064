// SPDX-License-Identifier: GPL-3.0-or-later
// Quillvox on KDE Plasma's Wayland session (kwin_wayland --virtual with XWayland and its desktop portal),
// started as the session starts it. The widget sits at the top centre above other windows and leaves
// the keyboard with the editor. KWin shares the clipboard but not the highlighted text, so
// `quillvox --narrate-selection` copies with keys pressed through the remote-desktop portal: the
// editor's selection reaches the speech server exactly, and the user's clipboard is back afterwards.
#include "DevServer.h"
#include "X11Desktop.h"

#include <QRegularExpression>

class TestKWinSession : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void copiesThroughThePortal()
    {
        if (const QString lack =
                desktopLacks({"kwin_wayland", "wl-copy", "dbus-run-session", "gnome-keyring-daemon"});
            !lack.isEmpty())
            QSKIP(qPrintable(lack));
        if (!QFile::exists(QStringLiteral("/usr/share/xdg-desktop-portal/portals/kde.portal")))
            QSKIP("xdg-desktop-portal-kde is not installed");

        const QString kKey = QStringLiteral("sk-kwin-1357");
        const QString selected = QStringLiteral("Selected in a KDE window, \u00e9t\u00e9 \u2014 ok.");
        const QString clipboard = QStringLiteral("The user's own clipboard.");
        DevServer server;
        QVERIFY2(server.start({"--pace", "0", "--openai-key", kKey}), qPrintable(server.errorString()));
        QTemporaryDir work;
        QVERIFY(work.isValid());

        QProcess session;
        QProcessEnvironment env = server.appEnvironment();
        env.insert(QStringLiteral("QUILLVOX_AUDIO_OUTPUT"), QStringLiteral("null"));
        session.setProcessEnvironment(env);
        session.start(QStringLiteral("dbus-run-session"),
                      {QStringLiteral("--"), QStringLiteral(QUILLVOX_KWIN_SESSION), work.path(),
                       QStringLiteral(QUILLVOX_EXECUTABLE), QStringLiteral(QUILLVOX_WAYLAND_EDITOR), selected,
                       clipboard});
        QVERIFY(session.waitForFinished(90000));
        const QString output = QString::fromUtf8(session.readAllStandardOutput());
        const auto logs = [&] {
            return QString::fromUtf8(
                session.readAllStandardError() +
                runProgram("tail", {"-n+1", work.filePath("app.log"), work.filePath("editor.log")}));
        };
        QVERIFY2(session.exitCode() == 0, qPrintable(logs()));

        const QList<QJsonObject> log = server.waitForRequests(1, std::chrono::seconds(10));
        QVERIFY2(log.size() == 1, qPrintable(logs()));
        QCOMPARE(DevServer::input(log.first()), selected);
        QVERIFY2(output.contains(QStringLiteral("clipboard<%1>").arg(clipboard)), qPrintable(output));

        // 1280 wide: the 340-pixel panel centred, 40 pixels below the top.
        QVERIFY2(output.contains(QStringLiteral("window Quillvox | x 470 y 40 | above true | active false")),
                 qPrintable(output));
        QVERIFY2(output.contains(QRegularExpression(QStringLiteral("window Editor \\| x .*active true"))),
                 qPrintable(output));
    }
};

QTEST_GUILESS_MAIN(TestKWinSession)
#include "tst_kwinsession.moc"
