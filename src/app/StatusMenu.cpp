// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/StatusMenu.h"

#include "app/StatusMenuState.h"
#include "app/TrayIconImages.h"
#include "core/AppEvents.h"
#include "core/Logging.h"
#include "platform/dbus/PortalColorScheme.h"
#include "platform/dbus/StatusNotifierItem.h"
#include "shortcuts/HotkeyManager.h"
#include "speech/NarrationServices.h"
#include "speech/SpeechManager.h"
#include "widget/FloatingWidgetViewModel.h"
#include "widget/FloatingWindowController.h"
#include "widget/WidgetPalette.h"

#include <QCoreApplication>
#include <QCursor>
#include <QDBusConnectionInterface>
#include <QGuiApplication>
#include <QIcon>
#include <QMenu>
#include <QPixmap>
#include <QSystemTrayIcon>
#include <QTimer>

namespace {

constexpr int kToolTipCharacters = 60;

TrayIconImages::Panel panelFor(PortalColorScheme::Scheme scheme)
{
    switch (scheme) {
    case PortalColorScheme::PreferDark:
        return TrayIconImages::Panel::Dark;
    case PortalColorScheme::PreferLight:
        return TrayIconImages::Panel::Light;
    case PortalColorScheme::NoPreference:
        break;
    }
    return TrayIconImages::Panel::Unknown;
}

// "Ctrl+Alt+S" as our settings or the desktop word it; Qt calls Super "Meta".
QKeySequence keySequence(QString label)
{
    label.replace(QStringLiteral("Super"), QStringLiteral("Meta"));
    return QKeySequence::fromString(label, QKeySequence::PortableText);
}

} // namespace

StatusMenu::StatusMenu(SpeechManager &speech, SelectionSource &selection, FloatingWindowController *widget,
                       QObject *parent)
    : QObject(parent)
    , m_speech(speech)
    , m_selection(selection)
    , m_menu(std::make_unique<QMenu>())
    , m_item(new StatusNotifierItem(QStringLiteral("quillvox"), QDBusConnection::sessionBus(), this))
    , m_colorScheme(new PortalColorScheme(QDBusConnection::sessionBus(), this))
{
    // Only the narration shortcut is shown: it is the one key that works system-wide, and a tray
    // menu cannot honour keys of its own.
    m_narrate = m_menu->addAction(QStringLiteral("Narrate Selection"), this, &StatusMenu::narrateSelection);
    m_expand = m_menu->addAction(QStringLiteral("Expand Widget"), this, &StatusMenu::expandWidget);
    m_narrateSeparator = m_menu->addSeparator();
    m_pause =
        m_menu->addAction(QStringLiteral("Pause Narration"), &m_speech, &SpeechManager::togglePlayPause);
    m_stop = m_menu->addAction(QStringLiteral("Stop Narration"), &m_speech, &SpeechManager::stop);
    m_menu->addSeparator();
    m_menu->addAction(QStringLiteral("Check for Updates..."), &AppEvents::shared(),
                      &AppEvents::checkForUpdates);
    m_menu->addAction(QStringLiteral("About Quillvox"), &AppEvents::shared(), &AppEvents::openAboutSection);
    m_menu->addSeparator();
    m_menu->addAction(QStringLiteral("Settings..."), &AppEvents::shared(), &AppEvents::openSettingsWindow);
    m_menu->addSeparator();
    m_menu->addAction(QStringLiteral("Quit Quillvox"), qApp, &QCoreApplication::quit);

    m_item->setMenu(m_menu.get());
    connect(m_item, &StatusNotifierItem::activateRequested, this, &StatusMenu::openMenuAt);
    connect(m_item, &StatusNotifierItem::secondaryActivateRequested, &m_speech,
            &SpeechManager::togglePlayPause);
    connect(m_item, &StatusNotifierItem::registeredChanged, this, [this](bool registered) {
        if (registered && m_tray)
            m_tray->hide();
    });
    connect(m_colorScheme, &PortalColorScheme::schemeChanged, this, &StatusMenu::updateIcon);

    connect(&m_speech, &SpeechManager::isPlayingChanged, this, [this] {
        updateIcon();
        updateItems();
        updateToolTip();
    });
    connect(&m_speech, &SpeechManager::isProcessingChanged, this, &StatusMenu::updateItems);
    connect(&m_speech, &SpeechManager::hasContentChanged, this, &StatusMenu::updateItems);
    connect(&m_speech, &SpeechManager::currentTimeChanged, this, &StatusMenu::updateToolTip);
    connect(&m_speech, &SpeechManager::displayedTotalTimeChanged, this, &StatusMenu::updateToolTip);
    setWidget(widget);
    updateIcon();
    updateToolTip();
}

