// SPDX-License-Identifier: GPL-3.0-or-later
#include "settings/AppearanceSettingsModel.h"

#include "core/UserDefaults.h"
#include "speech/FollowAlong.h"
#include "speech/SpeechManager.h"
#include "widget/FloatingWindowController.h"
#include "widget/WidgetPalette.h"

namespace {
QString showWithOwnKeyKey()
{
    return QString::fromLatin1(FloatingWindowController::kShowWithOwnKeyKey);
}
} // namespace

AppearanceSettingsModel::AppearanceSettingsModel(SpeechManager &speech, UserDefaults &defaults,
                                                 std::function<void()> ownKeyChanged, QObject *parent)
    : QObject(parent)
    , m_speech(speech)
    , m_defaults(defaults)
    , m_ownKeyChanged(std::move(ownKeyChanged))
{
    connect(&speech, &SpeechManager::widgetAppearanceChanged, this,
            &AppearanceSettingsModel::appearanceChanged);
    connect(&speech, &SpeechManager::widgetThemeChanged, this, &AppearanceSettingsModel::themeChanged);
    connect(speech.followAlong(), &FollowAlong::isEnabledChanged, this,
            &AppearanceSettingsModel::showFollowAlongChanged);
}

QVariantList AppearanceSettingsModel::appearances() const
{
    QVariantList list;
    for (WidgetAppearance appearance : allWidgetAppearances()) {
        // The preview is the widget's own panel and ink in that appearance.
        const WidgetPalette palette = WidgetPalette::make(WidgetTheme::Default, appearance);
        list.append(QVariantMap{{QStringLiteral("name"), rawValue(appearance)},
                                {QStringLiteral("description"), appearanceDescription(appearance)},
                                {QStringLiteral("panel"), palette.panel},
                                {QStringLiteral("ink"), palette.foreground}});
    }
    return list;
}

QVariantList AppearanceSettingsModel::themes() const
{
    QVariantList list;
    for (WidgetTheme theme : allWidgetThemes()) {
        QVariantList colors;
        for (const QColor &color : WidgetPalette::themeColorsOf(theme))
            colors.append(color);
        list.append(
            QVariantMap{{QStringLiteral("name"), rawValue(theme)}, {QStringLiteral("colors"), colors}});
    }
    return list;
}

QString AppearanceSettingsModel::appearance() const
{
    return m_speech.widgetAppearanceRawValue();
}

QString AppearanceSettingsModel::theme() const
{
    return m_speech.widgetThemeRawValue();
}

bool AppearanceSettingsModel::showWidgetWithOwnKey() const
{
    return m_defaults.boolean(showWithOwnKeyKey()).value_or(false);
}

void AppearanceSettingsModel::setShowWidgetWithOwnKey(bool show)
{
    if (show == showWidgetWithOwnKey())
        return;
    m_defaults.setBoolean(showWithOwnKeyKey(), show);
    Q_EMIT showWidgetWithOwnKeyChanged();
    if (m_ownKeyChanged)
        m_ownKeyChanged();
}

bool AppearanceSettingsModel::showFollowAlong() const
{
    return m_speech.followAlong()->isEnabled();
}

void AppearanceSettingsModel::setShowFollowAlong(bool show)
{
    m_speech.followAlong()->setEnabled(show);
}

void AppearanceSettingsModel::selectAppearance(const QString &appearance)
{
    m_speech.setWidgetAppearanceRawValue(appearance);
}

void AppearanceSettingsModel::selectTheme(const QString &theme)
{
    m_speech.setWidgetThemeRawValue(theme);
}
