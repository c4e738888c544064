// SPDX-License-Identifier: GPL-3.0-or-later
#include "onboarding/OnboardingWindow.h"

#include "core/FreedMemory.h"
#include "core/Logging.h"
#include "widget/IconProvider.h"

#include <QGuiApplication>
#include <QQmlEngine>
#include <QQuickView>
#include <QScreen>
#include <QTimer>
#include <QtQml/qqmlextensionplugin.h>

Q_IMPORT_QML_PLUGIN(Quillvox_OnboardingPlugin)
Q_IMPORT_QML_PLUGIN(Quillvox_ControlsPlugin)

OnboardingWindow::OnboardingWindow(OnboardingViewModel::Services services, QObject *parent)
    : QObject(parent)
    , m_viewModel(new OnboardingViewModel(std::move(services), this))
{
    createView();
}

void OnboardingWindow::createView()
{
    m_window = std::make_unique<QQuickView>();
    QQmlEngine *engine = m_window->engine();
    // Before Qt 6.5 the engine does not look in the resources for modules by default.
    engine->addImportPath(QStringLiteral("qrc:/qt/qml"));
    engine->addImageProvider(QLatin1String(IconProvider::kProviderId), new IconProvider);
    m_window->setTitle(QStringLiteral("Quillvox"));
    m_window->setResizeMode(QQuickView::SizeRootObjectToView);
    m_window->setFlags(Qt::Dialog | Qt::WindowTitleHint | Qt::WindowCloseButtonHint);
    const QSize size(kWidth, kHeight);
    m_window->setMinimumSize(size);
    m_window->setMaximumSize(size);
    m_window->resize(size);
    if (const QScreen *screen = QGuiApplication::primaryScreen()) {
        const QRect available = screen->availableGeometry();
        m_window->setPosition(available.center() - QPoint(kWidth / 2, kHeight / 2));
    }
    m_window->setInitialProperties({{QStringLiteral("viewModel"), QVariant::fromValue(m_viewModel)}});
    m_window->setSource(QUrl(QStringLiteral("qrc:/qt/qml/Quillvox/Onboarding/OnboardingView.qml")));
    for (const QQmlError &error : m_window->errors())
        qCWarning(lcApp).noquote() << error.toString();
    // Released from the event loop: closing may come from inside the window's own handlers.
    connect(m_window.get(), &QWindow::visibleChanged, this, [this](bool visible) {
        if (!visible)
            QTimer::singleShot(0, this, &OnboardingWindow::releaseViewIfHidden);
    });
}

void OnboardingWindow::releaseViewIfHidden()
{
    if (!m_window || m_window->isVisible())
        return;
    QQuickView *view = m_window.release();
    connect(view, &QObject::destroyed, qApp, [] { returnFreedMemory(); });
    view->deleteLater();
}

OnboardingWindow::~OnboardingWindow() = default;

void OnboardingWindow::present()
{
    if (!m_window)
        createView();
    m_window->show();
    m_window->raise();
    m_window->requestActivate();
}
