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

QList<KeyEvent> stroke(QList<quint32> keys)
{
    QList<KeyEvent> events;
    for (const quint32 k : keys)
        events.append({k, true});
    std::reverse(keys.begin(), keys.end());
    for (const quint32 k : keys)
        events.append({k, false});
    return events;
}

// A focus object that answers input method queries like a text field.
class FakeEditor : public QObject
{
public:
    bool enabled = true;
    bool readOnly = false;
    Qt::InputMethodHints hints;
    QString selection;

    bool event(QEvent *event) override
    {
        if (event->type() != QEvent::InputMethodQuery)
            return QObject::event(event);
        auto *query = static_cast<QInputMethodQueryEvent *>(event);
        query->setValue(Qt::ImEnabled, enabled);
        query->setValue(Qt::ImReadOnly, readOnly);
        query->setValue(Qt::ImHints, int(hints));
        query->setValue(Qt::ImCurrentSelection, selection);
        query->accept();
        return true;
    }
};

class EditorWindow : public QWindow
{
public:
    FakeEditor editor;
    QObject *focusObject() const override { return const_cast<FakeEditor *>(&editor); }
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
    bool m_appCopiesWithShift = false;
    bool m_copyRequested = false;
    std::optional<QString> m_ownSelection;
    QStringList m_timeline;

    void makeManager(Availability availability = Availability::Available)
    {
        TextCaptureManager::Backends backends;
        auto keyboard = std::make_unique<NullKeyboardInjector>(availability);
        auto clipboard = std::make_unique<MemoryClipboard>();
        auto windows = std::make_unique<FixedWindowFocus>();
        m_keyboard = keyboard.get();
        m_clipboard = clipboard.get();
        m_windows = windows.get();
        backends.keyboard = std::move(keyboard);
        backends.clipboard = std::move(clipboard);
        backends.windows = std::move(windows);

        // The application sees the copy only when exactly its copy keys are down, as X delivers them: a
        // still-held Alt would make it Ctrl+Alt+C.
        m_keyboard->setReceiver([this](const KeyEvent &event, const QList<quint32> &held) {
            m_timeline.append(QStringLiteral("key"));
            QList<quint32> copyKeys{KEY_LEFTCTRL, KEY_C};
            if (m_appCopiesWithShift)
                copyKeys.insert(1, KEY_LEFTSHIFT);
            if (event.pressed && event.keyCode == KEY_C && held == copyKeys)
                m_copyRequested = true;
        });
        // The application answers while we wait.
        backends.sleep = [this](std::chrono::milliseconds duration) {
            m_timeline.append(u"sleep " + QString::number(duration.count()));
            if (m_copyRequested && m_appSelection)
                m_clipboard->setOwnerContent(Buffer::Clipboard, m_appSelection);
        };
        backends.ownSelection = [this] { return m_ownSelection; };
        m_manager = std::make_unique<TextCaptureManager>(std::move(backends));
    }

    void focus(const QString &instance, const QString &className, bool own = false)
    {
        m_windows->setFocusedWindow(FocusedWindow{instance, className, own});
    }

private Q_SLOTS:
    void init()
    {
        m_appSelection.reset();
        m_appCopiesWithShift = false;
        m_copyRequested = false;
        m_ownSelection.reset();
        m_timeline.clear();
    }

    void cleanup() { m_manager.reset(); }

