// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QQuickItem>
#include <QtQml/qqmlregistration.h>

// The key-receiving side of the shortcut recorder: while `recording`, it holds the keyboard focus and
// turns the next key press into a (virtual key code, modifier flags) pair, read positionally from the
// key's scan code, so that the binding means the same physical key whatever the keyboard layout.
// Escape cancels, and so does losing the focus: a recorder records only while it has the keyboard. Keys
// without one of the four modifiers, or without a name, are ignored and the recorder keeps waiting. The
// global shortcuts stay registered meanwhile.
class ShortcutRecorderItem : public QQuickItem
{
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(bool recording READ recording WRITE setRecording NOTIFY recordingChanged)

public:
    struct Interpretation
    {
        enum Kind { Ignore, Cancel, Record };
        Kind kind = Ignore;
        quint32 key = 0;
        quint64 modifiers = 0;
    };
    // What one key press means to a recording recorder. nativeScanCode is the X keycode.
    static Interpretation interpretKeyPress(quint32 nativeScanCode, int qtKey,
                                            Qt::KeyboardModifiers modifiers);

    explicit ShortcutRecorderItem(QQuickItem *parent = nullptr);

    bool recording() const { return m_recording; }
    void setRecording(bool recording);

Q_SIGNALS:
    void recordingChanged();
    // Once per accepted combination; recording has stopped when it is emitted.
    void shortcutRecorded(quint32 key, quint64 modifiers);
    // Escape was pressed or the focus went elsewhere; recording has stopped.
    void cancel();

protected:
    bool event(QEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
    void keyReleaseEvent(QKeyEvent *event) override;
    void focusOutEvent(QFocusEvent *event) override;

private:
    bool m_recording = false;
};
