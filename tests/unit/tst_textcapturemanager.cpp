// SPDX-License-Identifier: GPL-3.0-or-later
#include "capture/SelectionCapture.h"
#include "capture/TextCaptureManager.h"
#include "platform/gnome/GnomeShellExtension.h"
#include "platform/null/input/FixedWindowFocus.h"
#include "platform/null/input/MemoryClipboard.h"
#include "platform/null/input/NullKeyboardInjector.h"
#include "platform/wayland/WaylandSelection.h"

#include <QInputMethodQueryEvent>
#include <QLoggingCategory>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QTest>
#include <QWindow>

#include <ranges>

#include <linux/input-event-codes.h>

Q_DECLARE_METATYPE(std::optional<QString>)

namespace {

using Buffer = SystemClipboard::Buffer;
using Availability = KeyboardInjector::Availability;
using KeyEvent = NullKeyboardInjector::KeyEvent;
using Support = WaylandSelection::Support;
using GnomeSupport = GnomeShellExtension::Support;

ClipboardContent content(std::initializer_list<std::pair<const char *, QByteArray>> entries)
{
    ClipboardContent c;
    for (const auto &[target, bytes] : entries)
        c.append({QString::fromLatin1(target), bytes});
    return c;
}

ClipboardContent textContent(const QByteArray &utf8)
{
    return content({{"UTF8_STRING", utf8}, {"text/plain;charset=utf-8", utf8}});
}

std::optional<ClipboardContent> owned(const ClipboardContent &c)
{
    return c.isEmpty() ? std::nullopt : std::optional(c);
}

QList<KeyEvent> stroke(const QList<quint32> &keys)
{
    QList<KeyEvent> events;
    for (const quint32 k : keys)
        events.append({k, true});
    for (const quint32 k : keys | std::views::reverse)
        events.append({k, false});
    return events;
}

// A window whose focus object answers input method queries like a text field.
class EditorWindow : public QWindow
{
public:
    bool enabled = true, readOnly = false;
    Qt::InputMethodHints hints;

    QObject *focusObject() const override { return const_cast<EditorWindow *>(this); }
    bool event(QEvent *event) override
    {
        if (event->type() != QEvent::InputMethodQuery)
            return QWindow::event(event);
        auto *query = static_cast<QInputMethodQueryEvent *>(event);
        query->setValue(Qt::ImEnabled, enabled);
        query->setValue(Qt::ImReadOnly, readOnly);
        query->setValue(Qt::ImHints, int(hints));
        query->setValue(Qt::ImCurrentSelection, u"picked"_qs);
        query->accept();
        return true;
    }
};

} // namespace

class TestTextCaptureManager : public QObject
{
    Q_OBJECT

private:
    // Owned by the manager.
    NullKeyboardInjector *m_keyboard = nullptr;
    MemoryClipboard *m_clipboard = nullptr;
    FixedWindowFocus *m_windows = nullptr;
    std::unique_ptr<TextCaptureManager> m_manager;

    // The focused application: what it copies, and on which keys.
    std::optional<ClipboardContent> m_appSelection;
    QList<quint32> m_copyKeys;
    bool m_copyRequested = false;
    std::optional<QString> m_ownSelection;
    QStringList m_timeline;

    // A manager on fresh backends, the application's side starting over.
    void makeManager(Availability availability = Availability::Available)
    {
        m_appSelection.reset();
        m_copyKeys = {KEY_LEFTCTRL, KEY_C};
        m_copyRequested = false;
        m_ownSelection.reset();
        m_timeline.clear();
        auto keyboard = std::make_unique<NullKeyboardInjector>(availability);
        auto clipboard = std::make_unique<MemoryClipboard>();
        auto windows = std::make_unique<FixedWindowFocus>();
        m_keyboard = keyboard.get();
        m_clipboard = clipboard.get();
        m_windows = windows.get();
        // The application sees the copy only when exactly its copy keys are down, as X delivers them: a
        // still-held Alt would make it Ctrl+Alt+C.
        m_keyboard->setReceiver([this](const KeyEvent &event, const QList<quint32> &held) {
            m_timeline.append(QStringLiteral("key"));
            m_copyRequested |= event.pressed && event.keyCode == KEY_C && held == m_copyKeys;
        });
        m_manager = std::make_unique<TextCaptureManager>(TextCaptureManager::Backends{
            std::move(keyboard), std::move(clipboard), std::move(windows),
            [this](std::chrono::milliseconds duration) { // the application answers while we wait
                m_timeline.append(u"sleep " + QString::number(duration.count()));
                if (m_copyRequested && m_appSelection)
                    m_clipboard->setOwnerContent(Buffer::Clipboard, m_appSelection);
            },
            [this] { return m_ownSelection; }});
    }

private Q_SLOTS:
    void cleanup() { m_manager.reset(); }

