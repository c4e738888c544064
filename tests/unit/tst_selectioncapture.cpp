// SPDX-License-Identifier: GPL-3.0-or-later
// Which way of reading the selection a session gets, and what a session where none works is told.
#include "capture/SelectionCapture.h"
#include "platform/gnome/GnomeShellExtension.h"
#include "platform/wayland/WaylandSelection.h"

#include <QSignalSpy>
#include <QTest>

using Support = WaylandSelection::Support;
using GnomeSupport = GnomeShellExtension::Support;

class TestSelectionCapture : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // A Wayland session, and what the compositor and the system offer: whether the selection can be read
    // there, and if not, why (every reason is explained).
    void waylandSupport()
    {
        struct Row
        {
            bool wayland, connected;
            quint32 wlrVersion;
            bool ext, reader, withheld;
            Support expected;
        };
        const Row rows[] = {
            {false, true, 2, false, true, false, Support::NotWayland},
            {true, false, 0, false, true, false, Support::CompositorUnreachable},
            {true, true, 0, false, true, false, Support::NoDataControl}, // GNOME
            {true, true, 1, false, true, false, Support::ClipboardOnly}, // KWin, clipboard only
            {true, true, 2, false, true, false, Support::Available},     // sway
            {true, true, 0, true, true, false, Support::Available},      // ext data-control
            {true, true, 2, false, true, true, Support::ClipboardOnly},  // KWin 5.27: no primary
            {true, true, 2, false, false, false, Support::NoReader}};    // sway without wl-paste
        for (const Row &r : rows) {
            const WaylandSelection::CompositorFacts facts{r.connected, r.wlrVersion, r.ext, r.withheld};
            QCOMPARE(WaylandSelection::decide(r.wayland, facts, r.reader), r.expected);
            QCOMPARE(WaylandSelection::explanation(r.expected).isEmpty(), r.expected == Support::Available);
        }
    }

    // GNOME on Wayland: what its Shell says of our extension. States as org.gnome.Shell.Extensions
    // reports them (-1: it knows no such extension).
    void gnomeSupport()
    {
        using G = GnomeSupport;
        const std::tuple<bool, bool, int, bool, GnomeSupport> rows[] = {
            {false, false, -1, true, G::NotGnome},     {true, true, 1, true, G::Available},
            {true, false, -1, false, G::NotInstalled}, {true, false, -1, true, G::NeedsRestart},
            {true, false, 2, true, G::NotEnabled},     {true, false, 6, true, G::NotEnabled},
            {true, false, 3, true, G::Failed},         {true, false, 4, true, G::Failed},
            {true, false, 1, true, G::Failed}}; // enabled, yet silent
        for (const auto &[gnomeWayland, serving, state, installed, expected] : rows) {
            GnomeShellExtension::ShellFacts facts{gnomeWayland, serving, std::nullopt, installed};
            if (state >= 0)
                facts.state = state;
            QCOMPARE(GnomeShellExtension::decide(facts), expected);
            QCOMPARE(GnomeShellExtension::explanation(expected).isEmpty(), expected == G::Available);
        }
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