    // Untrusted, the reason names what is missing, and nothing is touched: no key, no wait, no clipboard
    // read or change.
    void trust()
    {
        const std::pair<Availability, const char *> rows[] = {{Availability::Available, ""},
                                                              {Availability::WaylandSession, "Wayland"},
                                                              {Availability::NoDisplay, "X11 display"},
                                                              {Availability::NoXTest, "XTEST"}};
        for (const auto &[availability, mentions] : rows) {
            const bool trusted = availability == Availability::Available;
            m_timeline.clear();
            makeManager(availability);
            m_clipboard->setOwnerContent(Buffer::Clipboard, textContent("kept"));
            m_appSelection = textContent("selected");
            QSignalSpy explained(m_manager.get(), &TextCaptureManager::permissionExplanationRequested);

            QCOMPARE(m_manager->isProcessTrusted(false), trusted);
            QCOMPARE(explained.count(), 0);
            QCOMPARE(m_manager->isProcessTrusted(true), trusted);
            QCOMPARE(explained.count(), trusted ? 0 : 1);
            QCOMPARE(m_manager->untrustedReason().isEmpty(), trusted);
            if (!trusted) {
                QVERIFY(explained.at(0).at(0).toString().contains(QLatin1String(mentions)));
                QCOMPARE(explained.at(0).at(0).toString(), m_manager->untrustedReason());
            }
            QCOMPARE(m_manager->captureSelectedText(),
                     trusted ? std::optional(u"selected"_qs) : std::nullopt);
            QCOMPARE(m_timeline.isEmpty(), !trusted);
            QCOMPARE(m_clipboard->dataRequests().isEmpty(), !trusted);
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
        const ClipboardContent kept = textContent("kept");

        row("several kinds come back, meta and private targets left out", rich, textContent("picked"),
            u"picked"_qs, richKept);
        row("a clipboard nobody owned ends unowned", {}, textContent("picked"), u"picked"_qs, {});
        row("nothing selected: nothing read, clipboard as before", kept, {}, std::nullopt, kept);
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
        row("a password manager's secret comes back",
            content({{"UTF8_STRING", "hunter2-secret"}, {"x-kde-passwordManagerHint", "secret"}}),
            textContent("picked"), u"picked"_qs,
            content({{"UTF8_STRING", "hunter2-secret"}, {"x-kde-passwordManagerHint", "secret"}}));
        // Without a display nothing can be read: nothing is saved, so nothing is written back either.
        row("unreadable clipboard", kept, textContent("picked"), std::nullopt, textContent("picked"), false);
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
        focus(QStringLiteral("mousepad"), QStringLiteral("Mousepad"));
        m_keyboard->setHeldKeys({KEY_LEFTCTRL, KEY_LEFTALT, KEY_S});
        m_clipboard->setReadable(readable);
        m_clipboard->setOwnerContent(Buffer::Clipboard, owned(before));
        m_appSelection = owned(selection);

        QTEST(m_manager->captureSelectedText(), "text");
        QCOMPARE(m_clipboard->content(Buffer::Clipboard), owned(after));
        // Held keys are let go of first, then Ctrl+C; one wait, after the keys, and the clipboard is
        // read after it.
        const QList<KeyEvent> released = {{KEY_LEFTCTRL, false}, {KEY_LEFTALT, false}, {KEY_S, false}};
        QCOMPARE(m_keyboard->sentKeys(), released + stroke({KEY_LEFTCTRL, KEY_C}));
        QVERIFY(m_copyRequested);
        QCOMPARE(m_timeline.size(), 8);
        QCOMPARE(m_timeline.last(), QStringLiteral("sleep 100"));
        QVERIFY(m_keyboard->heldKeys().isEmpty());
        // Neither what the user had nor what was captured is ever logged.
        QVERIFY(!logged.join(u'\n').contains(u"hunter2") && !logged.join(u'\n').contains(u"picked"));
    }

    // Where the text comes from, by the focused window: our own text field is read directly, a
    // terminal is copied with its own shortcut or read from the primary selection.
    void focusedWindow()
    {
        struct Row
        {
            const char *instance, *className;
            bool own;
            std::optional<QString> ownSelection;
            const char *expected;
            QList<quint32> copyKeys;
        };
        const QList<quint32> none, copy{KEY_LEFTCTRL, KEY_C}, terminal{KEY_LEFTCTRL, KEY_LEFTSHIFT, KEY_C};
        const Row rows[] = {
            {"quillvox", "quillvox", true, u"in our field"_qs, "in our field", none},
            {"quillvox", "quillvox", true, QString(), "copied", copy},    // our caret without a selection
            {"quillvox", "quillvox", true, std::nullopt, "copied", copy}, // our window without an editor
            {"quillvox", "quillvox", false, u"in our field"_qs, "copied", copy}, // another application's
            {"mousepad", "Mousepad", false, std::nullopt, "copied", copy},
            {"", "", false, std::nullopt, "copied", copy}, // no WM_CLASS
            {"gnome-terminal-server", "Gnome-terminal", false, std::nullopt, "copied", terminal},
            // Either half of WM_CLASS may match, in any case.
            {"Alacritty", "Unknown", false, std::nullopt, "copied", terminal},
            {"xterm", "XTerm", false, std::nullopt, "primary", none},
            {"unknown", "URxvt", false, std::nullopt, "primary", none}};
        for (const Row &r : rows) {
            m_copyRequested = false;
            m_timeline.clear();
            makeManager();
            focus(QString::fromLatin1(r.instance), QString::fromLatin1(r.className), r.own);
            m_ownSelection = r.ownSelection;
            m_appCopiesWithShift = r.copyKeys.contains(KEY_LEFTSHIFT);
            m_appSelection = textContent("copied");
            m_clipboard->setOwnerContent(Buffer::Primary, textContent("primary"));
            m_clipboard->setOwnerContent(Buffer::Clipboard, textContent("kept"));

            QCOMPARE(m_manager->captureSelectedText(), std::optional(QString::fromLatin1(r.expected)));
            QCOMPARE(m_clipboard->content(Buffer::Clipboard), std::optional(textContent("kept")));
            // Read without copying: no key and no wait.
            QCOMPARE(m_keyboard->sentKeys(), r.copyKeys.isEmpty() ? QList<KeyEvent>{} : stroke(r.copyKeys));
            QCOMPARE(m_timeline.isEmpty(), r.copyKeys.isEmpty());
        }
    }

    // Our own focused field is read through the input method queries; never a password or other
    // sensitive field, and nothing that is no editor.
    void focusedEditorSelection()
    {
        EditorWindow window;
        window.editor.selection = QStringLiteral("picked");
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
            window.editor.enabled = enabled;
            window.editor.readOnly = readOnly;
            window.editor.hints = hints;
            QCOMPARE(TextCaptureManager::focusedEditorSelection(),
                     read ? std::optional(u"picked"_qs) : std::nullopt);
        }
    }

    // Which way of reading the selection a session gets, and what a session where none works is told.
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
        QTEST(capture.captureSelectedText().value_or(QString()), "captured");
        QCOMPARE(capture.untrustedReason(), explanation);
        QCOMPARE(explained.size(), explanation.isEmpty() ? 0 : 1);
    }
};

QTEST_MAIN(TestTextCaptureManager)
#include "tst_textcapturemanager.moc"
