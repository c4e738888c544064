// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/UserDefaults.h"

#include <QFile>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

#include <limits>

class TestUserDefaults : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString path(const char *name) const { return m_dir.filePath(QString::fromLatin1(name)); }

    int m_files = 0;

    // Writes raw INI text, as another program (or a crash) might have left it. A fresh name each time:
    // QSettings caches file contents per path and would not notice a rewrite within the same second.
    QString writeIni(const char *name, const QByteArray &content)
    {
        const QString p = path(name) + QString::number(++m_files);
        QFile f(p);
        if (!f.open(QIODevice::WriteOnly | QIODevice::Truncate))
            qFatal("cannot write %s", qPrintable(p));
        f.write(content);
        return p;
    }

private Q_SLOTS:
    void unsignedConversion_data()
    {
        QTest::addColumn<QByteArray>("stored");
        QTest::addColumn<bool>("converts32");
        QTest::addColumn<quint64>("expected");
        QTest::addColumn<bool>("converts64");

        QTest::newRow("u32 max") << QByteArray("4294967295") << true << quint64(4294967295u) << true;
        QTest::newRow("u32 max + 1") << QByteArray("4294967296") << false << quint64(4294967296u) << true;
        QTest::newRow("minus one") << QByteArray("-1") << false << quint64(0) << false;
        QTest::newRow("u64 max") << QByteArray("18446744073709551615") << false
                                 << std::numeric_limits<quint64>::max() << true;
        QTest::newRow("u64 overflow") << QByteArray("18446744073709551616") << false << quint64(0) << false;
        QTest::newRow("text") << QByteArray("abc") << false << quint64(0) << false;
        QTest::newRow("leading space") << QByteArray("\" 12\"") << false << quint64(0) << false;
        QTest::newRow("bytes") << QByteArray("@ByteArray(12)") << false << quint64(0) << false;
    }

    void unsignedConversion()
    {
        QFETCH(QByteArray, stored);
        QFETCH(bool, converts32);
        QFETCH(quint64, expected);
        QFETCH(bool, converts64);

        UserDefaults d(writeIni("u.conf", "[General]\nvalue=" + stored + "\n"));
        const auto v32 = d.unsigned32(QStringLiteral("value"));
        QCOMPARE(v32.has_value(), converts32);
        if (converts32)
            QCOMPARE(quint64(*v32), expected);
        const auto v64 = d.unsigned64(QStringLiteral("value"));
        QCOMPARE(v64.has_value(), converts64);
        if (converts64)
            QCOMPARE(*v64, expected);
    }

    // Values set in this process keep their type until the file is read again.
    void unsignedFromNumericVariants()
    {
        const QString p = path("n.conf");
        for (const QVariant &value : {QVariant(-1), QVariant(12.5), QVariant(true)}) {
            QFile::remove(p);
            QSettings(p, QSettings::IniFormat).setValue(QStringLiteral("value"), value);
            const UserDefaults d(p);
            QVERIFY2(!d.unsigned32(QStringLiteral("value")) && !d.unsigned64(QStringLiteral("value")),
                     value.typeName());
        }
    }

    void roundTripsThroughTheFile()
    {
        const QString p = path("roundtrip.conf");
        QFile::remove(p);
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

    // A value of the wrong stored type reads as nothing, however convertible QVariant finds it.
    void typeChecks_data()
    {
        QTest::addColumn<QByteArray>("stored");
        QTest::addColumn<bool>("isString");
        QTest::addColumn<bool>("isBoolean");
        QTest::addColumn<bool>("isData");
        QTest::addColumn<bool>("isDate");

        QTest::newRow("plain text") << QByteArray("hello") << true << false << false << false;
        QTest::newRow("ISO date as text")
            << QByteArray("2026-11-21T10:00:00Z") << true << false << false << false;
        QTest::newRow("true") << QByteArray("true") << true << true << false << false;
        QTest::newRow("bytes") << QByteArray("@ByteArray([1])") << false << false << true << false;
        QTest::newRow("date") << QByteArray(
                                     "@DateTime(\\0\\0\\0\\x10\\0\\0\\0\\0\\0\\0%\\x8c\\x9a\\0\\x1bw@\\x1)")
                              << false << false << false << true;
        QTest::newRow("broken variant")
            << QByteArray("@Variant(\\0\\0\\0\\x7f)") << false << false << false << false;
        QTest::newRow("list") << QByteArray("a, b") << false << false << false << false;
    }

    void typeChecks()
    {
        QFETCH(QByteArray, stored);

        const QByteArray line = stored.isNull() ? QByteArray() : "key=" + stored + "\n";
        UserDefaults d(writeIni("types.conf", "[General]\n" + line));
        const QString key = QStringLiteral("key");
        QTEST(d.string(key).has_value(), "isString");
        QTEST(d.boolean(key).has_value(), "isBoolean");
        QTEST(d.data(key).has_value(), "isData");
        QTEST(d.date(key).has_value(), "isDate");
    }

    void corruptFileReadsAsEmpty()
    {
        UserDefaults d(writeIni("corrupt.conf", QByteArray("\x00\xff\xfe[[[=\n\x01key", 13)));
        QVERIFY(!d.string(QStringLiteral("key")));
        QVERIFY(!d.unsigned32(QStringLiteral("key")));
        UserDefaults missing(path("does/not/exist.conf"));
        QVERIFY(!missing.boolean(QStringLiteral("hasCompletedOnboarding")));
    }
};

QTEST_GUILESS_MAIN(TestUserDefaults)
#include "tst_userdefaults.moc"
