// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "settings/HistoryListModel.h"

#include <QObject>
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
    Q_PROPERTY(HistoryListModel *entries READ entries CONSTANT)
    // The outcome of the last export, for the user.
    Q_PROPERTY(QString exportMessage READ exportMessage NOTIFY exportMessageChanged)

public:
    using ChooseExportPath =
        std::function<void(const QString &suggestedName, std::function<void(const QString &)> done)>;

    HistorySettingsModel(HistoryManager &history, SpeechManager &speech, ChooseExportPath chooseExportPath,
                         QObject *parent = nullptr);

    // The first line of the text that is not blank, trimmed.
    static QString title(const QString &text);

    HistoryListModel *entries() const { return m_entries; }
    QString exportMessage() const { return m_exportMessage; }

    // Plays the entry from its start; the entry that is loaded and paused resumes instead.
    Q_INVOKABLE void replay(const QString &id);
    Q_INVOKABLE void remove(const QString &id);
    Q_INVOKABLE void clearAll();
    Q_INVOKABLE void exportSession(const QString &id);

Q_SIGNALS:
    void exportMessageChanged();

private:
    void setExportMessage(const QString &message);
    void updateEntries();

    HistoryManager &m_history;
    SpeechManager &m_speech;
    ChooseExportPath m_chooseExportPath;
    HistoryListModel *m_entries;
    QString m_exportMessage;
};
