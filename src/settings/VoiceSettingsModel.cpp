// SPDX-License-Identifier: GPL-3.0-or-later
#include "settings/VoiceSettingsModel.h"

#include "speech/SpeechManager.h"
#include "speech/VoiceStyle.h"

VoiceSettingsModel::VoiceSettingsModel(SpeechManager &speech, QObject *parent)
    : QObject(parent)
    , m_speech(speech)
{
    connect(&speech, &SpeechManager::selectedVoiceChanged, this, &VoiceSettingsModel::voiceChanged);
    connect(&speech, &SpeechManager::selectedVoiceStyleChanged, this, &VoiceSettingsModel::styleChanged);
    connect(&speech, &SpeechManager::playbackSpeedChanged, this, &VoiceSettingsModel::speedChanged);
    connect(&speech, &SpeechManager::availableVoicesChanged, this, &VoiceSettingsModel::voicesChanged);
}

QString VoiceSettingsModel::voiceLabel(const QString &voice)
{
    return voiceDisplayName(voice);
}

QString VoiceSettingsModel::speedLabel(double speed)
{
    return QString::number(speed) + u'×';
}

QVariantList VoiceSettingsModel::voices() const
{
    QVariantList list;
    for (const QString &voice : m_speech.availableVoices())
        list.append(
            QVariantMap{{QStringLiteral("name"), voice}, {QStringLiteral("label"), voiceLabel(voice)}});
    return list;
}

QVariantList VoiceSettingsModel::styles() const
{
    QVariantList list;
    for (VoiceStyle style : VoiceStyle::allCases())
        list.append(QVariantMap{{QStringLiteral("name"), style.rawValue()},
                                {QStringLiteral("subtitle"), style.subtitle()},
                                {QStringLiteral("icon"), style.iconName()}});
    return list;
}

QVariantList VoiceSettingsModel::speeds() const
{
    QVariantList list;
    for (float speed : playbackSpeeds())
        list.append(QVariantMap{{QStringLiteral("value"), double(speed)},
                                {QStringLiteral("label"), speedLabel(double(speed))}});
    return list;
}

QString VoiceSettingsModel::voice() const
{
    return m_speech.selectedVoice();
}

QString VoiceSettingsModel::style() const
{
    return m_speech.selectedVoiceStyleRawValue();
}

double VoiceSettingsModel::speed() const
{
    return double(m_speech.playbackSpeed());
}

void VoiceSettingsModel::selectVoice(const QString &voice)
{
    if (m_speech.availableVoices().contains(voice))
        m_speech.setSelectedVoice(voice);
}

void VoiceSettingsModel::selectStyle(const QString &style)
{
    if (const std::optional<VoiceStyle> chosen = VoiceStyle::fromRawValue(style))
        m_speech.setSelectedVoiceStyle(*chosen);
}

void VoiceSettingsModel::selectSpeed(double speed)
{
    // QML hands doubles over; only the listed floats are speeds.
    for (float listed : playbackSpeeds()) {
        if (double(listed) == speed)
            m_speech.setPlaybackSpeed(listed);
    }
}

void VoiceSettingsModel::previewVoice(const QString &voice)
{
    if (m_speech.availableVoices().contains(voice))
        m_speech.playVoicePreview(voice);
}
