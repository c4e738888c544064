// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "onboarding/OnboardingViewModel.h"

#include <QObject>

#include <memory>

class QQuickView;

// The first-run window: 550 × 500, titled "Quillvox", centred on the primary screen, drawing the flow's
// view model. Its owner closes it when onboarding completes. Closed before that, it releases its view
// (the QML and its engine) and present() loads it again on the step the flow is at.
class OnboardingWindow : public QObject
{
    Q_OBJECT

public:
    static constexpr int kWidth = 550;
    static constexpr int kHeight = 500;

    explicit OnboardingWindow(OnboardingViewModel::Services services, QObject *parent = nullptr);
    ~OnboardingWindow() override;

    OnboardingViewModel *viewModel() const { return m_viewModel; }
    // The view, from construction or present() until the event loop runs after it was closed.
    QQuickView *window() const { return m_window.get(); }

    // Shows the window, brings it to the front and asks for the keyboard focus.
    void present();

private:
    void createView();
    void releaseViewIfHidden();

    OnboardingViewModel *m_viewModel;
    std::unique_ptr<QQuickView> m_window;
};
