// SPDX-License-Identifier: GPL-3.0-or-later
// The tray item as a desktop panel sees it: a StatusNotifierWatcher with a host on the rig's bus before
// the app starts, the item read over org.kde.StatusNotifierItem and its menu read and clicked over
// com.canonical.dbusmenu, mousepad holding the selection that "Narrate Selection" reads aloud.
#include "AppUnderTest.h"
#include "TrayItemReader.h"

#include <QDBusConnectionInterface>

#include <optional>

const QString kSentence =
    QStringLiteral("The tray menu reads this sentence aloud from the editor, one word after another.");
const QString kIdleIcon = QStringLiteral("com.vantor.Quillvox-symbolic");
const QString kPlayingIcon = QStringLiteral("com.vantor.Quillvox-playing-symbolic");

class TestTray : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    StatusNotifierWatcher m_watcher;
    DevServer m_server;
    ChildProcess m_editor;
    QByteArray m_editorWindow;
    AppUnderTest m_app{AppUnderTest::Accessibility::Off};
    std::optional<TrayItemReader> m_item;

private Q_SLOTS:
    void initTestCase()
    {
        if (const QString lack = desktopLacks(); !lack.isEmpty())
            QSKIP(qPrintable(lack));
        QVERIFY(m_dir.isValid());
        // The host is there before the app asks for one; the app asks only once.
        QVERIFY2(m_watcher.start(), qPrintable(m_watcher.errorString()));
        QVERIFY2(m_server.start({"--synth", "sine"}), qPrintable(m_server.errorString()));

        m_app.useServer(m_server);
        m_app.env.insert(QStringLiteral("QUILLVOX_APPCAST_URL"), m_server.url().toString());
        // Own-key mode, onboarding done: the app starts straight into normal operation.
        QCOMPARE(m_app.storeKey(), QString());
        AppUnderTest::setSettings({{"hasCompletedOnboarding", true}});

        m_editorWindow = openInMousepad(m_editor, m_dir.filePath("tray.txt"), kSentence.toUtf8());
        QVERIFY(!m_editorWindow.isEmpty());
        xdotool({"key", "ctrl+a"});

        QVERIFY(m_app.start());
        QTRY_COMPARE_WITH_TIMEOUT(m_watcher.items().size(), 1, 15000);
        m_item.emplace(m_watcher.items().first());
    }

    void itemBelongsToTheAppAndExportsItsMenu()
    {
        const StatusNotifierWatcher::Item item = m_watcher.items().first();
        const QDBusReply<uint> pid = QDBusConnection::sessionBus().interface()->servicePid(item.service);
        QVERIFY2(pid.isValid(), qPrintable(pid.error().message()));
        QCOMPARE(qint64(pid.value()), m_app.process().processId());
        QCOMPARE(m_item->property(QStringLiteral("Status")), QVariant(QStringLiteral("Active")));
    }

    // A themed name for panels that recolour it, pictures for those that draw them, a left click that
    // opens the menu, and the menu while idle.
    void iconAndClickAsPanelsUseThem()
    {
        QCOMPARE(m_item->iconName(), kIdleIcon);
        QCOMPARE(m_item->pixmapSizes(), (QList<QSize>{{16, 16}, {22, 22}, {24, 24}, {32, 32}}));
        QCOMPARE(m_item->property(QStringLiteral("ItemIsMenu")), QVariant(true));
        QCOMPARE(m_item->toolTip(), QStringLiteral("Quillvox"));
        QCOMPARE(
            m_item->shownMenu().join(u'|'),
            QStringLiteral("Narrate Selection\tControl+Alt+S|Expand Widget|-|[Pause Narration]|[Stop "
                           "Narration]|-|Check for Updates...|About Quillvox|-|Settings...|-|Quit Quillvox"));
    }

    void narrateSelectionReadsTheEditor()
    {
        xdotool({"windowactivate", "--sync", QString::fromLatin1(m_editorWindow)});
        QVERIFY(m_item->click(QStringLiteral("Narrate Selection")));

        QTRY_COMPARE_WITH_TIMEOUT(m_item->iconName(), kPlayingIcon, 15000);
        QCOMPARE(m_item->pixmapSizes().size(), 4);
        QVERIFY2(m_item->toolTip().startsWith(u"Quillvox\n" + kSentence.left(60) + u"…\n0:0"),
                 qPrintable(m_item->toolTip()));
        // Neither a second narration nor the widget's expansion is offered while one plays, and no
        // separator stands for them.
        QCOMPARE(m_item->shownMenu().join(u'|'),
                 QStringLiteral("Pause Narration|Stop Narration|-|Check for Updates...|About "
                                "Quillvox|-|Settings...|-|Quit Quillvox"));

        // The middle button pauses and plays on.
        QVERIFY(m_item->call(QStringLiteral("SecondaryActivate")));
        QTRY_COMPARE(m_item->iconName(), kIdleIcon);
        QCOMPARE(m_item->toolTip(), QStringLiteral("Quillvox"));
        QVERIFY(m_item->call(QStringLiteral("SecondaryActivate")));
        QTRY_COMPARE(m_item->iconName(), kPlayingIcon);

        // The request's log line is written when its response ends.
        QVERIFY(m_item->click(QStringLiteral("Stop Narration")));
        QTRY_COMPARE_WITH_TIMEOUT(m_item->iconName(), kIdleIcon, 5000);
        const QList<QJsonObject> log = m_server.waitForRequests(1);
        QCOMPARE(log.size(), 1);
        QCOMPARE(log.first().value("path").toString(), "/v1/audio/speech");
        QCOMPARE(DevServer::input(log.first()), kSentence);
    }

    void quitEndsTheProcess()
    {
        QVERIFY(m_item->click(QStringLiteral("Quit Quillvox")));
        QVERIFY2(m_app.process().waitForFinished(10000), "the app still runs 10 s after Quit");
        QCOMPARE(m_app.process().exitStatus(), QProcess::NormalExit);
        QCOMPARE(m_app.process().exitCode(), 0);
        QTRY_COMPARE(m_watcher.items().size(), 0);
    }
};

QTEST_GUILESS_MAIN(TestTray)
#include "tst_tray.moc"
