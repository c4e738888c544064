// SPDX-License-Identifier: GPL-3.0-or-later
#include "capture/TextCaptureManager.h"
#include "platform/null/input/FixedWindowFocus.h"
#include "platform/null/input/MemoryClipboard.h"
#include "platform/null/input/NullKeyboardInjector.h"

#include <QInputMethodQueryEvent>
#include <QLoggingCategory>
#include <QSignalSpy>
#include <QTest>
#include <QWindow>

#include <linux/input-event-codes.h>

Q_DECLARE_METATYPE(std::optional<QString>)

namespace {

using Buffer = SystemClipboard::Buffer;
using Availability = KeyboardInjector::Availability;
using KeyEvent = NullKeyboardInjector::KeyEvent;

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

// Messages logged while it exists.
class LogCapture
{
public:
    LogCapture()
    {
        s_messages.clear();
        QLoggingCategory::setFilterRules(QStringLiteral("quillvox.*=true"));
        m_previous = qInstallMessageHandler([](QtMsgType, const QMessageLogContext &,
                                               const QString &message) { s_messages.append(message); });
    }
    ~LogCapture()
    {
        qInstallMessageHandler(m_previous);
        QLoggingCategory::setFilterRules(QString());
    }
    static QString all() { return s_messages.join(u'\n'); }

private:
    static inline QStringList s_messages;
    QtMessageHandler m_previous = nullptr;
};

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

    void trust_data()
    {
        QTest::addColumn<Availability>("availability");
        QTest::addColumn<bool>("trusted");
        QTest::addColumn<QString>("mentions");

        QTest::newRow("X11 with XTEST") << Availability::Available << true << QString();
        QTest::newRow("Wayland session") << Availability::WaylandSession << false << "Wayland";
        QTest::newRow("no display") << Availability::NoDisplay << false << "X11 display";
        QTest::newRow("no XTEST") << Availability::NoXTest << false << "XTEST";
    }

    void trust()
    {
        QFETCH(Availability, availability);
        QFETCH(bool, trusted);
        QFETCH(QString, mentions);

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
            QVERIFY(explained.at(0).at(0).toString().contains(mentions));
            QCOMPARE(explained.at(0).at(0).toString(), m_manager->untrustedReason());
        }

        // Untrusted, nothing is touched: no key, no wait, no clipboard read or change.
        QCOMPARE(m_manager->captureSelectedText(), trusted ? std::optional(u"selected"_qs) : std::nullopt);
        QCOMPARE(m_timeline.isEmpty(), !trusted);
        QCOMPARE(m_clipboard->dataRequests().isEmpty(), !trusted);
        QCOMPARE(m_clipboard->content(Buffer::Clipboard), std::optional(textContent("kept")));
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
        const ClipboardContent rich =
            content({{"TIMESTAMP", "\x01\x02\x03\x04"},
                     {"TARGETS", "...."},
                     {"MULTIPLE", ""},
                     {"SAVE_TARGETS", ""},
                     {"text/html", "<b>bold</b>"},
                     {"UTF8_STRING", "bold\nline"},
                     {"text/plain;charset=utf-8", "bold\r\nline"},
                     {"GTK_TEXT_BUFFER_CONTENTS", "\x10\x20\x30\x40\x50\x60\x70\x80"},
                     {"image/png", QByteArray("\x89PNG\r\n\x1a\n\0\0\0", 11)},
                     {"COMPOUND_TEXT", "bold\nline"},
                     {"TEXT", "bold\nline"},
                     {"STRING", "bold\nline"}});
        ClipboardContent richKept = rich;
        richKept.removeIf([](const auto &entry) {
            return QStringList{"TIMESTAMP", "TARGETS", "MULTIPLE", "SAVE_TARGETS", "GTK_TEXT_BUFFER_CONTENTS",
                               "TEXT"}
                .contains(entry.first);
        });
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
        QFETCH(std::optional<QString>, text);
        QFETCH(ClipboardContent, after);
        QFETCH(bool, readable);

