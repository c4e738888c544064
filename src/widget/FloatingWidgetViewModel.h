// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "speech/SpeechManager.h"
#include "widget/WidgetPalette.h"

#include <QObject>
#include <QPointer>
#include <QtQml/qqmlregistration.h>

#include <chrono>

class Clock;

// The floating widget's state: hover, drag and expansion, and the user's actions forwarded to the
// narration controller. Everything the widget's QML shows that needs a decision is derived here.
class FloatingWidgetViewModel : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("the application creates the widget's state")
    Q_PROPERTY(bool isHovered READ isHovered NOTIFY isHoveredChanged)
    Q_PROPERTY(bool isDragging READ isDragging WRITE setDragging NOTIFY isDraggingChanged)
    Q_PROPERTY(bool isExpanded READ isExpanded WRITE setExpanded NOTIFY isExpandedChanged)
    Q_PROPERTY(
        bool showFullControls READ showFullControls WRITE setShowFullControls NOTIFY showFullControlsChanged)
    Q_PROPERTY(bool forceExpanded READ forceExpanded WRITE setForceExpanded NOTIFY forceExpandedChanged)
    Q_PROPERTY(SpeechManager *speech READ speech CONSTANT)
    Q_PROPERTY(PlayState playState READ playState NOTIFY playStateChanged)
    // "Generating...", "Reading aloud", "Paused", "Ready", or the error's own title.
    Q_PROPERTY(QString title READ title NOTIFY titleChanged)
    // The voice as shown and the speaking style: "Cedar  ·  Calm".
    Q_PROPERTY(QString subtitle READ subtitle NOTIFY subtitleChanged)
    // Drawn at full size: expanded by the pointer, or with the full controls pinned.
    Q_PROPERTY(bool showsExpanded READ showsExpanded NOTIFY showsExpandedChanged)
    Q_PROPERTY(QString currentTimeText READ currentTimeText NOTIFY timesChanged)
    Q_PROPERTY(QString totalTimeText READ totalTimeText NOTIFY timesChanged)
    Q_PROPERTY(double progress READ progress NOTIFY timesChanged)
    Q_PROPERTY(QString progressValueText READ progressValueText NOTIFY timesChanged)
    Q_PROPERTY(QString speedText READ speedText NOTIFY speedChanged)
    Q_PROPERTY(QString speedAccessibleName READ speedAccessibleName NOTIFY speedChanged)
    Q_PROPERTY(QString errorTitle READ errorTitle NOTIFY errorChanged)
    Q_PROPERTY(QString errorMessage READ errorMessage NOTIFY errorChanged)
    Q_PROPERTY(bool isPermissionError READ isPermissionError NOTIFY errorChanged)
    Q_PROPERTY(WidgetPalette palette READ palette NOTIFY paletteChanged)
    // The sentence being heard, in the full controls; empty hides its row.
    Q_PROPERTY(QString followAlongText READ followAlongText NOTIFY followAlongChanged)

public:
    enum class PlayState { Loading, Idle, Playing, Paused };
    Q_ENUM(PlayState)

    static constexpr std::chrono::milliseconds kCollapseDelay{200};

    explicit FloatingWidgetViewModel(SpeechManager &speech, Clock &clock, QObject *parent = nullptr);

    bool isHovered() const { return m_isHovered; }
    bool isDragging() const { return m_isDragging; }
    void setDragging(bool dragging);
    bool isExpanded() const { return m_isExpanded; }
    void setExpanded(bool expanded);
    bool showFullControls() const { return m_showFullControls; }
    void setShowFullControls(bool show);
    bool forceExpanded() const { return m_forceExpanded; }
    void setForceExpanded(bool force);

    SpeechManager *speech() const { return m_speech; }
    PlayState playState() const;
    static PlayState playStateFor(bool isProcessing, bool hasContent, bool isPlaying);
    QString title() const;
    QString subtitle() const;
    bool showsExpanded() const { return m_isExpanded || m_showFullControls; }
    QString currentTimeText() const;
    QString totalTimeText() const;
    // Current time against the displayed total, 0…1.
    double progress() const;
    QString progressValueText() const;
    QString speedText() const;
    QString speedAccessibleName() const;
    QString errorTitle() const;
    QString errorMessage() const;
    bool isPermissionError() const;
    WidgetPalette palette() const;
    QString followAlongText() const;
    bool showsFollowAlong() const { return !followAlongText().isEmpty(); }

    // The pointer entered (true) or left (false) the widget. Leaving collapses it after kCollapseDelay
    // unless it is pinned or the pointer comes back first.
    Q_INVOKABLE void setHovered(bool hovering);
    // The play button: the narration trigger (capture, or play/pause when that text is already loaded).
    Q_INVOKABLE void playPauseAction();
    Q_INVOKABLE void skipBack();
    Q_INVOKABLE void skipForward();
    Q_INVOKABLE void seekToTime(double seconds);
    // A click or drag on the progress track, 0 at its start and 1 at its end (clamped).
    Q_INVOKABLE void seekToFraction(double fraction);
    // Back (or on) to where the sentence being heard starts.
    Q_INVOKABLE void seekToSentenceStart();
    Q_INVOKABLE void expandFullControls();
    // The "Expand controls" / "Collapse controls" button: shows and pins the full controls, or undoes both.
    Q_INVOKABLE void toggleFullControls();
    Q_INVOKABLE void cycleSpeed();
    Q_INVOKABLE void stop();
    Q_INVOKABLE void openSettings();
    // The "Open Settings" of a missing permission: the settings section that says what capture needs.
    Q_INVOKABLE void openPermissionSettings();

Q_SIGNALS:
    void isHoveredChanged();
    void isDraggingChanged();
    void isExpandedChanged();
    void showFullControlsChanged();
    void forceExpandedChanged();
    void playStateChanged();
    void titleChanged();
    void subtitleChanged();
    void showsExpandedChanged();
    void timesChanged();
    void speedChanged();
    void errorChanged();
    void paletteChanged();
    void followAlongChanged();

private:
    QPointer<SpeechManager> m_speech;
    Clock &m_clock;
    bool m_isHovered = false;
    bool m_isDragging = false;
    bool m_isExpanded = false;
    bool m_showFullControls = false;
    bool m_forceExpanded = false;
    // A pending collapse runs only while this still matches: any hover event moves it on.
    quint64 m_collapseGeneration = 0;
};
