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
{
    connect(&history, &HistoryManager::sessionsChanged, this, &HistorySettingsModel::rowsChanged);
    connect(&speech, &SpeechManager::currentPlayingSessionIdChanged, this,
            &HistorySettingsModel::rowsChanged);
    connect(&speech, &SpeechManager::isPlayingChanged, this, &HistorySettingsModel::rowsChanged);
}

QString HistorySettingsModel::title(const QString &text)
{
    for (const QString &line : text.split(u'\n')) {
        if (const QString trimmed = line.trimmed(); !trimmed.isEmpty())
            return trimmed;
    }
    return {};
}

QVariantList HistorySettingsModel::rows() const
{
    const std::optional<QUuid> playing =
        m_speech.isPlaying() ? m_speech.currentPlayingSessionId() : std::nullopt;
    const QLocale locale;
    QVariantList list;
    for (const NarrationSession &session : m_history.sessions()) {
        list.append(QVariantMap{
            {QStringLiteral("id"), NarrationSession::canonicalId(session.id)},
            {QStringLiteral("title"), title(session.text)},
            {QStringLiteral("voice"), VoiceSettingsModel::voiceLabel(session.voice)},
            {QStringLiteral("date"), locale.toString(session.timestamp.toLocalTime(), QLocale::ShortFormat)},
            {QStringLiteral("duration"), session.formattedDuration()},
            {QStringLiteral("playing"), playing == session.id},
        });
    }
    return list;
}

void HistorySettingsModel::replay(const QString &id)
{
    const QUuid uuid(id);
    if (m_speech.isPlaying() && m_speech.currentPlayingSessionId() == uuid)
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
