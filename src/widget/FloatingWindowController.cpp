// SPDX-License-Identifier: GPL-3.0-or-later
#include "widget/FloatingWindowController.h"

#include "account/AuthManager.h"
#include "account/KeychainHelper.h"
#include "core/Clock.h"
#include "core/FreedMemory.h"
#include "core/Logging.h"
#include "core/SharedInstance.h"
#include "core/UserDefaults.h"
#include "platform/PanelWindowHints.h"
#include "platform/x11/X11PanelHints.h"
#include "speech/SpeechManager.h"
#include "widget/FloatingWidgetViewModel.h"
#include "widget/IconProvider.h"

#include <QGuiApplication>
#include <QPainterPath>
#include <QQmlEngine>
#include <QQuickView>
#include <QScreen>
#include <QtQml/qqmlextensionplugin.h>

Q_IMPORT_QML_PLUGIN(Quillvox_WidgetPlugin)
Q_IMPORT_QML_PLUGIN(Quillvox_ControlsPlugin)

namespace {

using SharedController = SharedInstance<FloatingWindowController>;

const QUrl kRootView(QStringLiteral("qrc:/qt/qml/Quillvox/Widget/FloatingWidget.qml"));

// The panel's rounded outline as a region, for cutting the window where nothing composites it.
QRegion roundedRegion(QSize size, int radius)
{
    QPainterPath path;
    path.addRoundedRect(QRectF(QPointF(0, 0), size), radius, radius);
    return QRegion(path.toFillPolygon().toPolygon());
}

} // namespace

FloatingWindowController::FloatingWindowController(Services services, QObject *parent)
    : QObject(parent)
    , m_services(std::move(services))
{
    Q_ASSERT(m_services.speech);
    Clock &clock = m_services.clock ? *m_services.clock : Clock::system();
    m_viewModel = new FloatingWidgetViewModel(*m_services.speech, clock, this);
    connect(m_viewModel, &FloatingWidgetViewModel::followAlongChanged, this,
            &FloatingWindowController::fitHeight);
}

FloatingWindowController::~FloatingWindowController()
{
    // The view's items refer to the view model and the engine: they go first, a released view too.
    m_window.reset();
    delete m_releasedWindow.data();
}

FloatingWindowController &FloatingWindowController::shared()
{
    if (!SharedController::has()) {
        Services services;
        services.speech = &SpeechManager::shared();
        services.auth = AuthManager::hasShared() ? &AuthManager::shared() : nullptr;
        services.keychain = &KeychainHelper::shared();
        services.defaults = &UserDefaults::standard();
        services.hints = std::make_unique<X11PanelHints>();
        installShared(new FloatingWindowController(std::move(services), QCoreApplication::instance()));
    }
    return SharedController::get();
}

bool FloatingWindowController::hasShared()
{
    return SharedController::has();
}

void FloatingWindowController::installShared(FloatingWindowController *controller)
{
    SharedController::install(controller);
}

void FloatingWindowController::createWindow()
{
    QQmlEngine *engine = m_services.engine;
    if (!engine) {
        m_ownEngine = std::make_unique<QQmlEngine>();
        engine = m_ownEngine.get();
        // Before Qt 6.5 the resource path of QML modules is not a default import path.
        engine->addImportPath(QStringLiteral("qrc:/qt/qml"));
    }
    if (!engine->imageProvider(QLatin1String(IconProvider::kProviderId)))
        engine->addImageProvider(QLatin1String(IconProvider::kProviderId), new IconProvider);

    m_window = std::make_unique<QQuickView>(engine, nullptr);
    m_window->setTitle(QStringLiteral("Quillvox"));
    // A tool window out of the task bar, above the others, that never takes the keyboard: the user's
    // window must stay active, or the next capture would copy from us.
    m_window->setFlags(Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint |
                       Qt::WindowDoesNotAcceptFocus | Qt::NoDropShadowWindowHint);
    QSurfaceFormat format = m_window->format();
    format.setAlphaBufferSize(8);
    m_window->setFormat(format);
    m_window->setColor(Qt::transparent);
    m_window->setResizeMode(QQuickView::SizeRootObjectToView);
    m_window->resize(kPanelWidth, kPanelHeight);
    m_window->setMinimumSize(QSize(kPanelWidth, kPanelHeight));
    m_window->setMaximumSize(QSize(kPanelWidth, kPanelHeight));
    m_window->setInitialProperties({{QStringLiteral("viewModel"), QVariant::fromValue(m_viewModel.data())},
                                    {QStringLiteral("controller"), QVariant::fromValue(this)}});
    m_window->setSource(kRootView);
    for (const QQmlError &error : m_window->errors())
        qCWarning(lcApp).noquote() << "widget:" << error.toString();
    if (m_services.hints)
        m_services.hints->apply(*m_window);
    fitHeight();
}

