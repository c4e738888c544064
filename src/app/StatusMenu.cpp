// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/StatusMenu.h"

#include "app/StatusMenuState.h"
#include "core/AppEvents.h"
#include "core/Logging.h"
#include "speech/NarrationServices.h"
#include "speech/SpeechManager.h"
#include "widget/FloatingWidgetViewModel.h"
#include "widget/FloatingWindowController.h"

#include <QCoreApplication>
#include <QIcon>
#include <QMenu>
#include <QSystemTrayIcon>
#include <QTimer>

namespace {

QIcon templateIcon(const QString &path)
{
    QIcon icon(path);
    // Monochrome: desktops that tint symbolic icons give it the panel's text colour.
    icon.setIsMask(true);
    return icon;
}

} // namespace

StatusMenu::StatusMenu(SpeechManager &speech, SelectionSource &selection, FloatingWindowController *widget,
                       QObject *parent)
    : QObject(parent)
    , m_speech(speech)
    , m_selection(selection)
    , m_menu(std::make_unique<QMenu>())
    , m_tray(new QSystemTrayIcon(this))
{
    m_narrate = m_menu->addAction(QStringLiteral("Narrate Selection"), this, &StatusMenu::narrateSelection);
    m_narrate->setShortcut(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_N));
    m_expand = m_menu->addAction(QStringLiteral("Expand Widget"), this, &StatusMenu::expandWidget);
    m_menu->addSeparator();
    m_pause =
        m_menu->addAction(QStringLiteral("Pause Narration"), &m_speech, &SpeechManager::togglePlayPause);
    m_stop = m_menu->addAction(QStringLiteral("Stop Narration"), &m_speech, &SpeechManager::stop);
    m_menu->addSeparator();
    m_menu->addAction(QStringLiteral("Check for Updates..."), &AppEvents::shared(),
                      &AppEvents::checkForUpdates);
    m_menu->addAction(QStringLiteral("About Quillvox"), &AppEvents::shared(), &AppEvents::openAboutSection);
    m_menu->addSeparator();
    m_menu->addAction(QStringLiteral("Settings..."), &AppEvents::shared(), &AppEvents::openSettingsWindow)
        ->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Comma));
    m_menu->addSeparator();
    m_menu->addAction(QStringLiteral("Quit Quillvox"), qApp, &QCoreApplication::quit)
        ->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));

    m_tray->setToolTip(QStringLiteral("Quillvox"));
    m_tray->setContextMenu(m_menu.get());

    connect(&m_speech, &SpeechManager::isPlayingChanged, this, [this] {
        updateIcon();
        updateItems();
    });
    connect(&m_speech, &SpeechManager::isProcessingChanged, this, &StatusMenu::updateItems);
    connect(&m_speech, &SpeechManager::hasContentChanged, this, &StatusMenu::updateItems);
    setWidget(widget);
    updateIcon();
}

StatusMenu::~StatusMenu() = default;

void StatusMenu::show()
{
    if (!QSystemTrayIcon::isSystemTrayAvailable())
        qCInfo(lcApp) << "no system tray: start quillvox again to open the settings window";
    m_tray->show();
}

void StatusMenu::setWidget(FloatingWindowController *widget)
{
    disconnect(m_expandedConnection);
    m_widget = widget;
    if (widget && widget->viewModel())
        m_expandedConnection = connect(widget->viewModel(), &FloatingWidgetViewModel::isExpandedChanged, this,
                                       &StatusMenu::updateItems);
    updateItems();
}

void StatusMenu::updateIcon()
{
    m_tray->setIcon(templateIcon(m_speech.isPlaying() ? QStringLiteral(":/icons/waveform.circle.fill.svg")
                                                      : QStringLiteral(":/icons/waveform.svg")));
}

void StatusMenu::updateItems()
{
    const FloatingWidgetViewModel *widget = m_widget ? m_widget->viewModel() : nullptr;
    const StatusMenuState state = StatusMenuState::compute(
        m_speech.isPlaying(), m_speech.isProcessing(), m_speech.hasContent(), widget && widget->isExpanded());
    m_narrate->setVisible(state.narrateOffered);
    m_expand->setVisible(state.expandOffered && widget);
    m_pause->setText(state.pauseLabel);
    m_pause->setEnabled(state.pauseEnabled);
    m_stop->setEnabled(state.stopEnabled);
}

void StatusMenu::narrateSelection()
{
    // After the menu has closed and let go of the keyboard, so that the copy reaches the window that
    // holds the selection.
    QTimer::singleShot(0, this, [this] {
        if (const std::optional<QString> text = m_selection.captureSelectedText())
            m_speech.speak(*text);
    });
}

void StatusMenu::expandWidget()
{
    if (!m_widget)
        return;
    FloatingWidgetViewModel *widget = m_widget->viewModel();
    widget->expandFullControls();
    widget->setForceExpanded(true);
    m_widget->showWidget();
}
