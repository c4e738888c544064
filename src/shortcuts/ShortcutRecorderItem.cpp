// SPDX-License-Identifier: GPL-3.0-or-later
#include "shortcuts/ShortcutRecorderItem.h"

#include "shortcuts/KeyTable.h"

#include <QKeyEvent>
#include <QTimer>

namespace {

bool isModifierOnly(int qtKey)
{
    switch (qtKey) {
    case Qt::Key_Shift:
    case Qt::Key_Control:
    case Qt::Key_Meta:
    case Qt::Key_Alt:
    case Qt::Key_AltGr:
    case Qt::Key_CapsLock:
    case Qt::Key_NumLock:
    case Qt::Key_Super_L:
    case Qt::Key_Super_R:
    case Qt::Key_Hyper_L:
    case Qt::Key_Hyper_R:
        return true;
    default:
        return false;
    }
}

} // namespace

ShortcutRecorderItem::ShortcutRecorderItem(QQuickItem *parent)
    : QQuickItem(parent)
{}

ShortcutRecorderItem::Interpretation
ShortcutRecorderItem::interpretKeyPress(quint32 nativeScanCode, int qtKey, Qt::KeyboardModifiers modifiers)
{
    const std::optional<quint32> key = KeyTable::virtualKeyCodeForXKeyCode(nativeScanCode);
    if (key == KeyTable::kVK_Escape)
        return {Interpretation::Cancel};
    // Pressing a modifier alone changes the modifier state and nothing else.
    if (isModifierOnly(qtKey) || (key && KeyTable::isModifierKey(*key)))
        return {};
    const quint64 flags = KeyTable::modifierFlagsForQt(modifiers) & KeyTable::ShortcutModifiers;
    if (flags == 0 || !key)
        return {};
    return {Interpretation::Record, *key, flags};
}

void ShortcutRecorderItem::setRecording(bool recording)
{
    if (m_recording == recording)
        return;
    m_recording = recording;
    Q_EMIT recordingChanged();
    if (recording) {
        // The item may not be in a window yet when recording starts; take the focus a turn later.
        QTimer::singleShot(0, this, [this] {
            if (m_recording)
                forceActiveFocus(Qt::OtherFocusReason);
        });
    }
}

bool ShortcutRecorderItem::event(QEvent *event)
{
    // Claim every key while recording, so that the window's own shortcuts do not swallow the combination
    // the user is typing.
    if (event->type() == QEvent::ShortcutOverride && m_recording) {
        event->accept();
        return true;
    }
    return QQuickItem::event(event);
}

void ShortcutRecorderItem::keyPressEvent(QKeyEvent *event)
{
    if (!m_recording) {
        event->ignore();
        return;
    }
    // Typing into the recorder never reaches anything else.
    event->accept();
    const Interpretation meaning =
        interpretKeyPress(event->nativeScanCode(), event->key(), event->modifiers());
    switch (meaning.kind) {
    case Interpretation::Ignore:
        break;
    case Interpretation::Cancel:
        setRecording(false);
        Q_EMIT cancel();
        break;
    case Interpretation::Record:
        setRecording(false);
        Q_EMIT shortcutRecorded(meaning.key, meaning.modifiers);
        break;
    }
}

void ShortcutRecorderItem::keyReleaseEvent(QKeyEvent *event)
{
    if (m_recording)
        event->accept();
    else
        event->ignore();
}

void ShortcutRecorderItem::focusOutEvent(QFocusEvent *event)
{
    QQuickItem::focusOutEvent(event);
    if (!m_recording)
        return;
    setRecording(false);
    Q_EMIT cancel();
}
