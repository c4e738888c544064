// SPDX-License-Identifier: GPL-3.0-or-later
#include "settings/SettingsWindow.h"

#include "core/AppEvents.h"
#include "core/FreedMemory.h"
#include "core/Logging.h"
#include "platform/dbus/SecretServiceWatcher.h"
#include "settings/SettingsViewModel.h"
#include "widget/IconProvider.h"

#include <QApplication>
#include <QFileDialog>
#include <QGuiApplication>
#include <QQmlEngine>
#include <QQuickView>
#include <QScreen>
#include <QStandardPaths>
#include <QTimer>
#include <QtQml/qqmlextensionplugin.h>

Q_IMPORT_QML_PLUGIN(Quillvox_SettingsPlugin)
Q_IMPORT_QML_PLUGIN(Quillvox_ShortcutsPlugin)
Q_IMPORT_QML_PLUGIN(Quillvox_ControlsPlugin)

namespace {

// Asynchronous, so that no nested event loop runs under the view model.
void chooseExportPathWithDialog(const QString &suggestedName, std::function<void(const QString &)> done)
{
    auto *dialog = new QFileDialog(nullptr, QStringLiteral("Export Narration"),
                                   QStandardPaths::writableLocation(QStandardPaths::MusicLocation));
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setAcceptMode(QFileDialog::AcceptSave);
    dialog->setNameFilters({QStringLiteral("FLAC audio (*.flac)"), QStringLiteral("WAV audio (*.wav)"),
                            QStringLiteral("Ogg Vorbis audio (*.ogg)")});
    dialog->selectFile(suggestedName);
    // The extension chooses the format, so a name typed without one gets the chosen filter's.
    QObject::connect(dialog, &QFileDialog::filterSelected, dialog, [dialog](const QString &filter) {
        const QString extension = filter.section(QStringLiteral("*."), 1).chopped(1);
        dialog->setDefaultSuffix(extension);
    });
    dialog->setDefaultSuffix(QStringLiteral("flac"));
    QObject::connect(dialog, &QFileDialog::fileSelected, dialog,
                     [done = std::move(done)](const QString &path) {
                         if (!path.isEmpty())
                             done(path);
                     });
    dialog->open();
}

SettingsServices withDialogs(SettingsServices services)
{
    if (!services.chooseExportPath && qobject_cast<QApplication *>(QCoreApplication::instance()))
        services.chooseExportPath = chooseExportPathWithDialog;
    return services;
}

} // namespace

SettingsWindow::SettingsWindow(std::optional<SettingsSection> initialSection, SettingsServices services,
                               QQmlEngine *engine, QObject *parent)
    : QObject(parent)
    , m_viewModel(new SettingsViewModel(initialSection, withDialogs(std::move(services)), this))
    , m_engine(engine)
{
    createView();
    connect(&AppEvents::shared(), &AppEvents::navigateToSettingsSection, m_viewModel,
            &SettingsViewModel::selectLabel);
    if (ApiKeySettingsModel *apiKeys = m_viewModel->apiKeys()) {
        // A save is a deletion and a creation: read the keyring once they have both arrived.
        auto *reload = new QTimer(this);
        reload->setSingleShot(true);
        reload->setInterval(100);
        connect(reload, &QTimer::timeout, apiKeys, &ApiKeySettingsModel::reloadKey);
        auto *keyring = new SecretServiceWatcher(this);
        connect(keyring, &SecretServiceWatcher::itemsChanged, reload, qOverload<>(&QTimer::start));
    }
}

void SettingsWindow::createView()
{
    m_window = m_engine ? std::make_unique<QQuickView>(m_engine, nullptr) : std::make_unique<QQuickView>();
    // Before Qt 6.5 the engine does not look in the resources for modules by default.
    m_window->engine()->addImportPath(QStringLiteral("qrc:/qt/qml"));
    // A shared engine may have it from another window already.
    if (!m_window->engine()->imageProvider(QLatin1String(IconProvider::kProviderId)))
        m_window->engine()->addImageProvider(QLatin1String(IconProvider::kProviderId), new IconProvider);
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
    connect(m_window.get(), &QWindow::activeChanged, m_viewModel, [this, view = m_window.get()] {
        if (view->isActive())
            m_viewModel->windowActivated();
    });
    // Released from the event loop: closing may come from inside the window's own handlers.
    connect(m_window.get(), &QWindow::visibleChanged, this, [this](bool visible) {
        if (!visible)
            QTimer::singleShot(0, this, &SettingsWindow::releaseViewIfHidden);
    });
}

void SettingsWindow::releaseViewIfHidden()
{
    if (!m_window || m_window->isVisible())
        return;
    QQuickView *view = m_window.release();
    connect(view, &QObject::destroyed, qApp, [] { returnFreedMemory(); });
    view->deleteLater();
}

void SettingsWindow::adoptServices(const SettingsServices &latest)
{
    m_viewModel->adoptServices(latest);
}

SettingsWindow::~SettingsWindow() = default;

void SettingsWindow::present()
{
    if (!m_window)
        createView();
    m_viewModel->refreshShownSection();
    m_window->show();
    m_window->raise();
    m_window->requestActivate();
}
