// SPDX-License-Identifier: GPL-3.0-or-later
#include "settings/HistorySettingsModel.h"

#include "records/HistoryManager.h"
#include "settings/VoiceSettingsModel.h"
#include "speech/SpeechManager.h"

#include <QFileInfo>
#include <QLocale>

HistorySettingsModel::HistorySettingsModel(HistoryManager &history, SpeechManager &speech,
                                           ChooseExportPath chooseExportPath, QObject *parent)
    : QObject(parent)
    , m_history(history)
    , m_speech(speech)
    , m_chooseExportPath(std::move(chooseExportPath))
    , m_entries(new HistoryListModel(this))
{
    updateEntries();
    connect(&history, &HistoryManager::sessionsChanged, this, &HistorySettingsModel::updateEntries);
    connect(&speech, &SpeechManager::currentPlayingSessionIdChanged, this,
            &HistorySettingsModel::updateEntries);
    connect(&speech, &SpeechManager::isPlayingChanged, this, &HistorySettingsModel::updateEntries);
}

QString HistorySettingsModel::title(const QString &text)
{
    for (const QString &line : text.split(u'\n')) {
        if (const QString trimmed = line.trimmed(); !trimmed.isEmpty())
            return trimmed;
    }
    return {};
}

void HistorySettingsModel::updateEntries()
{
    const std::optional<QUuid> playing =
        m_speech.isPlaying() ? m_speech.currentPlayingSessionId() : std::nullopt;
    const QLocale locale;
    QList<HistoryListModel::Row> rows;
    for (const NarrationSession &session : m_history.sessions()) {
        rows.append({NarrationSession::canonicalId(session.id), title(session.text), session.text,
                     VoiceSettingsModel::voiceLabel(session.voice),
                     locale.toString(session.timestamp.toLocalTime(), QLocale::ShortFormat),
                     session.formattedDuration(), playing == session.id});
    }
    m_entries->setRows(rows);
}

void HistorySettingsModel::replay(const QString &id)
{
    const QUuid uuid(id);
    if (m_speech.currentPlayingSessionId() == uuid && m_speech.hasContent())
        m_speech.togglePlayPause();
    else
        m_speech.playFromHistory(uuid);
}

void HistorySettingsModel::remove(const QString &id)
{
    const QUuid uuid(id);
    if (m_speech.currentPlayingSessionId() == uuid)
        m_speech.stop();
    m_history.deleteSession(uuid);
}

void HistorySettingsModel::clearAll()
{
    if (m_speech.currentPlayingSessionId())
        m_speech.stop();
    m_history.clearAll();
}

void HistorySettingsModel::exportSession(const QString &id)
{
    if (!m_chooseExportPath)
        return;
    const QUuid uuid(id);
    const QString suggested = QStringLiteral("Quillvox narration.flac");
    m_chooseExportPath(suggested, [this, uuid](const QString &path) {
        const HistoryManager::ExportResult result = m_history.exportAudio(uuid, path);
        setExportMessage(result ? QStringLiteral("Exported to %1").arg(QFileInfo(path).fileName())
                                : result.errorString);
    });
}

void HistorySettingsModel::setExportMessage(const QString &message)
{
    m_exportMessage = message;
    Q_EMIT exportMessageChanged();
}
