// SPDX-License-Identifier: GPL-3.0-or-later
#include "settings/HistoryListModel.h"

#include <QSet>

#include <algorithm>

void HistoryListModel::setRows(const QList<Row> &rows)
{
    const int before = count();
    QSet<QString> kept;
    for (const Row &row : rows)
        kept.insert(row.id);
    for (int i = count() - 1; i >= 0; --i) {
        if (!kept.contains(m_rows.at(i).id)) {
            beginRemoveRows({}, i, i);
            m_rows.removeAt(i);
            endRemoveRows();
        }
    }
    // What is left is a subsequence of `rows`: walk both, inserting what is new.
    for (int i = 0; i < rows.size(); ++i) {
        if (i < count() && m_rows.at(i).id == rows.at(i).id) {
            if (m_rows.at(i) != rows.at(i)) {
                m_rows[i] = rows.at(i);
                Q_EMIT dataChanged(index(i), index(i));
            }
            continue;
        }
        if (std::any_of(m_rows.cbegin() + i, m_rows.cend(),
                        [&](const Row &r) { return r.id == rows.at(i).id; })) {
            // Reordered, which the history never does: start over.
            beginResetModel();
            m_rows = rows;
            endResetModel();
            break;
        }
        beginInsertRows({}, i, i);
        m_rows.insert(i, rows.at(i));
        endInsertRows();
    }
    if (count() != before)
        Q_EMIT countChanged();
}

int HistoryListModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : count();
}

QVariant HistoryListModel::data(const QModelIndex &index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid))
        return {};
    const Row &row = m_rows.at(index.row());
    switch (role) {
    case IdRole:
        return row.id;
    case TitleRole:
        return row.title;
    case TextRole:
        return row.text;
    case VoiceRole:
        return row.voice;
    case DateRole:
        return row.date;
    case DurationRole:
        return row.duration;
    case PlayingRole:
        return row.playing;
    default:
        return {};
    }
}

QHash<int, QByteArray> HistoryListModel::roleNames() const
{
    return {{IdRole, "entryId"},        {TitleRole, "title"}, {TextRole, "fullText"},  {VoiceRole, "voice"},
            {DurationRole, "duration"}, {DateRole, "date"},   {PlayingRole, "playing"}};
}
