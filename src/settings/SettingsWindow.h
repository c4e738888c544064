// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "settings/SettingsSection.h"
#include "settings/SettingsServices.h"

#include <QObject>

#include <memory>
#include <optional>

class QQmlEngine;
class QQuickView;
class SettingsViewModel;

// The settings window: a sidebar of sections and the chosen section's page. The owner keeps one for the
// life of the process; closing it releases its view (the QML and, unless shared, its engine) and
// present() loads it again on the section it had. Follows "navigateToSettingsSection" while it exists.
class SettingsWindow : public QObject
{
    Q_OBJECT

public:
    static constexpr int kMinimumWidth = 900;
    static constexpr int kMinimumHeight = 600;

    // `engine` none: one of its own. Without services every section but About is left empty.
    explicit SettingsWindow(std::optional<SettingsSection> initialSection = std::nullopt,
                            SettingsServices services = {}, QQmlEngine *engine = nullptr,
                            QObject *parent = nullptr);
    ~SettingsWindow() override;

    SettingsViewModel *viewModel() const { return m_viewModel; }
    // The view, from construction or present() until the event loop runs after it was closed.
    QQuickView *window() const { return m_window.get(); }

    // Shows the window, brings it to the front and asks for the keyboard focus.
    void present();
    // See SettingsViewModel::adoptServices.
    void adoptServices(const SettingsServices &latest);

private:
    void createView();
    void releaseViewIfHidden();

    SettingsViewModel *m_viewModel;
    QQmlEngine *m_engine;
    std::unique_ptr<QQuickView> m_window;
};
