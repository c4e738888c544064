// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "widget/FloatingWidgetViewModel.h"

#include <QObject>
#include <QPoint>
#include <QPointer>
#include <QtQml/qqmlregistration.h>

#include <memory>
#include <optional>

class AuthManager;
class Clock;
class KeychainHelper;
class PanelWindowHints;
class QQmlEngine;
class QQuickView;
class SpeechManager;
class UserDefaults;

// Owns the widget's panel: a frameless, always-on-top window on every workspace that never takes the
// keyboard focus, placed at the top centre of the primary screen and shown while the user is signed in
// (or, when they asked for it, while they use their own key).
class FloatingWindowController : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("the application creates the widget's window")
    Q_PROPERTY(bool isVisible READ isWidgetVisible NOTIFY visibilityChanged)

public:
    static constexpr int kPanelWidth = 340;
    static constexpr int kPanelHeight = 140;
    static constexpr int kTopGap = 40;
    static constexpr int kCornerRadius = 16;
    // What the panel grows by, downwards, while the full controls show the sentence being heard.
    static constexpr int kFollowAlongHeight = 44;

    struct Services
    {
        SpeechManager *speech = nullptr;
        AuthManager *auth = nullptr;             // none: visibility only by showWidget()/hideWidget()
        KeychainHelper *keychain = nullptr;      // for the own-key rule
        UserDefaults *defaults = nullptr;        // "showWidgetWithOwnKey"
        Clock *clock = nullptr;                  // none: the system clock
        std::unique_ptr<PanelWindowHints> hints; // none: no window-manager hints
        QQmlEngine *engine = nullptr;            // none: one of its own
    };

    explicit FloatingWindowController(Services services, QObject *parent = nullptr);
    ~FloatingWindowController() override;

    // The process-wide controller: installed by the application, or else created on first use with the
    // production services (which needs the shared speech controller and account).
    static FloatingWindowController &shared();
    static bool hasShared();
    static void installShared(FloatingWindowController *controller);

    FloatingWidgetViewModel *viewModel() const { return m_viewModel; }
    // The panel while it is shown: made by showWidget(), released with its QML by hideWidget().
    QQuickView *window() const { return m_window.get(); }

    // Places the panel at the top centre of the primary screen's available area and raises it without
    // activating it.
    Q_INVOKABLE void showWidget();
    Q_INVOKABLE void hideWidget();
    bool isWidgetVisible() const;

    // Follows the account: signed out hides, signed in shows and re-centres, unknown leaves it be.
    void subscribeToAuthState();
    // Applies the visibility rule to the current state; call it when the own key was saved or removed.
    Q_INVOKABLE void updateVisibility();

    // Dragging the panel by its background; positions are global, in logical pixels.
    Q_INVOKABLE void pressAt(QPointF globalPosition);
    Q_INVOKABLE void dragTo(QPointF globalPosition);
    Q_INVOKABLE void release();

    static constexpr const char *kShowWithOwnKeyKey = "showWidgetWithOwnKey";

Q_SIGNALS:
    void visibilityChanged();

private:
    void createWindow();
    void releaseWindow();
    void applyShape();
    void fitHeight();

    Services m_services;
    std::unique_ptr<QQmlEngine> m_ownEngine;
    QPointer<FloatingWidgetViewModel> m_viewModel;
    std::unique_ptr<QQuickView> m_window;
    QPointer<QQuickView> m_releasedWindow; // released, its deletion not yet come
    bool m_authSubscribed = false;
    std::optional<QPointF> m_pressPosition;
    QPoint m_windowAtPress;
};
