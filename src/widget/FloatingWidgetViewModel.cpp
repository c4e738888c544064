// SPDX-License-Identifier: GPL-3.0-or-later
#include "widget/FloatingWidgetViewModel.h"

#include "core/AppEvents.h"
#include "core/Clock.h"
#include "core/Published.h"
#include "speech/FollowAlong.h"
#include "speech/SpeechManager.h"
#include "speech/VoiceStyle.h"

#include <algorithm>

namespace {

const QString kShortcutsSection = QStringLiteral("Shortcuts");

} // namespace

FloatingWidgetViewModel::FloatingWidgetViewModel(SpeechManager &speech, Clock &clock, QObject *parent)
    : QObject(parent)
    , m_speech(&speech)
    , m_clock(clock)
{
    // Derived values announce themselves whenever a value they are made of changes.
    for (auto signal : {&SpeechManager::isProcessingChanged, &SpeechManager::hasContentChanged,
                        &SpeechManager::isPlayingChanged})
        connect(&speech, signal, this, &FloatingWidgetViewModel::playStateChanged);
    for (auto signal : {&SpeechManager::currentTimeChanged, &SpeechManager::displayedTotalTimeChanged})
        connect(&speech, signal, this, &FloatingWidgetViewModel::timesChanged);
    connect(&speech, &SpeechManager::playbackSpeedChanged, this, &FloatingWidgetViewModel::speedChanged);
    connect(&speech, &SpeechManager::currentErrorChanged, this, &FloatingWidgetViewModel::errorChanged);
    for (auto signal : {&SpeechManager::widgetThemeChanged, &SpeechManager::widgetAppearanceChanged})
        connect(&speech, signal, this, &FloatingWidgetViewModel::paletteChanged);
    for (auto signal : {&FloatingWidgetViewModel::playStateChanged, &FloatingWidgetViewModel::errorChanged})
        connect(this, signal, this, &FloatingWidgetViewModel::titleChanged);
    for (auto signal : {&SpeechManager::selectedVoiceChanged, &SpeechManager::selectedVoiceStyleChanged})
        connect(&speech, signal, this, &FloatingWidgetViewModel::subtitleChanged);
    for (auto signal :
         {&FloatingWidgetViewModel::isExpandedChanged, &FloatingWidgetViewModel::showFullControlsChanged})
        connect(this, signal, this, &FloatingWidgetViewModel::showsExpandedChanged);
    connect(speech.followAlong(), &FollowAlong::sentenceChanged, this,
            &FloatingWidgetViewModel::followAlongChanged);
    connect(this, &FloatingWidgetViewModel::showFullControlsChanged, this,
            &FloatingWidgetViewModel::followAlongChanged);
}

void FloatingWidgetViewModel::setDragging(bool dragging)
{
    if (assignIfChanged(m_isDragging, dragging))
        Q_EMIT isDraggingChanged();
}

void FloatingWidgetViewModel::setExpanded(bool expanded)
{
    if (assignIfChanged(m_isExpanded, expanded))
        Q_EMIT isExpandedChanged();
}

void FloatingWidgetViewModel::setShowFullControls(bool show)
{
    if (assignIfChanged(m_showFullControls, show))
        Q_EMIT showFullControlsChanged();
}

void FloatingWidgetViewModel::setForceExpanded(bool force)
{
    if (assignIfChanged(m_forceExpanded, force))
        Q_EMIT forceExpandedChanged();
}

FloatingWidgetViewModel::PlayState FloatingWidgetViewModel::playState() const
{
    return playStateFor(m_speech->isProcessing(), m_speech->hasContent(), m_speech->isPlaying());
}

FloatingWidgetViewModel::PlayState FloatingWidgetViewModel::playStateFor(bool isProcessing, bool hasContent,
                                                                         bool isPlaying)
{
    if (isProcessing)
        return PlayState::Loading;
    if (!hasContent)
        return PlayState::Idle;
    return isPlaying ? PlayState::Playing : PlayState::Paused;
}

QString FloatingWidgetViewModel::followAlongText() const
{
    return m_showFullControls ? m_speech->followAlong()->sentence() : QString();
}

QString FloatingWidgetViewModel::currentTimeText() const
{
    return WidgetFormat::timeLabel(m_speech->currentTime());
}

QString FloatingWidgetViewModel::totalTimeText() const
{
    return WidgetFormat::timeLabel(m_speech->displayedTotalTime());
}

