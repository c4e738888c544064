// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/SystemClipboard.h"
#include "speech/NarrationServices.h"

#include <QObject>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

class KeyboardInjector;
class WindowFocus;

// Obtains the text the user has selected in the focused window, so that it can be narrated: by copying
// it with a synthetic Ctrl+C and reading the CLIPBOARD, while keeping whatever the user had on the
// clipboard. Our own focused text field is read directly, terminals are copied without Ctrl+C.
// Never shows anything and never reports an error: it answers with the text or with nothing.
// GUI thread only; a capture blocks the thread for the copy wait.
class TextCaptureManager : public QObject, public SelectionSource
{
    Q_OBJECT

public:
    using Sleeper = std::function<void(std::chrono::milliseconds)>;
    // The selection of our own focused text editor; nothing when there is none.
    using OwnSelectionReader = std::function<std::optional<QString>()>;

    struct Backends
    {
        std::unique_ptr<KeyboardInjector> keyboard;
        std::unique_ptr<SystemClipboard> clipboard;
        std::unique_ptr<WindowFocus> windows;
        Sleeper sleep;                   // none: sleeps the calling thread
        OwnSelectionReader ownSelection; // none: asks the focused object of this application
    };

    // How long the application in front gets to answer the copy.
    static constexpr std::chrono::milliseconds kCopyWait{100};

    explicit TextCaptureManager(Backends backends, QObject *parent = nullptr);
    ~TextCaptureManager() override;

    // The process-wide instance on this session's backends, created on first use.
    static TextCaptureManager &shared();

    // True on an X11 session whose server has the XTEST extension. With `prompt`, a false answer also
    // explains what is missing: logged, and handed to the user interface through
    // permissionExplanationRequested.
    bool isProcessTrusted(bool prompt) override;
    std::optional<QString> captureSelectedText() override;

    // Why selections cannot be read in this session; empty when they can.
    Q_INVOKABLE QString untrustedReason() const;

    // The selection of the text editor that has the focus in this application, when it has one and it is
    // not a password field.
    static std::optional<QString> focusedEditorSelection();

Q_SIGNALS:
    void permissionExplanationRequested(const QString &explanation);

private:
    std::optional<QString> readPlainText(SystemClipboard::Buffer buffer);
    std::optional<QList<ClipboardContent>> saveClipboard();
    void restoreClipboard(const std::optional<QList<ClipboardContent>> &saved);
    void postCopy(bool withShift);

    Backends m_backends;
};
