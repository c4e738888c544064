// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QAbstractListModel>
#include <QList>
#include <QtQml/qqmlregistration.h>

// The History section's rows. A change updates, inserts or removes only the rows it touches, so that a
// view keeps its delegates, and the keyboard focus in them, across playing, pausing and deleting.
class HistoryListModel : public QAbstractListModel
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("The History section provides its rows")
    Q_PROPERTY(int count READ count NOTIFY countChanged)

public:
    struct Row
    {
        QString id;
        QString title; // the first line that is not blank
        QString text;  // all of it
        QString voice;
        QString date;
        QString duration;
        bool playing = false;
        bool operator==(const Row &) const = default;
    };
    enum Role {
        IdRole = Qt::UserRole + 1,
        TitleRole,
        TextRole,
        VoiceRole,
        DateRole,
        DurationRole,
        PlayingRole
    };

    using QAbstractListModel::QAbstractListModel;

    int count() const { return int(m_rows.size()); }
    const QList<Row> &rows() const { return m_rows; }
    // Rows keep their order relative to each other (the history only adds at the front and removes).
    void setRows(const QList<Row> &rows);

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

Q_SIGNALS:
    void countChanged();

private:
    QList<Row> m_rows;
};
