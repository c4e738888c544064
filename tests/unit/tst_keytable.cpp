// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/GlobalHotKeyBackend.h"
#include "shortcuts/KeyTable.h"

#include <QTest>

#include <linux/input-event-codes.h>

class TestKeyTable : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Every named key has its names, and each one with a PC counterpart comes back from its X keycode:
    // no two keys share a position.
    void namedKeys()
    {
        const QList<quint32> gaps = {52, 66, 68, 70, 77, 93, 94, 95, 102, 104, 108, 110, 112};
        int named = 0;
        int mapped = 0;
        for (quint32 code = 0; code < 300; ++code) {
            const bool expected = code <= 126 && !gaps.contains(code);
            QVERIFY2(KeyTable::isNamedKey(code) == expected, qPrintable(QString::number(code)));
            QCOMPARE(KeyTable::displayName(code).has_value(), expected);
            QCOMPARE(KeyTable::linuxLabel(code).has_value(), expected);
            named += expected ? 1 : 0;
            if (const auto x = KeyTable::xKeyCode(code)) {
                ++mapped;
                QCOMPARE(KeyTable::virtualKeyCodeForXKeyCode(*x), code);
            }
        }
        QCOMPARE(named, 114);
        QCOMPARE(mapped, 113); // all but Function
        QCOMPARE(KeyTable::namedKeyCount(), 114);
        QVERIFY(!KeyTable::isNamedKey(4294967295u));
        // Below the evdev offset, and a media key no binding can name.
        for (const quint32 xKeyCode : {8u, quint32(KEY_PLAYPAUSE + 8)})
            QCOMPARE(KeyTable::virtualKeyCodeForXKeyCode(xKeyCode), std::nullopt);
    }

    // The X keycode is the evdev code + 8, and leads back to the same key.
    void positionalMapping_data()
    {
        QTest::addColumn<quint32>("virtualKeyCode");
        QTest::addColumn<int>("evdev"); // -1: none

        QTest::newRow("A") << 0u << KEY_A;
        QTest::newRow("C, the copy key") << 8u << KEY_C;
        QTest::newRow("Q, the stop key") << 12u << KEY_Q;
        QTest::newRow("digit 5 sits before 6 in codes, after in place") << 23u << KEY_5;
        QTest::newRow("Command key is Ctrl") << 55u << KEY_LEFTCTRL;
        QTest::newRow("Option key is Alt") << 58u << KEY_LEFTALT;
        QTest::newRow("Control key is Super") << 59u << KEY_LEFTMETA;
        QTest::newRow("F13") << 105u << KEY_F13;
        QTest::newRow("Function has no PC key") << 63u << -1;
        QTest::newRow("past the table") << 127u << -1;
    }

    void positionalMapping()
    {
        QFETCH(quint32, virtualKeyCode);
        QFETCH(int, evdev);

        const auto toInt = [](std::optional<quint32> v) { return v ? int(*v) : -1; };
        QCOMPARE(toInt(KeyTable::evdevCode(virtualKeyCode)), evdev);
        QCOMPARE(toInt(KeyTable::xKeyCode(virtualKeyCode)), evdev < 0 ? -1 : evdev + 8);
        if (evdev >= 0)
            QCOMPARE(KeyTable::virtualKeyCodeForXKeyCode(quint32(evdev + 8)), virtualKeyCode);
    }

    void modifiers_data()
    {
        QTest::addColumn<quint64>("flags");
        QTest::addColumn<quint32>("xModifiers");
        QTest::addColumn<quint64>("flagsBack");

        QTest::newRow("Control is Super (Mod4)") << quint64(0x40000) << 0x40u << quint64(0x40000);
        QTest::newRow("Command is Ctrl") << quint64(0x100000) << 0x04u << quint64(0x100000);
        QTest::newRow("all four") << quint64(0x1E0000) << 0x4du << quint64(0x1E0000);
        QTest::newRow("Caps Lock and Function bits have no grab")
            << quint64(0x810000 | 0x100000) << 0x04u << quint64(0x100000);
    }

    void modifiers()
    {
        QFETCH(quint64, flags);
        QFETCH(quint32, xModifiers);

        QCOMPARE(KeyTable::xModifiers(flags), xModifiers);
        QTEST(KeyTable::modifierFlagsForXModifiers(xModifiers), "flagsBack");
    }

    void qtModifiers()
    {
        const std::pair<Qt::KeyboardModifiers, quint64> rows[] = {
            {Qt::ControlModifier, 0x100000}, // Ctrl is Command
            {Qt::MetaModifier, 0x40000},     // Meta is Control
            {Qt::KeypadModifier | Qt::GroupSwitchModifier | Qt::ShiftModifier, 0x20000}};
        for (const auto &[qt, flags] : rows)
            QCOMPARE(KeyTable::modifierFlagsForQt(qt), flags);
    }

    void names()
    {
        const std::tuple<quint32, const char *, const char *> rows[] = {{0, "A", "A"},      {48, "⇥", "Tab"},
                                                                        {36, "↩", "Enter"}, {53, "⎋", "Esc"},
                                                                        {122, "?", "F1"},   {63, "?", "Fn"}};
        for (const auto &[code, display, label] : rows) {
            QCOMPARE(KeyTable::displayName(code), QString::fromUtf8(display));
            QCOMPARE(KeyTable::linuxLabel(code), QString::fromUtf8(label));
        }
    }

    // Every letter and digit shows as itself; everything else outside the short list shows as "?".
    void displayNamesAreLettersDigitsOrSymbols()
    {
        const QString allowed = QStringLiteral("⇥↩↑→↓←⎋⌫?");
        for (quint32 code = 0; code <= 126; ++code) {
            const auto name = KeyTable::displayName(code);
            if (!name)
                continue;
            const bool letterOrDigit =
                name->size() == 1 && (name->at(0).isDigit() || (name->at(0) >= u'A' && name->at(0) <= u'Z'));
            QVERIFY2(letterOrDigit || *name == u"Space" || (name->size() == 1 && allowed.contains(*name)),
                     qPrintable(QString::number(code) + u' ' + *name));
            QCOMPARE(name->size() == 1 && name->at(0).isLetterOrNumber(), letterOrDigit);
        }
    }
};

QTEST_GUILESS_MAIN(TestKeyTable)
#include "tst_keytable.moc"
