// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/StatusMenuState.h"

#include <QTest>

class TestStatusMenuState : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // state: which of playing, processing, content, expanded are true. items: "narrate" and "expand"
    // where offered, "|" for the separator after them where shown, "pause" and "stop" where enabled.
    void items_data()
    {
        QTest::addColumn<QString>("state");
        QTest::addColumn<QString>("items");
        QTest::addColumn<QString>("pauseLabel");

        const auto row = [](const char *name, const char *state, const char *items, const char *pauseLabel) {
            QTest::newRow(name) << QString::fromLatin1(state) << QString::fromLatin1(items)
                                << QString::fromLatin1(pauseLabel);
        };
        row("fresh start", "", "narrate expand |", "Pause Narration");
        row("fresh, widget expanded", "expanded", "narrate |", "Pause Narration");
        row("generating", "processing", "stop", "Generating...");
        row("generating over old audio", "processing content", "stop", "Generating...");
        row("generating, expanded", "processing expanded", "stop", "Generating...");
        row("playing", "playing content", "pause stop", "Pause Narration");
        row("playing, expanded", "playing content expanded", "pause stop", "Pause Narration");
        row("paused", "content", "narrate expand | pause stop", "Pause Narration");
        row("paused, expanded", "content expanded", "narrate | pause stop", "Pause Narration");
    }

    void items()
    {
        QFETCH(QString, state);

        const QStringList flags = state.split(u' ', Qt::SkipEmptyParts);
        const StatusMenuState menu =
            StatusMenuState::compute(flags.contains(u"playing"), flags.contains(u"processing"),
                                     flags.contains(u"content"), flags.contains(u"expanded"));

        QStringList items;
        for (const auto &[shown, item] : {std::pair(menu.narrateOffered, "narrate"),
                                          {menu.expandOffered, "expand"},
                                          {menu.narrateSeparatorShown, "|"},
                                          {menu.pauseEnabled, "pause"},
                                          {menu.stopEnabled, "stop"}})
            if (shown)
                items.append(QString::fromLatin1(item));
        QTEST(items.join(u' '), "items");
        QTEST(menu.pauseLabel, "pauseLabel");
    }
};

QTEST_APPLESS_MAIN(TestStatusMenuState)
#include "tst_statusmenustate.moc"
