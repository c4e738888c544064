// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/Autostart.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

namespace {

void writeFile(const QString &path, const QByteArray &contents)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(contents);
}

} // namespace

class TestAutostart : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void defaultFolderIsTheUsersConfiguration()
    {
        QVERIFY(!qEnvironmentVariableIsEmpty("XDG_CONFIG_HOME"));
        const QString expected =
            qEnvironmentVariable("XDG_CONFIG_HOME") + u"/autostart/com.vantor.Quillvox.desktop";
        QCOMPARE(Autostart().entryPath(), expected);
    }

    void switching_data()
    {
        QTest::addColumn<QByteArray>("existing");
        QTest::addColumn<bool>("wasEnabled");
        QTest::addColumn<bool>("enable");

        const QByteArray ours =
            "[Desktop Entry]\nType=Application\nName=Quillvox\nExec=quillvox --autostart\n";
        QTest::newRow("on, no folder yet") << QByteArray() << false << true;
        QTest::newRow("off, no entry") << QByteArray() << false << false;
        QTest::newRow("off, entry there") << ours << true << false;
        QTest::newRow("on again, entry there") << ours << true << true;
        QTest::newRow("hidden by the desktop, on") << ours + "Hidden=true\n" << false << true;
        QTest::newRow("GNOME switched it off, on") << ours + "X-GNOME-Autostart-enabled=false\n"
                                                   << false << true;
        QTest::newRow("Hidden of an action does not count")
            << ours + "\n[Desktop Action narrate]\nName=Narrate\nHidden=true\n"
            << true << false;
    }

    void switching()
    {
        QFETCH(QByteArray, existing);
        QFETCH(bool, enable);

        QTemporaryDir config;
        Autostart autostart(config.path());
        if (!existing.isNull())
            writeFile(autostart.entryPath(), existing);
        QTEST(autostart.isEnabled(), "wasEnabled");

        QVERIFY(autostart.setEnabled(enable));
        QCOMPARE(autostart.isEnabled(), enable);
        QCOMPARE(Autostart(config.path()).isEnabled(), enable);
        QCOMPARE(QFile::exists(autostart.entryPath()), enable);
        if (!enable)
            return;
        // What the session will run, in a file the desktop's own tools accept.
        QProcess validate;
        validate.start(QStringLiteral("desktop-file-validate"), {autostart.entryPath()});
        QVERIFY(validate.waitForFinished());
        QCOMPARE(validate.readAllStandardOutput() + validate.readAllStandardError(), QByteArray());
        QCOMPARE(validate.exitCode(), 0);
        QFile entry(autostart.entryPath());
        QVERIFY(entry.open(QIODevice::ReadOnly));
        QVERIFY(entry.readAll().contains("\nExec=quillvox --autostart\n"));
    }

    void unwritableFolderIsReported()
    {
        QTemporaryDir config;
        writeFile(config.filePath(QStringLiteral("autostart")), "not a folder");
        Autostart autostart(config.path());
        QVERIFY(!autostart.setEnabled(true));
        QVERIFY(autostart.lastError().contains(QStringLiteral("autostart")));
        QVERIFY(!autostart.isEnabled());
    }
};

QTEST_GUILESS_MAIN(TestAutostart)
#include "tst_autostart.moc"