    // Untrusted, the reason names what is missing, and nothing is touched: no key, no wait, no clipboard
    // read or change. A Wayland session's reason: tst_settingsdesktop.
    void trust()
    {
        const std::pair<Availability, const char *> rows[] = {{Availability::Available, ""},
                                                              {Availability::NoDisplay, "X11 display"},
                                                              {Availability::NoXTest, "XTEST"}};
        for (const auto &[availability, mentions] : rows) {
            const bool trusted = availability == Availability::Available;
            makeManager(availability);
            m_clipboard->setOwnerContent(Buffer::Clipboard, textContent("kept"));
            m_appSelection = textContent("selected");
            QSignalSpy explained(m_manager.get(), &TextCaptureManager::permissionExplanationRequested);
            QCOMPARE(m_manager->isProcessTrusted(false), trusted);
            QCOMPARE(explained.count(), 0);
            QCOMPARE(m_manager->isProcessTrusted(true), trusted);
            QCOMPARE(explained.count(), trusted ? 0 : 1);
            // Trusted, no reason: what no explanation carries.
            QVERIFY(m_manager->untrustedReason().contains(QLatin1String(mentions)));
            QCOMPARE(explained.value(0).value(0).toString(), m_manager->untrustedReason());
            QCOMPARE(m_manager->captureSelectedText(),
                     trusted ? std::optional(u"selected"_qs) : std::nullopt);
            QCOMPARE(std::pair(m_timeline.isEmpty(), m_clipboard->dataRequests().isEmpty()),
                     std::pair(!trusted, !trusted));
            QCOMPARE(m_clipboard->content(Buffer::Clipboard), std::optional(textContent("kept")));
        }
    }

    void copyAndRestore_data()
    {
        // Empty content: nobody owns the clipboard, or the application copies nothing.
        QTest::addColumn<ClipboardContent>("before");
        QTest::addColumn<ClipboardContent>("selection");
        QTest::addColumn<std::optional<QString>>("text");
        QTest::addColumn<ClipboardContent>("after");
        QTest::addColumn<bool>("readable");
        const auto row = [](const char *name, const ClipboardContent &before,
                            const ClipboardContent &selection, const std::optional<QString> &text,
                            const ClipboardContent &after, bool readable = true) {
            QTest::newRow(name) << before << selection << text << after << readable;
        };
        // Every target a rich editor offers, and whether it comes back.
        const std::tuple<const char *, QByteArray, bool> offered[] = {
            {"TIMESTAMP", "\x01\x02\x03\x04", false},
            {"TARGETS", "....", false},
            {"MULTIPLE", "", false},
            {"SAVE_TARGETS", "", false},
            {"text/html", "<b>bold</b>", true},
            {"UTF8_STRING", "bold\nline", true},
            {"text/plain;charset=utf-8", "bold\r\nline", true},
            {"GTK_TEXT_BUFFER_CONTENTS", "\x10\x20\x30\x40\x50\x60\x70\x80", false},
            {"image/png", QByteArray("\x89PNG\r\n\x1a\n\0\0\0", 11), true},
            {"COMPOUND_TEXT", "bold\nline", true},
            {"TEXT", "bold\nline", false},
            {"STRING", "bold\nline", true}};
        ClipboardContent rich, richKept;
        for (const auto &[target, bytes, kept] : offered) {
            rich.append({QString::fromLatin1(target), bytes});
            if (kept)
                richKept.append(rich.last());
        }
        const ClipboardContent kept = textContent("kept"), picked = textContent("picked");
        const ClipboardContent secret =
            content({{"UTF8_STRING", "hunter2-secret"}, {"x-kde-passwordManagerHint", "secret"}});
        row("several kinds come back, meta and private targets left out", rich, picked, u"picked"_qs,
            richKept);
        row("a clipboard nobody owned ends unowned", {}, picked, u"picked"_qs, {});
        // Nothing selected (no old clipboard read as the selection): tst_x11session.
        row("only non-text copied", kept, content({{"image/png", "PNG"}}), std::nullopt, kept);
        row("spaces are text", {}, textContent("   "), u"   "_qs, {});
        row("empty text is text", {}, textContent(""), QString(), {});
        row("UTF8_STRING wins over CRLF text/plain", {},
            content({{"text/plain;charset=utf-8", "a\r\nb"}, {"UTF8_STRING", "a\nb"}}), u"a\nb"_qs, {});
        row("text/plain;charset=utf-8 wins over text/plain", {},
            content({{"text/plain", "a"}, {"text/plain;charset=utf-8", "b"}}), u"b"_qs, {});
        row("text/plain wins over STRING", {}, content({{"STRING", "a"}, {"text/plain", "b"}}), u"b"_qs, {});
        row("CRLF kept when it is all there is", {}, content({{"text/plain;charset=utf-8", "a\r\nb\r\n"}}),
            u"a\r\nb\r\n"_qs, {});
        row("STRING is Latin-1", {}, content({{"STRING", "caf\xe9"}}), u"café"_qs, {});
        row("a password manager's secret comes back", secret, picked, u"picked"_qs, secret);
        // Without a display nothing can be read: nothing is saved, so nothing is written back either.
        row("unreadable clipboard", kept, picked, std::nullopt, picked, false);
        row("UTF-8 as delivered", {}, content({{"UTF8_STRING", "\xc3\xa9t\xc3\xa9 \xe2\x80\x94"}}),
            u"été —"_qs, {});
    }

