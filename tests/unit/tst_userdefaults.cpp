// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/UserDefaults.h"

#include <QFile>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

class TestUserDefaults : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    int m_files = 0;

    // A fresh file each time: QSettings caches file contents per path and would not notice a rewrite
    // within the same second.
    QString path() { return m_dir.filePath(QString::number(++m_files) + QStringLiteral(".conf")); }
    // Raw INI text, as another program (or a crash) might have left it.
    QString writeIni(const QByteArray &content)
    {
        QFile f(path());
        if (!f.open(QIODevice::WriteOnly) || f.write(content) != content.size())
            qFatal("cannot write %s", qPrintable(f.fileName()));
        return f.fileName();
    }

private Q_SLOTS:
    // "32|64": what each unsigned reader gives, "-" for nothing. Bytes are the file's raw text; a value of
    // another type is set in this process, and keeps its type until the file is read again.
    void unsignedConversion_data()
    {
        QTest::addColumn<QVariant>("stored");
        QTest::addColumn<QString>("expected");
        const auto row = [](const char *name, const QVariant &stored, const char *expected) {
            QTest::newRow(name) << stored << QString::fromLatin1(expected);
        };
        const auto text = [](const char *s) { return QVariant(QByteArray(s)); };
        row("u32 max", text("4294967295"), "4294967295|4294967295");
        row("u32 max + 1", text("4294967296"), "-|4294967296");
        row("minus one", text("-1"), "-|-");
        row("u64 max", text("18446744073709551615"), "-|18446744073709551615");
        row("u64 overflow", text("18446744073709551616"), "-|-");
        row("text", text("abc"), "-|-");
        row("leading space", text("\" 12\""), "-|-");
        row("bytes", text("@ByteArray(12)"), "-|-");
        row("int -1, set here", QVariant(-1), "-|-");
        row("double 12.5, set here", QVariant(12.5), "-|-");
        row("bool true, set here", QVariant(true), "-|-");
    }

    void unsignedConversion()
    {
        QFETCH(QVariant, stored);
        const bool raw = stored.typeId() == QMetaType::QByteArray;
        const QString p = raw ? writeIni("[General]\nvalue=" + stored.toByteArray() + "\n") : path();
        if (!raw)
            QSettings(p, QSettings::IniFormat).setValue(QStringLiteral("value"), stored);
        const UserDefaults d(p);
        const auto text = [](const auto &v) { return v ? QString::number(*v) : QStringLiteral("-"); };
        QTEST(QString(text(d.unsigned32(QStringLiteral("value"))) + u'|' +
                      text(d.unsigned64(QStringLiteral("value")))),
              "expected");
    }

    void roundTripsThroughTheFile()
    {
        const QString p = path();
        const QDateTime when(QDate(2026, 3, 29), QTime(1, 30, 15, 250), Qt::UTC);
        const QByteArray bytes("[{\"a\":1}]\n\0\xff", 11);
        {
            UserDefaults d(p);
            d.setString(QStringLiteral("selectedVoice"), QStringLiteral("cedar, or \"alloy\""));
            d.setBoolean(QStringLiteral("hasCompletedOnboarding"), true);
            d.setData(QStringLiteral("narrationHistory"), bytes);
            d.setDate(QStringLiteral("usage_weekStart"), when);
            d.setUnsigned32(QStringLiteral("hotkeyKeyCode"), 4294967295u);
            d.setUnsigned64(QStringLiteral("hotkeyModifiers"), 0x180000);
        }
        UserDefaults d(p);
        QCOMPARE(d.string(QStringLiteral("selectedVoice")), QStringLiteral("cedar, or \"alloy\""));
        QCOMPARE(d.boolean(QStringLiteral("hasCompletedOnboarding")), true);
        QCOMPARE(d.data(QStringLiteral("narrationHistory")), bytes);
        QCOMPARE(d.date(QStringLiteral("usage_weekStart")), when);
        QCOMPARE(d.unsigned32(QStringLiteral("hotkeyKeyCode")), 4294967295u);
        QCOMPARE(d.unsigned64(QStringLiteral("hotkeyModifiers")), quint64(0x180000));
        d.remove(QStringLiteral("selectedVoice"));
        QVERIFY(!d.contains(QStringLiteral("selectedVoice")));
        QVERIFY(!d.string(QStringLiteral("selectedVoice")));
    }

    // A value of the wrong stored type reads as nothing, however convertible QVariant finds it. "readable"
    // holds a letter for each reader that gives a value: string, boolean, data, date.
    void typeChecks_data()
    {
        QTest::addColumn<QByteArray>("stored");
        QTest::addColumn<QString>("readable");
        QTest::newRow("plain text") << QByteArray("hello") << "s";
        QTest::newRow("ISO date as text") << QByteArray("2026-11-21T10:00:00Z") << "s";
        QTest::newRow("true") << QByteArray("true") << "sb";
        QTest::newRow("bytes") << QByteArray("@ByteArray([1])") << "d";
        QTest::newRow("date") << QByteArray(
                                     "@DateTime(\\0\\0\\0\\x10\\0\\0\\0\\0\\0\\0%\\x8c\\x9a\\0\\x1bw@\\x1)")
                              << "t";
        QTest::newRow("broken variant") << QByteArray("@Variant(\\0\\0\\0\\x7f)") << "";
        QTest::newRow("list") << QByteArray("a, b") << "";
    }

    void typeChecks()
    {
        QFETCH(QByteArray, stored);
        UserDefaults d(writeIni("[General]\nkey=" + stored + "\n"));
        const QString key = QStringLiteral("key");
        const QByteArray readable = QByteArray(d.string(key) ? "s" : "") + (d.boolean(key) ? "b" : "") +
                                    (d.data(key) ? "d" : "") + (d.date(key) ? "t" : "");
        QTEST(QString::fromLatin1(readable), "readable");
    }

    void corruptFileReadsAsEmpty()
    {
        UserDefaults d(writeIni(QByteArray("\x00\xff\xfe[[[=\n\x01key", 13)));
        QVERIFY(!d.string(QStringLiteral("key")));
        QVERIFY(!d.unsigned32(QStringLiteral("key")));
        UserDefaults missing(m_dir.filePath("does/not/exist.conf"));
        QVERIFY(!missing.boolean(QStringLiteral("hasCompletedOnboarding")));
    }
};

QTEST_GUILESS_MAIN(TestUserDefaults)
#include "tst_userdefaults.moc"