double FloatingWidgetViewModel::progress() const
{
    const double total = m_speech->displayedTotalTime();
    return total > 0 ? std::clamp(m_speech->currentTime() / total, 0.0, 1.0) : 0.0;
}

QString FloatingWidgetViewModel::progressValueText() const
{
    return currentTimeText() + QStringLiteral(" of ") + totalTimeText();
}

QString FloatingWidgetViewModel::speedText() const
{
    return WidgetFormat::speedLabel(m_speech->playbackSpeed());
}

QString FloatingWidgetViewModel::speedAccessibleName() const
{
    return QStringLiteral("Playback speed ") + QString::asprintf("%.1f", double(m_speech->playbackSpeed()));
}

bool FloatingWidgetViewModel::isPermissionError() const
{
    const std::optional<SpeechError> &error = m_speech->currentError();
    return error && error->kind() == SpeechError::accessibilityPermissionMissing;
}

QString FloatingWidgetViewModel::errorTitle() const
{
    if (!m_speech->hasError())
        return {};
    return isPermissionError() ? QStringLiteral("Permission required")
                               : QStringLiteral("Something went wrong.");
}

QString FloatingWidgetViewModel::errorMessage() const
{
    return m_speech->currentErrorDescription();
}

WidgetPalette FloatingWidgetViewModel::palette() const
{
    return WidgetPalette::make(m_speech->widgetTheme(), m_speech->widgetAppearance());
}

void FloatingWidgetViewModel::setHovered(bool hovering)
{
    ++m_collapseGeneration; // cancels a pending collapse
    if (assignIfChanged(m_isHovered, hovering))
        Q_EMIT isHoveredChanged();
    if (hovering) {
        setExpanded(true);
        return;
    }
    if (m_forceExpanded)
        return;
    const quint64 generation = m_collapseGeneration;
    m_clock.callAfter(kCollapseDelay, this, [this, generation] {
        if (generation != m_collapseGeneration || m_forceExpanded)
            return;
        setExpanded(false);
    });
}

void FloatingWidgetViewModel::playPauseAction()
{
    m_speech->handleNarrationTrigger();
}

void FloatingWidgetViewModel::skipBack()
{
    m_speech->skipBackward();
}

void FloatingWidgetViewModel::skipForward()
{
    m_speech->skipForward();
}

QString FloatingWidgetViewModel::title() const
{
    if (m_speech->hasError())
        return errorTitle();
    switch (playState()) {
    case PlayState::Loading:
        return QStringLiteral("Generating...");
    case PlayState::Playing:
        return QStringLiteral("Reading aloud");
    case PlayState::Paused:
        return QStringLiteral("Paused");
    case PlayState::Idle:
        break;
    }
    return QStringLiteral("Ready");
}

QString FloatingWidgetViewModel::subtitle() const
{
    return voiceDisplayName(m_speech->selectedVoice()) + QStringLiteral("  ·  ") +
           m_speech->selectedVoiceStyleRawValue();
}

void FloatingWidgetViewModel::seekToFraction(double fraction)
{
    seekToTime(std::clamp(fraction, 0.0, 1.0) * m_speech->displayedTotalTime());
}

void FloatingWidgetViewModel::seekToTime(double seconds)
{
    const double total = m_speech->totalTime();
    if (total <= 0)
        return;
    m_speech->seekToProgress(std::min(total, seconds) / total);
}

void FloatingWidgetViewModel::seekToSentenceStart()
{
    const FollowAlong *follow = m_speech->followAlong();
    if (follow->currentIndex() >= 0)
        m_speech->seekToFrame(follow->currentStartFrame());
}

void FloatingWidgetViewModel::expandFullControls()
{
    setExpanded(true);
    setShowFullControls(true);
}

void FloatingWidgetViewModel::toggleFullControls()
{
    const bool expand = !m_showFullControls;
    setShowFullControls(expand);
    setForceExpanded(expand);
    if (expand)
        setExpanded(true);
}

void FloatingWidgetViewModel::cycleSpeed()
{
    m_speech->cyclePlaybackSpeed();
}

void FloatingWidgetViewModel::stop()
{
    m_speech->stop();
}

void FloatingWidgetViewModel::openSettings()
{
    Q_EMIT AppEvents::shared().openSettingsWindow();
}

void FloatingWidgetViewModel::openPermissionSettings()
{
    Q_EMIT AppEvents::shared().openSettingsWindow();
    Q_EMIT AppEvents::shared().navigateToSettingsSection(kShortcutsSection);
}