    void copyAndRestore()
    {
        QFETCH(ClipboardContent, before);
        QFETCH(ClipboardContent, selection);
        QFETCH(ClipboardContent, after);
        QFETCH(bool, readable);
        static QStringList logged;
        logged.clear();
        QLoggingCategory::setFilterRules(QStringLiteral("quillvox.*=true"));
        const QtMessageHandler previous = qInstallMessageHandler(
            [](QtMsgType, const QMessageLogContext &, const QString &message) { logged.append(message); });
        const auto restore = qScopeGuard([previous] {
            qInstallMessageHandler(previous);
            QLoggingCategory::setFilterRules(QString());
        });
        makeManager();
        m_windows->setFocusedWindow(FocusedWindow{u"mousepad"_qs, u"Mousepad"_qs, false});
        m_keyboard->setHeldKeys({KEY_LEFTCTRL, KEY_LEFTALT, KEY_S});
        m_clipboard->setReadable(readable);
        m_clipboard->setOwnerContent(Buffer::Clipboard, owned(before));
        m_appSelection = owned(selection);

        QTEST(m_manager->captureSelectedText(), "text");
        QCOMPARE(m_clipboard->content(Buffer::Clipboard), owned(after));
        // Held keys are let go of first (none is left held), then Ctrl+C; one wait, after the keys, and the
        // clipboard is read after it.
        const QList<KeyEvent> released = {{KEY_LEFTCTRL, false}, {KEY_LEFTALT, false}, {KEY_S, false}};
        QCOMPARE(m_keyboard->sentKeys(), released + stroke({KEY_LEFTCTRL, KEY_C}));
        QCOMPARE(m_timeline, QStringList(7, u"key"_qs) << u"sleep 100"_qs);
        // Neither what the user had nor what was captured is ever logged.
        QVERIFY(!logged.join(u'\n').contains(u"hunter2") && !logged.join(u'\n').contains(u"picked"));
    }

    // Where the text comes from, by the focused window: our own text field is read directly, a
    // terminal is copied with its own shortcut or read from the primary selection.
    void focusedWindow()
    {
        const QList<quint32> none, copy{KEY_LEFTCTRL, KEY_C}, terminal{KEY_LEFTCTRL, KEY_LEFTSHIFT, KEY_C};
        // The window's instance and class, whether it is ours, what our own field has selected: the text
        // read, the keys that copied it.
        const std::tuple<QString, QString, bool, std::optional<QString>, QString, QList<quint32>> rows[] = {
            {"quillvox", "quillvox", true, u"in our field"_qs, "in our field", none},
            {"quillvox", "quillvox", true, QString(), "copied", copy},    // our caret without a selection
            {"quillvox", "quillvox", true, std::nullopt, "copied", copy}, // our window without an editor
            {"quillvox", "quillvox", false, u"in our field"_qs, "copied", copy}, // another application's
            {"mousepad", "Mousepad", false, std::nullopt, "copied", copy},
            {"", "", false, std::nullopt, "copied", copy}, // no WM_CLASS
            {"gnome-terminal-server", "Gnome-terminal", false, std::nullopt, "copied", terminal},
            {"Alacritty", "Unknown", false, std::nullopt, "copied", terminal}, // either half, in any case
            {"xterm", "XTerm", false, std::nullopt, "primary", none},
            {"unknown", "URxvt", false, std::nullopt, "primary", none}};
        for (const auto &[instance, className, own, ownSelection, expected, copyKeys] : rows) {
            makeManager();
            m_windows->setFocusedWindow(FocusedWindow{instance, className, own});
            m_ownSelection = ownSelection;
            m_copyKeys = copyKeys;
            m_appSelection = textContent("copied");
            m_clipboard->setOwnerContent(Buffer::Primary, textContent("primary"));
            m_clipboard->setOwnerContent(Buffer::Clipboard, textContent("kept"));
            QCOMPARE(m_manager->captureSelectedText(), std::optional(expected));
            QCOMPARE(m_clipboard->content(Buffer::Clipboard), std::optional(textContent("kept")));
            // Read without copying: no key and no wait.
            QCOMPARE(m_keyboard->sentKeys(), stroke(copyKeys));
            QCOMPARE(m_timeline.isEmpty(), copyKeys.isEmpty());
        }
    }

