// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>
#include <QVariantList>
#include <QtQml/qqmlregistration.h>

#include <functional>

class HistoryManager;
class SpeechManager;

// The History section: the kept narrations, newest first, with replay, deletion and export.
class HistorySettingsModel : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("The settings window provides its view models")
    // {id, title, voice, date, duration, playing}
    Q_PROPERTY(QVariantList rows READ rows NOTIFY rowsChanged)
    // The outcome of the last export, for the user.
    Q_PROPERTY(QString exportMessage READ exportMessage NOTIFY exportMessageChanged)

public:
    using ChooseExportPath =
        std::function<void(const QString &suggestedName, std::function<void(const QString &)> done)>;

    HistorySettingsModel(HistoryManager &history, SpeechManager &speech, ChooseExportPath chooseExportPath,
                         QObject *parent = nullptr);

    // The first line of the text that is not blank, trimmed.
    static QString title(const QString &text);

    QVariantList rows() const;
    QString exportMessage() const { return m_exportMessage; }

    Q_INVOKABLE void replay(const QString &id);
    Q_INVOKABLE void remove(const QString &id);
    Q_INVOKABLE void clearAll();
    Q_INVOKABLE void exportSession(const QString &id);

Q_SIGNALS:
    void rowsChanged();
    void exportMessageChanged();

private:
    void setExportMessage(const QString &message);

    HistoryManager &m_history;
    SpeechManager &m_speech;
    ChooseExportPath m_chooseExportPath;
    QString m_exportMessage;
};
