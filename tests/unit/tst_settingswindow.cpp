// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/AppEvents.h"
#include "settings/SettingsViewModel.h"
#include "settings/SettingsWindow.h"

#include <QQuickItem>
#include <QQuickView>
#include <QQuickWindow>
#include <QTest>

Q_DECLARE_METATYPE(SettingsSection)
Q_DECLARE_METATYPE(std::optional<SettingsSection>)

namespace {

// By the visual tree: view delegates have no QObject parent to be found by.
QQuickItem *findItem(QQuickItem *item, const QString &objectName)
{
    if (item->objectName() == objectName)
        return item;
    for (QQuickItem *child : item->childItems()) {
        if (QQuickItem *found = findItem(child, objectName))
            return found;
    }
    return nullptr;
}

QQuickItem *findItem(const SettingsWindow &settings, const QString &objectName)
{
    return findItem(settings.window()->rootObject(), objectName);
}

} // namespace

class TestSettingsWindow : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
        QCoreApplication::setApplicationVersion(QStringLiteral("1.2.3"));
    }

    void sectionsByLabel()
    {
        const QStringList labels{QStringLiteral("Account"),    QStringLiteral("Voice"),
                                 QStringLiteral("Appearance"), QStringLiteral("Shortcuts"),
                                 QStringLiteral("API Keys"),   QStringLiteral("History"),
                                 QStringLiteral("Usage"),      QStringLiteral("About")};
        QCOMPARE(SettingsViewModel().sections(), labels);
        for (const QString &label : labels)
            QCOMPARE(settingsSectionLabel(settingsSectionFromLabel(label).value()), label);
        QVERIFY(!settingsSectionFromLabel(QStringLiteral("shortcuts")));
        QVERIFY(!settingsSectionFromLabel(QString()));
    }

    void frame()
    {
        SettingsWindow settings;
        QQuickView *window = settings.window();
        QCOMPARE(window->status(), QQuickView::Ready);
        QCOMPARE(window->title(), QStringLiteral("Settings"));
        QCOMPARE(window->minimumSize(), QSize(900, 600));
        QCOMPARE(settings.viewModel()->currentSection(), SettingsSection::account);
        QCOMPARE(findItem(settings, QStringLiteral("versionLabel"))->property("text").toString(),
                 QStringLiteral("Version 1.2.3"));
    }

    // Steps: "click:<label>" clicks the sidebar row, "navigate:<label>" posts navigateToSettingsSection,
    // "reopen" closes the window and presents it again.
    void navigation_data()
    {
        QTest::addColumn<std::optional<SettingsSection>>("initial");
        QTest::addColumn<QStringList>("steps");
        QTest::addColumn<SettingsSection>("shown");

        QTest::newRow("default") << std::optional<SettingsSection>() << QStringList()
                                 << SettingsSection::account;
        QTest::newRow("asked for") << std::optional(SettingsSection::about) << QStringList()
                                   << SettingsSection::about;
        QTest::newRow("sidebar click")
            << std::optional<SettingsSection>() << QStringList{QStringLiteral("click:API Keys")}
            << SettingsSection::apiKeys;
        QTest::newRow("navigation") << std::optional<SettingsSection>()
                                    << QStringList{QStringLiteral("navigate:Shortcuts")}
                                    << SettingsSection::shortcuts;
        QTest::newRow("unknown navigation ignored")
            << std::optional(SettingsSection::voice) << QStringList{QStringLiteral("navigate:Nowhere")}
            << SettingsSection::voice;
        QTest::newRow("kept after closing")
            << std::optional<SettingsSection>()
            << QStringList{QStringLiteral("click:History"), QStringLiteral("reopen")}
            << SettingsSection::history;
    }

    void navigation()
    {
        QFETCH(std::optional<SettingsSection>, initial);
        QFETCH(QStringList, steps);
        QFETCH(SettingsSection, shown);

        SettingsWindow settings(initial);
        settings.present();
        QVERIFY(QTest::qWaitForWindowExposed(settings.window()));
        for (const QString &step : std::as_const(steps)) {
            const QString label = step.section(u':', 1);
            if (step.startsWith(u"click:")) {
                QQuickItem *row = findItem(settings, QStringLiteral("section:") + label);
                QVERIFY2(row, qPrintable(label));
                const QPointF centre = row->mapToScene(QPointF(row->width() / 2, row->height() / 2));
                QTest::mouseClick(settings.window(), Qt::LeftButton, {}, centre.toPoint());
            } else if (step.startsWith(u"navigate:")) {
                Q_EMIT AppEvents::shared().navigateToSettingsSection(label);
            } else {
                settings.window()->close();
                QTRY_VERIFY(!settings.window()->isVisible());
                settings.present();
                QVERIFY(QTest::qWaitForWindowExposed(settings.window()));
            }
        }
        QCOMPARE(settings.viewModel()->currentSection(), shown);
        const QQuickItem *pages = findItem(settings, QStringLiteral("sectionPages"));
        QCOMPARE(pages->property("currentIndex").toInt(), int(allSettingsSections().indexOf(shown)));
    }
};

QTEST_MAIN(TestSettingsWindow)
#include "tst_settingswindow.moc"
