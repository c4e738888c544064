// SPDX-License-Identifier: GPL-3.0-or-later
// Update feeds as they come, hostile ones included, the version order, and when automatic checks run.
// The property checks (every item has a version, the order is antisymmetric) are fuzz_appcast's.
#include "ManualClock.h"

#include "core/UserDefaults.h"
#include "updates/AppcastFeed.h"
#include "updates/UpdateChecker.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using namespace std::chrono_literals;

namespace {

QByteArray feed(const QByteArray &items)
{
    return "<?xml version=\"1.0\"?><rss version=\"2.0\" "
           "xmlns:sparkle=\"http://www.andymatuschak.org/xml-namespaces/sparkle\"><channel>" +
           items + "</channel></rss>";
}

} // namespace

class TestUpdates : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void versionOrder_data()
    {
        QTest::addColumn<QString>("a");
        QTest::addColumn<QString>("b");
        QTest::addColumn<int>("order");
        const auto row = [](const char *name, const char *a, const char *b, int order) {
            QTest::newRow(name) << QString::fromLatin1(a) << QString::fromLatin1(b) << order;
        };
        row("numeric, not textual", "1.10", "1.9", 1);
        row("missing parts are zero", "1.2", "1.2.0", 0);
        row("older", "0.9.9", "1.0", -1);
        row("a pre-release comes first", "2.0b1", "2.0", -1);
        row("pre-releases as text", "2.0b1", "2.0rc1", -1);
        row("pre-release of a later number", "2.1b1", "2.0", 1);
        row("huge numbers saturate", "99999999999999999999999", "1", 1);
        row("garbage is zero", "beta", "0", -1);
    }

    void versionOrder()
    {
        QFETCH(QString, a);
        QFETCH(QString, b);
        QTEST(Appcast::compareVersions(a, b), "order");
    }

    // "error: ..." rows expect a refusal containing that text; otherwise the newest item's
    // version, display version and link.
    void parse_data()
    {
        QTest::addColumn<QByteArray>("xml");
        QTest::addColumn<QString>("expected");
        QTest::newRow("element form, highest wins")
            << feed("<item><sparkle:version>1.9</sparkle:version><link>https://q.example/1.9</link></item>"
                    "<item><sparkle:version>1.10</sparkle:version><sparkle:shortVersionString>1.10 "
                    "beta</sparkle:shortVersionString><link>https://q.example/1.10</link></item>")
            << "1.10|1.10 beta|https://q.example/1.10";
        QTest::newRow("attribute form only")
            << feed("<item><enclosure url=\"https://q.example/q.deb\" sparkle:version=\"2.0\"/></item>")
            << "2.0|2.0|https://q.example/q.deb";
        QTest::newRow("the element wins over the attribute")
            << feed("<item><enclosure url=\"https://q.example/q.deb\" sparkle:version=\"9.0\"/>"
                    "<sparkle:version>2.0</sparkle:version></item>")
            << "2.0|2.0|https://q.example/q.deb";
        QTest::newRow("no items") << feed("") << "error: no release";
        QTest::newRow("not a link")
            << feed("<item><sparkle:version>1.0</sparkle:version><link>file:///etc/passwd"
                    "</link></item>")
            << "1.0|1.0|";
        QTest::newRow("entities are refused")
            << QByteArray("<?xml version=\"1.0\"?><!DOCTYPE rss [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b "
                          "\"&a;&a;&a;&a;&a;&a;&a;&a;\">]><rss><channel><item><sparkle:version>&b;"
                          "</sparkle:version></item></channel></rss>")
            << "error: document type";
        QTest::newRow("huge") << feed(QByteArray(Appcast::kMaxBodyBytes, ' ')) << "error: larger than 1 MB";
    }

    void parse()
    {
        QFETCH(QByteArray, xml);
        QFETCH(QString, expected);
        const auto parsed = Appcast::parse(xml);
        QString actual;
        if (const QString *error = std::get_if<QString>(&parsed)) {
            actual = "error: " + *error;
        } else if (const auto item = Appcast::newest(std::get<QList<AppcastItem>>(parsed))) {
            actual = item->version + u'|' + item->displayVersion() + u'|' + item->link.toString();
        } else {
            actual = "error: no release";
        }
        if (expected.startsWith(u"error: "))
            QVERIFY2(actual.startsWith(u"error: ") && actual.contains(expected.mid(7)), qPrintable(actual));
        else
            QCOMPARE(actual, expected);
    }

    // Automatic checks against a feed that cannot answer: whether one is due now shows in the time of the
    // last check. One wake-up is armed at a time, when the next check falls due, and the next a day later.
    void automaticChecks_data()
    {
        QTest::addColumn<bool>("enabled");
        QTest::addColumn<int>("lastCheckHoursAgo"); // -1: never; negative hours: in the future
        QTest::addColumn<bool>("due");
        QTest::addColumn<std::chrono::milliseconds>("firstWait");
        using ms = std::chrono::milliseconds;
        QTest::newRow("never checked") << true << -1 << true << ms(10s);
        QTest::newRow("23 hours ago") << true << 23 << false << ms(1h);
        QTest::newRow("24 hours ago") << true << 24 << true << ms(10s);
        QTest::newRow("30 hours ago") << true << 30 << true << ms(10s);
        QTest::newRow("clock set back") << true << -5 << true << ms(10s);
        QTest::newRow("switched off") << false << 2 << false << ms(24h);
    }

    void automaticChecks()
    {
        QFETCH(bool, enabled);
        QFETCH(int, lastCheckHoursAgo);
        QFETCH(std::chrono::milliseconds, firstWait);
        const QString lastKey = QString::fromLatin1(UpdateChecker::kLastCheckKey);
        for (const bool scheduled : {false, true}) {
            QTemporaryDir dir;
            UserDefaults defaults(dir.filePath("settings.conf"));
            ManualClock clock;
            if (lastCheckHoursAgo != -1)
                defaults.setDate(lastKey, clock.now().addSecs(-3600LL * lastCheckHoursAgo));
            UpdateChecker checker({&defaults, nullptr, &clock, QUrl("http://updates.example/feed"), "1.0"});
            checker.setAutomaticChecks(enabled);
            QSignalSpy found(&checker, &UpdateChecker::updateFound);
            QSignalSpy finished(&checker, &UpdateChecker::finished);
            if (!scheduled) {
                checker.checkAutomaticallyIfDue();
                QTEST(defaults.date(lastKey) == clock.now(), "due");
                // A plain http feed away from this machine is refused, and an automatic check never says so.
                QCOMPARE(found.size() + finished.size(), 0);
                continue;
            }
            checker.scheduleAutomaticChecks(10s);
            QCOMPARE(clock.delays(), QList<std::chrono::milliseconds>{firstWait});
            clock.advance(firstWait);
            QCOMPARE(defaults.date(lastKey) == clock.now(), enabled);
            QCOMPARE(clock.delays(), (QList<std::chrono::milliseconds>{firstWait, 24h}));
            QCOMPARE(clock.pendingCalls(), 1);
        }
    }
};

QTEST_GUILESS_MAIN(TestUpdates)
#include "tst_updates.moc"
