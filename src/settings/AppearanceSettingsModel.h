// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>
#include <QVariantList>
#include <QtQml/qqmlregistration.h>

#include <functional>

class SpeechManager;
class UserDefaults;

// The Appearance section: the widget's appearance and theme (held by the speech controller, applied to
// the widget at once), whether the widget shows while the user's own key is in use, and whether it
// follows along with the sentence being heard.
class AppearanceSettingsModel : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("The settings window provides its view models")
    // {name, description, panel, ink}: the preview in the widget's own colours.
    Q_PROPERTY(QVariantList appearances READ appearances CONSTANT)
    // {name, colors}: the theme's three colours, in gradient order.
    Q_PROPERTY(QVariantList themes READ themes CONSTANT)
    Q_PROPERTY(QString appearance READ appearance NOTIFY appearanceChanged)
    Q_PROPERTY(QString theme READ theme NOTIFY themeChanged)
    Q_PROPERTY(bool showWidgetWithOwnKey READ showWidgetWithOwnKey WRITE setShowWidgetWithOwnKey NOTIFY
                   showWidgetWithOwnKeyChanged)
    // "showFollowAlong": the full controls show the sentence being heard.
    Q_PROPERTY(
        bool showFollowAlong READ showFollowAlong WRITE setShowFollowAlong NOTIFY showFollowAlongChanged)

public:
    AppearanceSettingsModel(SpeechManager &speech, UserDefaults &defaults,
                            std::function<void()> ownKeyChanged, QObject *parent = nullptr);

    QVariantList appearances() const;
    QVariantList themes() const;
    QString appearance() const;
    QString theme() const;
    bool showWidgetWithOwnKey() const;
    void setShowWidgetWithOwnKey(bool show);
    bool showFollowAlong() const;
    void setShowFollowAlong(bool show);

    Q_INVOKABLE void selectAppearance(const QString &appearance);
    Q_INVOKABLE void selectTheme(const QString &theme);

Q_SIGNALS:
    void appearanceChanged();
    void themeChanged();
    void showWidgetWithOwnKeyChanged();
    void showFollowAlongChanged();

private:
    SpeechManager &m_speech;
    UserDefaults &m_defaults;
    std::function<void()> m_ownKeyChanged;
};
