// SPDX-License-Identifier: GPL-3.0-or-later
#include "updates/UpdateWindow.h"

#include <QDesktopServices>
#include <QQmlEngine>
#include <QQuickView>
#include <QtQml/qqmlextensionplugin.h>

Q_IMPORT_QML_PLUGIN(Quillvox_UpdatesPlugin)
Q_IMPORT_QML_PLUGIN(Quillvox_ControlsPlugin)

UpdateViewModel::UpdateViewModel(UpdateChecker &checker, std::function<void(const QUrl &)> openUrl,
                                 QObject *parent)
    : QObject(parent)
    , m_checker(checker)
    , m_openUrl(std::move(openUrl))
{}

QString UpdateViewModel::headline() const
{
    return m_state == State::Checking ? QStringLiteral("Checking for updates...") : m_result.headline();
}

QString UpdateViewModel::detail() const
{
    switch (m_state) {
    case State::Checking:
        return {};
    case State::UpToDate:
        return QStringLiteral("Quillvox %1 is the newest version.").arg(m_result.currentVersion);
    case State::Available:
        return QStringLiteral(
                   "You have %1. Install the new version with your package manager, or download it.")
            .arg(m_result.currentVersion);
    case State::Failed:
        break;
    }
    return QStringLiteral("Check your connection and try again later.");
}

void UpdateViewModel::showChecking()
{
    m_state = State::Checking;
    Q_EMIT changed();
}

void UpdateViewModel::showResult(const UpdateChecker::Result &result)
{
    using Outcome = UpdateChecker::Result::Outcome;
    m_result = result;
    m_state = result.outcome == Outcome::Available  ? State::Available
              : result.outcome == Outcome::UpToDate ? State::UpToDate
                                                    : State::Failed;
    Q_EMIT changed();
}

void UpdateViewModel::download()
{
    if (m_result.item && m_result.item->link.isValid())
        m_openUrl(m_result.item->link);
    Q_EMIT closeRequested();
}

void UpdateViewModel::openReleaseNotes()
{
    if (hasReleaseNotes())
        m_openUrl(m_result.item->releaseNotes);
}

void UpdateViewModel::skipThisVersion()
{
    if (m_result.item)
        m_checker.skipVersion(m_result.item->version);
    Q_EMIT closeRequested();
}

void UpdateViewModel::remindLater()
{
    Q_EMIT closeRequested();
}

UpdateWindow::UpdateWindow(UpdateChecker &checker, std::function<void(const QUrl &)> openUrl, QObject *parent)
    : QObject(parent)
    , m_checker(checker)
{
    if (!openUrl)
        openUrl = [](const QUrl &url) { QDesktopServices::openUrl(url); };
    m_viewModel = new UpdateViewModel(checker, std::move(openUrl), this);
    m_window = std::make_unique<QQuickView>();
    m_window->engine()->addImportPath(QStringLiteral("qrc:/qt/qml"));
    m_window->setTitle(QStringLiteral("Software Update"));
    m_window->setResizeMode(QQuickView::SizeRootObjectToView);
    m_window->setFlags(Qt::Dialog);
    m_window->setInitialProperties({{QStringLiteral("viewModel"), QVariant::fromValue(m_viewModel)}});
    m_window->setSource(QUrl(QStringLiteral("qrc:/qt/qml/Quillvox/Updates/UpdateView.qml")));
    m_window->setMinimumSize(QSize(560, 170));
    m_window->resize(560, 170);
    connect(m_viewModel, &UpdateViewModel::closeRequested, m_window.get(), &QWindow::close);
    connect(&checker, &UpdateChecker::finished, m_viewModel, &UpdateViewModel::showResult);
}

UpdateWindow::~UpdateWindow() = default;

void UpdateWindow::present()
{
    m_window->show();
    m_window->raise();
    m_window->requestActivate();
}

void UpdateWindow::checkForUpdates()
{
    present();
    if (m_checker.isChecking())
        return;
    m_viewModel->showChecking();
    m_checker.checkForUpdates();
}

void UpdateWindow::showResult(const UpdateChecker::Result &result)
{
    m_viewModel->showResult(result);
    present();
}
