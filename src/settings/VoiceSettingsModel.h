// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>
#include <QVariantList>
#include <QtQml/qqmlregistration.h>

class SpeechManager;

// The Voice section: voice, speaking style and playback speed, all held by the speech controller.
class VoiceSettingsModel : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("The settings window provides its view models")
    // {name, label}: "cedar" is shown as "Cedar".
    Q_PROPERTY(QVariantList voices READ voices NOTIFY voicesChanged)
    // {name, subtitle, icon}: the icon is one of our symbols, "image://quillvox-icons/<icon>/<colour>".
    Q_PROPERTY(QVariantList styles READ styles CONSTANT)
    // {value, label}: 1.25 is shown as "1.25×".
    Q_PROPERTY(QVariantList speeds READ speeds CONSTANT)
    Q_PROPERTY(QString voice READ voice NOTIFY voiceChanged)
    Q_PROPERTY(QString style READ style NOTIFY styleChanged)
    Q_PROPERTY(double speed READ speed NOTIFY speedChanged)

public:
    explicit VoiceSettingsModel(SpeechManager &speech, QObject *parent = nullptr);

    static QString voiceLabel(const QString &voice);
    static QString speedLabel(double speed);

    QVariantList voices() const;
    QVariantList styles() const;
    QVariantList speeds() const;
    QString voice() const;
    QString style() const;
    double speed() const;

    Q_INVOKABLE void selectVoice(const QString &voice);
    Q_INVOKABLE void selectStyle(const QString &style);
    Q_INVOKABLE void selectSpeed(double speed);
    Q_INVOKABLE void previewVoice(const QString &voice);

Q_SIGNALS:
    void voicesChanged();
    void voiceChanged();
    void styleChanged();
    void speedChanged();

private:
    SpeechManager &m_speech;
};