        LogCapture log;
        makeManager();
        focus(QStringLiteral("mousepad"), QStringLiteral("Mousepad"));
        m_keyboard->setHeldKeys({KEY_LEFTCTRL, KEY_LEFTALT, KEY_S});
        m_clipboard->setReadable(readable);
        m_clipboard->setOwnerContent(Buffer::Clipboard, owned(before));
        m_appSelection = owned(selection);

        QCOMPARE(m_manager->captureSelectedText(), text);
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
        QVERIFY(!LogCapture::all().contains(u"hunter2"));
        QVERIFY(!LogCapture::all().contains(u"picked"));
    }

    // Where the text comes from, by the focused window: our own text field is read directly, a
    // terminal is copied with its own shortcut or read from the primary selection.
    void focusedWindow_data()
    {
        QTest::addColumn<QString>("instance");
        QTest::addColumn<QString>("className");
        QTest::addColumn<bool>("own");
        QTest::addColumn<std::optional<QString>>("ownSelection");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<QList<quint32>>("copyKeys");

        const QList<quint32> none, copy{KEY_LEFTCTRL, KEY_C}, terminal{KEY_LEFTCTRL, KEY_LEFTSHIFT, KEY_C};
        const auto row = [](const char *name, const char *instance, const char *className, bool own,
                            const std::optional<QString> &ownSelection, const char *expected,
                            const QList<quint32> &keys) {
            QTest::newRow(name) << QString::fromLatin1(instance) << QString::fromLatin1(className) << own
                                << ownSelection << QString::fromUtf8(expected) << keys;
        };
        row("our field's selection", "quillvox", "quillvox", true, u"in our field"_qs, "in our field", none);
        row("our caret without selection", "quillvox", "quillvox", true, QString(), "copied", copy);
        row("our window without an editor", "quillvox", "quillvox", true, std::nullopt, "copied", copy);
        row("another application's window", "quillvox", "quillvox", false, u"in our field"_qs, "copied",
            copy);
        row("text editor", "mousepad", "Mousepad", false, std::nullopt, "copied", copy);
        row("no WM_CLASS", "", "", false, std::nullopt, "copied", copy);
        row("GNOME Terminal", "gnome-terminal-server", "Gnome-terminal", false, std::nullopt, "copied",
            terminal);
        // Either half of WM_CLASS may match, in any case.
        row("instance alone, other case", "Alacritty", "Unknown", false, std::nullopt, "copied", terminal);
        row("xterm", "xterm", "XTerm", false, std::nullopt, "primary", none);
        row("class alone, other case", "unknown", "URxvt", false, std::nullopt, "primary", none);
    }

    void focusedWindow()
    {
        QFETCH(QString, instance);
        QFETCH(QString, className);
        QFETCH(bool, own);
        QFETCH(std::optional<QString>, ownSelection);
        QFETCH(QString, expected);
        QFETCH(QList<quint32>, copyKeys);

        makeManager();
        focus(instance, className, own);
        m_ownSelection = ownSelection;
        m_appCopiesWithShift = copyKeys.contains(KEY_LEFTSHIFT);
        m_appSelection = textContent("copied");
        m_clipboard->setOwnerContent(Buffer::Primary, textContent("primary"));
        m_clipboard->setOwnerContent(Buffer::Clipboard, textContent("kept"));

        QCOMPARE(m_manager->captureSelectedText(), std::optional(expected));
        QCOMPARE(m_clipboard->content(Buffer::Clipboard), std::optional(textContent("kept")));
        // Read without copying: no key and no wait.
        QCOMPARE(m_keyboard->sentKeys(), copyKeys.isEmpty() ? QList<KeyEvent>{} : stroke(copyKeys));
        QCOMPARE(m_timeline.isEmpty(), copyKeys.isEmpty());
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
};

QTEST_MAIN(TestTextCaptureManager)
#include "tst_textcapturemanager.moc"
