// SPDX-License-Identifier: GPL-3.0-or-later
// Which way of reading the selection a session gets, and what a session where none works is told.
#include "capture/SelectionCapture.h"
#include "platform/gnome/GnomeShellExtension.h"
#include "platform/wayland/WaylandSelection.h"

#include <QSignalSpy>
#include <QTest>

using Support = WaylandSelection::Support;
Q_DECLARE_METATYPE(Support)
using GnomeSupport = GnomeShellExtension::Support;
Q_DECLARE_METATYPE(GnomeSupport)

class TestSelectionCapture : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void waylandSupport_data()
    {
        QTest::addColumn<bool>("wayland");
        QTest::addColumn<bool>("connected");
        QTest::addColumn<int>("wlrVersion");
        QTest::addColumn<bool>("ext");
        QTest::addColumn<bool>("reader");
        QTest::addColumn<bool>("withheld");
        QTest::addColumn<Support>("expected");
        QTest::newRow("x11 session") << false << true << 2 << false << true << false << Support::NotWayland;
        QTest::newRow("no compositor")
            << true << false << 0 << false << true << false << Support::CompositorUnreachable;
        QTest::newRow("gnome") << true << true << 0 << false << true << false << Support::NoDataControl;
        QTest::newRow("kwin, clipboard only")
            << true << true << 1 << false << true << false << Support::ClipboardOnly;
        QTest::newRow("sway") << true << true << 2 << false << true << false << Support::Available;
        QTest::newRow("ext data-control") << true << true << 0 << true << true << false << Support::Available;
        QTest::newRow("kwin 5.27, version 2 without primary")
            << true << true << 2 << false << true << true << Support::ClipboardOnly;
        QTest::newRow("sway without wl-paste")
            << true << true << 2 << false << false << false << Support::NoReader;
    }
    void waylandSupport()
    {
        QFETCH(bool, wayland);
        QFETCH(bool, connected);
        QFETCH(int, wlrVersion);
        QFETCH(bool, ext);
        QFETCH(bool, reader);
        QFETCH(bool, withheld);
        QFETCH(Support, expected);
        const WaylandSelection::CompositorFacts facts{connected, quint32(wlrVersion), ext, withheld};
        QCOMPARE(WaylandSelection::decide(wayland, facts, reader), expected);
        QCOMPARE(WaylandSelection::explanation(expected).isEmpty(), expected == Support::Available);
    }

    // GNOME on Wayland: what its Shell says of our extension. States as org.gnome.Shell.Extensions
    // reports them (-1: it knows no such extension).
    void gnomeSupport_data()
    {
        QTest::addColumn<bool>("gnomeWayland");
        QTest::addColumn<bool>("serving");
        QTest::addColumn<int>("state");
        QTest::addColumn<bool>("installed");
        QTest::addColumn<GnomeSupport>("expected");
        QTest::newRow("sway") << false << false << -1 << true << GnomeSupport::NotGnome;
        QTest::newRow("running") << true << true << 1 << true << GnomeSupport::Available;
        QTest::newRow("not installed") << true << false << -1 << false << GnomeSupport::NotInstalled;
        QTest::newRow("installed after login") << true << false << -1 << true << GnomeSupport::NeedsRestart;
        QTest::newRow("switched off") << true << false << 2 << true << GnomeSupport::NotEnabled;
        QTest::newRow("never switched on") << true << false << 6 << true << GnomeSupport::NotEnabled;
        QTest::newRow("error") << true << false << 3 << true << GnomeSupport::Failed;
        QTest::newRow("out of date") << true << false << 4 << true << GnomeSupport::Failed;
        QTest::newRow("enabled, yet silent") << true << false << 1 << true << GnomeSupport::Failed;
    }
    void gnomeSupport()
    {
        QFETCH(bool, gnomeWayland);
        QFETCH(bool, serving);
        QFETCH(int, state);
        QFETCH(bool, installed);
        QFETCH(GnomeSupport, expected);
        GnomeShellExtension::ShellFacts facts{gnomeWayland, serving, std::nullopt, installed};
        if (state >= 0)
            facts.state = state;
        QCOMPARE(GnomeShellExtension::decide(facts), expected);
        QCOMPARE(GnomeShellExtension::explanation(expected).isEmpty(), expected == GnomeSupport::Available);
    }

    // The first backend that works reads; with none, the first one's reason is the explanation.
    void firstUsableBackend_data()
    {
        QTest::addColumn<QStringList>("reasons");
        QTest::addColumn<QString>("captured");
        QTest::addColumn<QString>("explanation");
        QTest::newRow("first works") << QStringList{"", ""} << "backend 0"
                                     << "";
        QTest::newRow("second works") << QStringList{"no data-control", ""} << "backend 1"
                                      << "";
        QTest::newRow("none works") << QStringList{"no data-control", "no X11"} << ""
                                    << "no data-control";
    }
    void firstUsableBackend()
    {
        QFETCH(QStringList, reasons);
        QFETCH(QString, captured);
        QFETCH(QString, explanation);
        QList<CaptureBackend> backends;
        for (int i = 0; i < reasons.size(); ++i) {
            backends.append(
                {[reason = reasons[i]] { return reason; },
                 [i]() -> std::optional<QString> { return QStringLiteral("backend %1").arg(i); }});
        }
        SelectionCapture capture(backends);
        QSignalSpy explained(&capture, &SelectionCapture::permissionExplanationRequested);
        QCOMPARE(capture.isProcessTrusted(true), explanation.isEmpty());
        QCOMPARE(capture.captureSelectedText().value_or(QString()), captured);
        QCOMPARE(capture.untrustedReason(), explanation);
        QCOMPARE(explained.size(), explanation.isEmpty() ? 0 : 1);
    }
};

QTEST_GUILESS_MAIN(TestSelectionCapture)
#include "tst_selectioncapture.moc"
