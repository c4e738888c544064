// SPDX-License-Identifier: GPL-3.0-or-later
#include "capture/ClipboardTargets.h"
#include "capture/TerminalProfiles.h"
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
Q_DECLARE_METATYPE(std::optional<ClipboardContent>)

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
    }

    void untrustedTouchesNothing()
    {
        makeManager(Availability::WaylandSession);
        m_clipboard->setOwnerContent(Buffer::Clipboard, textContent("kept"));
        const int changes = m_clipboard->changeCount(Buffer::Clipboard);
        m_appSelection = textContent("selected");

        QCOMPARE(m_manager->captureSelectedText(), std::nullopt);
        QCOMPARE(m_clipboard->changeCount(Buffer::Clipboard), changes);
        QVERIFY(m_clipboard->dataRequests().isEmpty());
        QVERIFY(m_keyboard->sentKeys().isEmpty());
        QVERIFY(m_timeline.isEmpty());
    }

    void copyAndRestore_data()
    {
        QTest::addColumn<std::optional<ClipboardContent>>("before");
        QTest::addColumn<std::optional<ClipboardContent>>("selection");
        QTest::addColumn<std::optional<QString>>("text");
        QTest::addColumn<std::optional<ClipboardContent>>("after");

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
                     {"STRING", "bold\nline"}});
        const ClipboardContent richKept = content({{"text/html", "<b>bold</b>"},
                                                   {"UTF8_STRING", "bold\nline"},
                                                   {"text/plain;charset=utf-8", "bold\r\nline"},
                                                   {"image/png", QByteArray("\x89PNG\r\n\x1a\n\0\0\0", 11)},
                                                   {"COMPOUND_TEXT", "bold\nline"},
                                                   {"STRING", "bold\nline"}});
        const auto none = std::optional<ClipboardContent>();
        const auto noText = std::optional<QString>();

        QTest::newRow("several kinds come back, meta and private targets left out")
            << std::optional(rich) << std::optional(textContent("picked")) << std::optional(u"picked"_qs)
            << std::optional(richKept);
        QTest::newRow("a clipboard nobody owned ends unowned")
            << none << std::optional(textContent("picked")) << std::optional(u"picked"_qs) << none;
        QTest::newRow("nothing selected: nothing read, clipboard as before")
            << std::optional(textContent("kept")) << none << noText << std::optional(textContent("kept"));
        QTest::newRow("only non-text copied")
            << std::optional(textContent("kept")) << std::optional(content({{"image/png", "PNG"}})) << noText
            << std::optional(textContent("kept"));
        QTest::newRow("spaces are text")
            << none << std::optional(textContent("   ")) << std::optional(u"   "_qs) << none;
        QTest::newRow("empty text is text")
            << none << std::optional(textContent("")) << std::optional(QString()) << none;
        QTest::newRow("UTF8_STRING wins over CRLF text/plain")
            << none
            << std::optional(content({{"text/plain;charset=utf-8", "a\r\nb"}, {"UTF8_STRING", "a\nb"}}))
            << std::optional(u"a\nb"_qs) << none;
        QTest::newRow("CRLF kept when it is all there is")
            << none << std::optional(content({{"text/plain;charset=utf-8", "a\r\nb\r\n"}}))
            << std::optional(u"a\r\nb\r\n"_qs) << none;
        QTest::newRow("STRING is Latin-1")
            << none << std::optional(content({{"STRING", "caf\xe9"}})) << std::optional(u"café"_qs) << none;
        QTest::newRow("UTF-8 as delivered")
            << none << std::optional(content({{"UTF8_STRING", "\xc3\xa9t\xc3\xa9 \xe2\x80\x94"}}))
            << std::optional(u"été —"_qs) << none;
    }

    void copyAndRestore()
    {
        QFETCH(std::optional<ClipboardContent>, before);
        QFETCH(std::optional<ClipboardContent>, selection);
        QFETCH(std::optional<QString>, text);
        QFETCH(std::optional<ClipboardContent>, after);

        makeManager();
        focus(QStringLiteral("mousepad"), QStringLiteral("Mousepad"));
        m_clipboard->setOwnerContent(Buffer::Clipboard, before);
        m_appSelection = selection;

        const std::optional<QString> captured = m_manager->captureSelectedText();
        QCOMPARE(captured.has_value(), text.has_value());
        if (text)
            QCOMPARE(*captured, *text);
        QCOMPARE(m_clipboard->content(Buffer::Clipboard), after);
        QVERIFY(m_copyRequested);
    }

    // Held keys are let go of first, then Ctrl+C; the clipboard is read only after the wait.
    void keysAndWait()
    {
        makeManager();
        m_keyboard->setHeldKeys({KEY_LEFTCTRL, KEY_LEFTALT, KEY_S});
        m_appSelection = textContent("picked");

        QCOMPARE(m_manager->captureSelectedText(), std::optional(u"picked"_qs));

        QList<KeyEvent> expected = {{KEY_LEFTCTRL, false}, {KEY_LEFTALT, false}, {KEY_S, false}};
        expected += stroke({KEY_LEFTCTRL, KEY_C});
        QCOMPARE(m_keyboard->sentKeys(), expected);
        QCOMPARE(m_timeline.size(), expected.size() + 1);
        QCOMPARE(m_timeline.last(), QStringLiteral("sleep 100"));
        QVERIFY(m_keyboard->heldKeys().isEmpty());
    }

    void unreadableClipboardIsNotRestored()
    {
        makeManager();
        m_clipboard->setReadable(false);
        m_appSelection = textContent("picked");
        const int changes = m_clipboard->changeCount(Buffer::Clipboard);

        QCOMPARE(m_manager->captureSelectedText(), std::nullopt);
        // Cleared once, then the application's copy; nothing was saved, so nothing is written back.
        QCOMPARE(m_clipboard->changeCount(Buffer::Clipboard), changes + 2);
        QCOMPARE(m_clipboard->content(Buffer::Clipboard), std::optional(textContent("picked")));
    }

    void ownWindow_data()
    {
        QTest::addColumn<bool>("ownWindow");
        QTest::addColumn<std::optional<QString>>("ownSelection");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<bool>("copied");

        QTest::newRow("our field's selection, no keys")
            << true << std::optional(u"in our field"_qs) << "in our field" << false;
        QTest::newRow("caret without selection still copies")
            << true << std::optional(QString()) << "copied" << true;
        QTest::newRow("no editor still copies") << true << std::optional<QString>() << "copied" << true;
        QTest::newRow("another application's window")
            << false << std::optional(u"in our field"_qs) << "copied" << true;
    }

    void ownWindow()
    {
        QFETCH(bool, ownWindow);
        QFETCH(std::optional<QString>, ownSelection);
        QFETCH(QString, expected);
        QFETCH(bool, copied);

        makeManager();
        focus(QStringLiteral("quillvox"), QStringLiteral("quillvox"), ownWindow);
        m_ownSelection = ownSelection;
        m_appSelection = textContent("copied");
        m_clipboard->setOwnerContent(Buffer::Clipboard, textContent("kept"));
        const int changes = m_clipboard->changeCount(Buffer::Clipboard);

        QCOMPARE(m_manager->captureSelectedText(), std::optional(expected));
        QCOMPARE(!m_keyboard->sentKeys().isEmpty(), copied);
        QCOMPARE(m_clipboard->changeCount(Buffer::Clipboard) != changes, copied);
        QCOMPARE(m_clipboard->content(Buffer::Clipboard), std::optional(textContent("kept")));
    }

    void terminals_data()
    {
        QTest::addColumn<QString>("instance");
        QTest::addColumn<QString>("className");
        QTest::addColumn<int>("method");

        using M = TerminalProfiles::CopyMethod;
        const auto row = [](const char *name, const char *instance, const char *className, M method) {
            QTest::newRow(name) << QString::fromLatin1(instance) << QString::fromLatin1(className)
                                << int(method);
        };
        row("text editor", "mousepad", "Mousepad", M::CopyShortcut);
        row("browser", "Navigator", "firefox", M::CopyShortcut);
        row("no WM_CLASS", "", "", M::CopyShortcut);
        row("GNOME Terminal", "gnome-terminal-server", "Gnome-terminal", M::TerminalCopyShortcut);
        // Either half of WM_CLASS may match, in any case.
        row("instance alone, other case", "Alacritty", "Unknown", M::TerminalCopyShortcut);
        row("xterm", "xterm", "XTerm", M::PrimarySelection);
        row("class alone, other case", "unknown", "URxvt", M::PrimarySelection);
    }

    void terminals()
    {
        QFETCH(QString, instance);
        QFETCH(QString, className);
        QFETCH(int, method);

        using M = TerminalProfiles::CopyMethod;
        QCOMPARE(int(TerminalProfiles::copyMethod(instance, className)), method);

        makeManager();
        focus(instance, className);
        m_appCopiesWithShift = method == int(M::TerminalCopyShortcut);
        m_appSelection = textContent("ls -l");
        m_clipboard->setOwnerContent(Buffer::Primary, textContent("ls -l"));
        m_clipboard->setOwnerContent(Buffer::Clipboard, textContent("kept"));
        const int changes = m_clipboard->changeCount(Buffer::Clipboard);

        QCOMPARE(m_manager->captureSelectedText(), std::optional(u"ls -l"_qs));
        QCOMPARE(m_clipboard->content(Buffer::Clipboard), std::optional(textContent("kept")));
        switch (M(method)) {
        case M::CopyShortcut:
            QCOMPARE(m_keyboard->sentKeys(), stroke({KEY_LEFTCTRL, KEY_C}));
            break;
        case M::TerminalCopyShortcut:
            QCOMPARE(m_keyboard->sentKeys(), stroke({KEY_LEFTCTRL, KEY_LEFTSHIFT, KEY_C}));
            break;
        case M::PrimarySelection:
            QVERIFY(m_keyboard->sentKeys().isEmpty());
            QCOMPARE(m_clipboard->changeCount(Buffer::Clipboard), changes);
            QVERIFY(m_timeline.isEmpty());
            break;
        }
    }

    void secretsAreRestoredButNeverLogged()
    {
        const ClipboardContent secret =
            content({{"UTF8_STRING", "hunter2-secret"}, {"x-kde-passwordManagerHint", "secret"}});
        LogCapture log;
        makeManager();
        m_clipboard->setOwnerContent(Buffer::Clipboard, secret);
        m_appSelection = textContent("narrated words");

        QCOMPARE(m_manager->captureSelectedText(), std::optional(u"narrated words"_qs));
        QCOMPARE(m_clipboard->content(Buffer::Clipboard), std::optional(secret));
        QVERIFY(!LogCapture::all().contains(u"hunter2"));
        QVERIFY(!LogCapture::all().contains(u"narrated words"));
    }

    void restorableTargets_data()
    {
        QTest::addColumn<QString>("target");
        QTest::addColumn<bool>("restorable");

        for (const char *meta :
             {"TARGETS", "TIMESTAMP", "MULTIPLE", "SAVE_TARGETS", "DELETE", "INSERT_SELECTION"})
            QTest::newRow(meta) << meta << false;
        QTest::newRow("GTK's in-process buffer") << "GTK_TEXT_BUFFER_CONTENTS" << false;
        QTest::newRow("polymorphic TEXT") << "TEXT" << false;
        for (const char *data :
             {"UTF8_STRING", "STRING", "COMPOUND_TEXT", "text/plain", "text/html", "image/png",
              "text/uri-list", "application/x-gtk-text-buffer-rich-text", "x-kde-passwordManagerHint"})
            QTest::newRow(data) << data << true;
    }

    void restorableTargets()
    {
        QFETCH(QString, target);
        QFETCH(bool, restorable);
        QCOMPARE(ClipboardTargets::isRestorable(target), restorable);
    }

    void plainTextTarget_data()
    {
        QTest::addColumn<QStringList>("targets");
        QTest::addColumn<std::optional<QString>>("chosen");

        QTest::newRow("UTF8_STRING first")
            << QStringList{"STRING", "text/plain", "UTF8_STRING"} << std::optional(u"UTF8_STRING"_qs);
        QTest::newRow("charset variant next")
            << QStringList{"STRING", "text/plain", "text/plain;charset=utf-8"}
            << std::optional(u"text/plain;charset=utf-8"_qs);
        QTest::newRow("plain text") << QStringList{"STRING", "text/plain"} << std::optional(u"text/plain"_qs);
        QTest::newRow("Latin-1 last") << QStringList{"TEXT", "STRING"} << std::optional(u"STRING"_qs);
        QTest::newRow("no text") << QStringList{"image/png", "text/html", "TARGETS"}
                                 << std::optional<QString>();
    }

    void plainTextTarget()
    {
        QFETCH(QStringList, targets);
        QFETCH(std::optional<QString>, chosen);
        QCOMPARE(ClipboardTargets::plainTextTarget(targets), chosen);
    }

    void focusedEditorSelection_data()
    {
        QTest::addColumn<bool>("enabled");
        QTest::addColumn<bool>("readOnly");
        QTest::addColumn<int>("hints");
        QTest::addColumn<std::optional<QString>>("expected");

        QTest::newRow("text field") << true << false << int(Qt::ImhNone) << std::optional(u"picked"_qs);
        QTest::newRow("read-only text") << false << true << int(Qt::ImhNone) << std::optional(u"picked"_qs);
        QTest::newRow("password field")
            << true << false << int(Qt::ImhHiddenText) << std::optional<QString>();
        QTest::newRow("sensitive field")
            << true << false << int(Qt::ImhSensitiveData) << std::optional<QString>();
        QTest::newRow("not an editor") << false << false << int(Qt::ImhNone) << std::optional<QString>();
    }

    void focusedEditorSelection()
    {
        QFETCH(bool, enabled);
        QFETCH(bool, readOnly);
        QFETCH(int, hints);
        QFETCH(std::optional<QString>, expected);

        EditorWindow window;
        window.editor.enabled = enabled;
        window.editor.readOnly = readOnly;
        window.editor.hints = Qt::InputMethodHints(hints);
        window.editor.selection = QStringLiteral("picked");
        window.show();
        window.requestActivate();
        QVERIFY(QTest::qWaitForWindowActive(&window));
        QCOMPARE(TextCaptureManager::focusedEditorSelection(), expected);
    }
};

QTEST_MAIN(TestTextCaptureManager)
#include "tst_textcapturemanager.moc"