StatusMenu::~StatusMenu() = default;

void StatusMenu::show()
{
    m_item->registerOnBus();
    // Qt's icon would be a second item where a panel hosts ours; where none does, older trays take it.
    // The watcher is asked through the bus, never synchronously: it may be busy starting us.
    const QDBusConnection bus = QDBusConnection::sessionBus();
    if (bus.isConnected() && bus.interface()->isServiceRegistered(StatusNotifierItem::kWatcherService))
        return;
    if (!QSystemTrayIcon::isSystemTrayAvailable())
        qCInfo(lcApp) << "no system tray: start quillvox again to open the settings window";
    // An XEmbed tray that starts later still takes Qt's icon.
    if (QGuiApplication::platformName() == u"xcb")
        showXEmbedIcon();
}

void StatusMenu::hide()
{
    m_item->unregisterFromBus();
    if (m_tray)
        m_tray->hide();
}

void StatusMenu::showXEmbedIcon()
{
    if (m_tray) {
        m_tray->show();
        return;
    }
    m_tray = new QSystemTrayIcon(this);
    m_tray->setContextMenu(m_menu.get());
    connect(m_tray, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger)
            openMenuAt(QCursor::pos());
        else if (reason == QSystemTrayIcon::MiddleClick)
            m_speech.togglePlayPause();
    });
    updateIcon();
    updateToolTip();
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

void StatusMenu::setHotkeys(HotkeyManager *hotkeys)
{
    if (m_hotkeys)
        disconnect(m_hotkeys, nullptr, this, nullptr);
    m_hotkeys = hotkeys;
    if (hotkeys) {
        for (auto signal : {&HotkeyManager::displayStringChanged, &HotkeyManager::hotkeyRegisteredChanged,
                            &HotkeyManager::assignedTriggersChanged})
            connect(hotkeys, signal, this, &StatusMenu::updateNarrateShortcut);
    }
    updateNarrateShortcut();
}

void StatusMenu::updateNarrateShortcut()
{
    QKeySequence bound;
    if (m_hotkeys && m_hotkeys->bindsByAction())
        bound = keySequence(m_hotkeys->assignedTrigger(HotkeyManager::Narration));
    else if (m_hotkeys && m_hotkeys->hotkeyRegistered())
        bound = keySequence(m_hotkeys->displayLabel());
    m_narrate->setShortcut(bound);
}

void StatusMenu::updateIcon()
{
    const bool playing = m_speech.isPlaying();
    const QList<QImage> pixmaps = TrayIconImages::pixmaps(playing, panelFor(m_colorScheme->scheme()));
    m_item->setIcon(TrayIconImages::iconName(playing), pixmaps);
    if (m_tray) {
        QIcon icon;
        for (const QImage &image : pixmaps)
            icon.addPixmap(QPixmap::fromImage(image));
        m_tray->setIcon(icon);
    }
}

void StatusMenu::updateToolTip()
{
    const QString title = QStringLiteral("Quillvox");
    QString description;
    if (m_speech.isPlaying()) {
        if (const QString spoken = m_speech.lastSpokenText(); spoken != m_toolTipSource) {
            const QString text = spoken.simplified();
            m_toolTipHead = text.left(kToolTipCharacters);
            if (text.size() > kToolTipCharacters)
                m_toolTipHead += QStringLiteral("…");
            m_toolTipSource = spoken;
        }
        description = m_toolTipHead + u'\n' + WidgetFormat::timeLabel(m_speech.currentTime()) +
                      QStringLiteral(" / ") + WidgetFormat::timeLabel(m_speech.displayedTotalTime());
    }
    m_item->setToolTip(title, description);
    if (m_tray)
        m_tray->setToolTip(description.isEmpty() ? title : title + u'\n' + description);
}

void StatusMenu::updateItems()
{
    const FloatingWidgetViewModel *widget = m_widget ? m_widget->viewModel() : nullptr;
    const StatusMenuState state = StatusMenuState::compute(
        m_speech.isPlaying(), m_speech.isProcessing(), m_speech.hasContent(), widget && widget->isExpanded());
    m_narrate->setVisible(state.narrateOffered);
    m_expand->setVisible(state.expandOffered && widget);
    m_narrateSeparator->setVisible(state.narrateSeparatorShown);
    m_pause->setText(state.pauseLabel);
    m_pause->setEnabled(state.pauseEnabled);
    m_stop->setEnabled(state.stopEnabled);
}

void StatusMenu::openMenuAt(const QPoint &position)
{
    // Only X11 lets a window place itself; elsewhere the panel's own menu is the way in.
    if (QGuiApplication::platformName() == u"xcb" && !position.isNull())
        m_menu->popup(position);
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