    // Our own focused field is read through the input method queries; never a password or other
    // sensitive field, and nothing that is no editor.
    void focusedEditorSelection()
    {
        EditorWindow window;
        window.show();
        window.requestActivate();
        QVERIFY(QTest::qWaitForWindowActive(&window));
        const std::tuple<bool, bool, Qt::InputMethodHint, bool> rows[] = {
            {true, false, Qt::ImhNone, true},
            {false, true, Qt::ImhNone, true}, // read-only text
            {true, false, Qt::ImhHiddenText, false},
            {true, false, Qt::ImhSensitiveData, false},
            {false, false, Qt::ImhNone, false}};
        for (const auto &[enabled, readOnly, hints, read] : rows) {
            std::tie(window.enabled, window.readOnly, window.hints) = std::tuple(enabled, readOnly, hints);
            QCOMPARE(TextCaptureManager::focusedEditorSelection(),
                     read ? std::optional(u"picked"_qs) : std::nullopt);
        }
    }

    // Which way of reading the selection a session gets, and what a session where none works is told.
    // A Wayland session, and what the compositor and the system offer (connected, wlr data-control
    // version, ext data-control, a reader, primary withheld): whether the selection can be read there,
    // and if not, why (every reason is explained). Sway's own case, wlr data-control 2: tst_swaysession;
    // KWin 5.27's, which withholds the primary selection: tst_kwinsession.
    void waylandSupport()
    {
        const std::tuple<bool, bool, quint32, bool, bool, bool, Support> rows[] = {
            {false, true, 2, false, true, false, Support::NotWayland},
            {true, false, 0, false, true, false, Support::CompositorUnreachable},
            {true, true, 0, false, true, false, Support::NoDataControl}, // GNOME
            {true, true, 1, false, true, false, Support::ClipboardOnly}, // KWin, clipboard only
            {true, true, 0, true, true, false, Support::Available},      // ext data-control
            {true, true, 2, false, false, false, Support::NoReader}};    // sway without wl-paste
        for (const auto &[wayland, connected, wlrVersion, ext, reader, withheld, expected] : rows) {
            QCOMPARE(WaylandSelection::decide(wayland, {connected, wlrVersion, ext, withheld}, reader),
                     expected);
            QCOMPARE(WaylandSelection::explanation(expected).isEmpty(), expected == Support::Available);
        }
    }

    // GNOME on Wayland: what its Shell says of our extension. States as org.gnome.Shell.Extensions
    // reports them (-1: it knows no such extension). Serving, it is used: tst_gnomeshellsession.
    void gnomeSupport()
    {
        using G = GnomeSupport;
        // The last: enabled, yet silent.
        const std::tuple<bool, bool, int, bool, GnomeSupport> rows[] = {
            {false, false, -1, true, G::NotGnome},    {true, false, -1, false, G::NotInstalled},
            {true, false, -1, true, G::NeedsRestart}, {true, false, 2, true, G::NotEnabled},
            {true, false, 6, true, G::NotEnabled},    {true, false, 3, true, G::Failed},
            {true, false, 4, true, G::Failed},        {true, false, 1, true, G::Failed}};
        for (const auto &[gnomeWayland, serving, state, installed, expected] : rows) {
            GnomeShellExtension::ShellFacts facts{gnomeWayland, serving, std::nullopt, installed};
            if (state >= 0)
                facts.state = state;
            QCOMPARE(GnomeShellExtension::decide(facts), expected);
            QCOMPARE(GnomeShellExtension::explanation(expected).isEmpty(), expected == G::Available);
        }
    }

    // The first backend that works reads; with none, the first one's reason is the explanation. The
    // backends' reasons ("": it works): what is read, the explanation.
    void firstUsableBackend()
    {
        const std::tuple<QStringList, QString, QString> rows[] = {
            {{"", ""}, "backend 0", ""},
            {{"no data-control", ""}, "backend 1", ""},
            {{"no data-control", "no X11"}, "", "no data-control"}};
        for (const auto &[reasons, captured, explanation] : rows) {
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
    }
};

QTEST_MAIN(TestTextCaptureManager)
#include "tst_textcapturemanager.moc"