void FloatingWindowController::applyShape()
{
    // Without a compositing manager the transparent corners would show black: cut them away.
    const bool composited = !m_services.hints || m_services.hints->hasCompositingManager();
    m_window->setMask(composited ? QRegion() : roundedRegion(m_window->size(), kCornerRadius));
}

// Its top edge and centre stay where they are: the window keeps its position and width.
void FloatingWindowController::fitHeight()
{
    if (!m_window)
        return;
    const int height = kPanelHeight + (m_viewModel->showsFollowAlong() ? kFollowAlongHeight : 0);
    if (m_window->height() == height)
        return;
    m_window->setMinimumSize(QSize(kPanelWidth, std::min(height, m_window->height())));
    m_window->setMaximumSize(QSize(kPanelWidth, std::max(height, m_window->height())));
    m_window->resize(kPanelWidth, height);
    m_window->setMinimumSize(QSize(kPanelWidth, height));
    m_window->setMaximumSize(QSize(kPanelWidth, height));
    applyShape();
}

void FloatingWindowController::showWidget()
{
    QScreen *screen = QGuiApplication::primaryScreen();
    if (!screen)
        return;
    if (!m_window)
        createWindow();
    const QRect area = screen->availableGeometry();
    // A native Wayland window cannot place itself, and Qt 6.4 on Debian 12 has no layer-shell. Measured on
    // sway 1.7 (headless): the panel floats above tiled windows, centred on the output rather than at the
    // top, and the focused window keeps the keyboard. That is good enough, so Quillvox stays one native
    // Wayland client instead of moving every window to XWayland for this one position.
    m_window->setPosition(area.x() + (area.width() - kPanelWidth) / 2, area.y() + kTopGap);
    applyShape();
    const bool wasVisible = m_window->isVisible();
    m_window->show();
    if (!wasVisible && m_services.hints)
        m_services.hints->apply(*m_window);
    m_window->raise();
    if (!wasVisible)
        Q_EMIT visibilityChanged();
}

void FloatingWindowController::hideWidget()
{
    if (!isWidgetVisible())
        return;
    m_window->hide();
    releaseWindow();
    Q_EMIT visibilityChanged();
}

void FloatingWindowController::releaseWindow()
{
    // The QML and its engine go with the window (the next showWidget() loads them again): a hidden widget
    // costs no memory. Later, since this may run inside one of the window's own handlers.
    QQuickView *window = m_window.release();
    QQmlEngine *engine = m_ownEngine.release();
    connect(window, &QObject::destroyed, qApp, [engine] {
        delete engine;
        returnFreedMemory();
    });
    m_releasedWindow = window;
    window->deleteLater();
}

bool FloatingWindowController::isWidgetVisible() const
{
    return m_window && m_window->isVisible();
}

void FloatingWindowController::subscribeToAuthState()
{
    if (m_authSubscribed || !m_services.auth)
        return;
    m_authSubscribed = true;
    connect(m_services.auth, &AuthManager::stateChanged, this, [this] {
        if (m_services.auth->state() == AuthManager::State::signedIn)
            showWidget(); // every sign-in brings it back to the top centre
        else
            updateVisibility();
    });
}

void FloatingWindowController::updateVisibility()
{
    if (!m_services.auth)
        return;
    switch (m_services.auth->state()) {
    case AuthManager::State::unknown:
        return;
    case AuthManager::State::signedIn:
        if (!isWidgetVisible())
            showWidget();
        return;
    case AuthManager::State::signedOut: {
        const bool withOwnKey =
            m_services.defaults &&
            m_services.defaults->boolean(QString::fromLatin1(kShowWithOwnKeyKey)).value_or(false) &&
            m_services.keychain && m_services.keychain->load(KeychainKey::openAIAPIKey).has_value();
        if (!withOwnKey)
            hideWidget();
        else if (!isWidgetVisible())
            showWidget();
        return;
    }
    }
}

void FloatingWindowController::pressAt(QPointF globalPosition)
{
    if (!m_window)
        return;
    m_pressPosition = globalPosition;
    m_windowAtPress = m_window->position();
}

void FloatingWindowController::dragTo(QPointF globalPosition)
{
    if (!m_pressPosition || !m_window)
        return;
    const QPointF delta = globalPosition - *m_pressPosition;
    if (!m_viewModel->isDragging()) {
        if (delta.isNull())
            return; // a click, not a drag
        // Wayland lets no client place its windows: the compositor moves it for us, and keeps the
        // pointer until the button is released, so the release never reaches us.
        if (QGuiApplication::platformName().startsWith(QLatin1String("wayland")) &&
            m_window->startSystemMove()) {
            release();
            return;
        }
        m_viewModel->setDragging(true);
    }
    m_window->setPosition(m_windowAtPress + delta.toPoint());
}

void FloatingWindowController::release()
{
    m_pressPosition.reset();
    m_viewModel->setDragging(false);
}
