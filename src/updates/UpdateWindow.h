// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "updates/UpdateChecker.h"

#include <QObject>
#include <QUrl>
#include <QtQml/qqmlregistration.h>

#include <functional>
#include <memory>

class QQuickView;

// What the update window shows and what its buttons do; the window only draws it.
class UpdateViewModel : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("the update window creates it")
    Q_PROPERTY(State state READ state NOTIFY changed)
    Q_PROPERTY(QString headline READ headline NOTIFY changed)
    Q_PROPERTY(QString detail READ detail NOTIFY changed)
    Q_PROPERTY(bool hasReleaseNotes READ hasReleaseNotes NOTIFY changed)

public:
    enum class State { Checking, UpToDate, Available, Failed };
    Q_ENUM(State)

    explicit UpdateViewModel(UpdateChecker &checker, std::function<void(const QUrl &)> openUrl,
                             QObject *parent = nullptr);

    State state() const { return m_state; }
    QString headline() const;
    QString detail() const;
    bool hasReleaseNotes() const { return m_result.item && m_result.item->releaseNotes.isValid(); }

    void showChecking();
    void showResult(const UpdateChecker::Result &result);

    Q_INVOKABLE void download();
    Q_INVOKABLE void openReleaseNotes();
    Q_INVOKABLE void skipThisVersion();
    Q_INVOKABLE void remindLater();

Q_SIGNALS:
    void changed();
    void closeRequested();

private:
    UpdateChecker &m_checker;
    std::function<void(const QUrl &)> m_openUrl;
    State m_state = State::Checking;
    UpdateChecker::Result m_result;
};

// The small window of "Check for Updates...": checking, then up to date, a new version, or the failure.
class UpdateWindow : public QObject
{
    Q_OBJECT
public:
    // `openUrl` none: the desktop's browser.
    explicit UpdateWindow(UpdateChecker &checker, std::function<void(const QUrl &)> openUrl = {},
                          QObject *parent = nullptr);
    ~UpdateWindow() override;

    // Shows the window and asks the feed; a second call while checking only raises it.
    void checkForUpdates();
    // Shows what an automatic check found.
    void showResult(const UpdateChecker::Result &result);

    UpdateViewModel *viewModel() const { return m_viewModel; }
    QQuickView *window() const { return m_window.get(); }

private:
    void present();

    UpdateChecker &m_checker;
    UpdateViewModel *m_viewModel;
    std::unique_ptr<QQuickView> m_window;
};
