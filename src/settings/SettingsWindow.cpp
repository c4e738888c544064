// SPDX-License-Identifier: GPL-3.0-or-later
#include "settings/SettingsWindow.h"

#include "core/AppEvents.h"
#include "core/Logging.h"
#include "settings/SettingsViewModel.h"

#include <QGuiApplication>
#include <QQmlEngine>
#include <QQuickView>
#include <QScreen>
#include <QtQml/qqmlextensionplugin.h>

Q_IMPORT_QML_PLUGIN(Quillvox_SettingsPlugin)

SettingsWindow::SettingsWindow(std::optional<SettingsSection> initialSection, QQmlEngine *engine,
                               QObject *parent)
    : QObject(parent)
    , m_viewModel(new SettingsViewModel(initialSection, this))
    , m_window(engine ? std::make_unique<QQuickView>(engine, nullptr) : std::make_unique<QQuickView>())
{
    // Before Qt 6.5 the engine does not look in the resources for modules by default.
    m_window->engine()->addImportPath(QStringLiteral("qrc:/qt/qml"));
    m_window->setTitle(QStringLiteral("Settings"));
    m_window->setResizeMode(QQuickView::SizeRootObjectToView);
    m_window->setMinimumSize(QSize(kMinimumWidth, kMinimumHeight));
    m_window->resize(kMinimumWidth, kMinimumHeight);
    if (const QScreen *screen = QGuiApplication::primaryScreen()) {
        const QRect available = screen->availableGeometry();
        m_window->setPosition(available.center() - QPoint(kMinimumWidth / 2, kMinimumHeight / 2));
    }
    m_window->setInitialProperties({{QStringLiteral("viewModel"), QVariant::fromValue(m_viewModel)}});
    m_window->setSource(QUrl(QStringLiteral("qrc:/qt/qml/Quillvox/Settings/SettingsView.qml")));
    for (const QQmlError &error : m_window->errors())
        qCWarning(lcApp).noquote() << error.toString();

    connect(&AppEvents::shared(), &AppEvents::navigateToSettingsSection, m_viewModel,
            &SettingsViewModel::selectLabel);
}

SettingsWindow::~SettingsWindow() = default;

void SettingsWindow::present()
{
    m_window->show();
    m_window->raise();
    m_window->requestActivate();
}
