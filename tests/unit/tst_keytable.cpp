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
    // no two keys share a position. Every letter and digit shows as itself; everything else outside the
    // short list shows as "?".
    void namedKeys()
    {
        const QList<quint32> gaps = {52, 66, 68, 70, 77, 93, 94, 95, 102, 104, 108, 110, 112};
        const QString allowed = QStringLiteral("⇥↩↑→↓←⎋⌫?");
        int mapped = 0;
        for (quint32 code = 0; code < 300; ++code) {
            const bool expected = code <= 126 && !gaps.contains(code);
            const auto name = KeyTable::displayName(code);
            QVERIFY2(KeyTable::isNamedKey(code) == expected, qPrintable(QString::number(code)));
            QCOMPARE(name.has_value(), expected);
            QCOMPARE(KeyTable::linuxLabel(code).has_value(), expected);
            if (const auto x = KeyTable::xKeyCode(code)) {
                ++mapped;
                QCOMPARE(KeyTable::virtualKeyCodeForXKeyCode(*x), code);
            }
            if (!name)
                continue;
            const bool letterOrDigit =
                name->size() == 1 && (name->at(0).isDigit() || (name->at(0) >= u'A' && name->at(0) <= u'Z'));
            QVERIFY2(letterOrDigit || *name == u"Space" || (name->size() == 1 && allowed.contains(*name)),
                     qPrintable(QString::number(code) + u' ' + *name));
            QCOMPARE(name->size() == 1 && name->at(0).isLetterOrNumber(), letterOrDigit);
        }
        QCOMPARE(mapped, 113); // all but Function
        QCOMPARE(KeyTable::namedKeyCount(), 114);
        QVERIFY(!KeyTable::isNamedKey(4294967295u));
        // Below the evdev offset, and a media key no binding can name.
        for (const quint32 xKeyCode : {8u, quint32(KEY_PLAYPAUSE + 8)})
            QCOMPARE(KeyTable::virtualKeyCodeForXKeyCode(xKeyCode), std::nullopt);
    }

    // The X keycode is the evdev code + 8 (and leads back to the same key: namedKeys()). Command is Ctrl,
    // Option is Alt, Control is Super; digit 5 sits before 6 in codes, after in place; Function (63) has no
    // PC key.
    void positionalMapping()
    {
        const std::optional<quint32> none;
        const std::pair<quint32, std::optional<quint32>> rows[] = {
            {0, KEY_A},        {8, KEY_C},         {12, KEY_Q},    {23, KEY_5}, {55, KEY_LEFTCTRL},
            {58, KEY_LEFTALT}, {59, KEY_LEFTMETA}, {105, KEY_F13}, {63, none},  {127, none}};
        for (const auto &[virtualKeyCode, evdev] : rows) {
            QCOMPARE(KeyTable::evdevCode(virtualKeyCode), evdev);
            QCOMPARE(KeyTable::xKeyCode(virtualKeyCode), evdev ? std::optional(*evdev + 8) : none);
        }
    }

    // Flags, their X modifiers, and the flags those give back.
    void modifiers()
    {
        const std::tuple<quint64, quint32, quint64> rows[] = {
            {0x40000, 0x40, 0x40000},    // Control is Super (Mod4)
            {0x100000, 0x04, 0x100000},  // Command is Ctrl
            {0x1E0000, 0x4d, 0x1E0000},  // all four
            {0x910000, 0x04, 0x100000}}; // Caps Lock and Function bits have no grab
        for (const auto &[flags, xModifiers, flagsBack] : rows) {
            QCOMPARE(KeyTable::xModifiers(flags), xModifiers);
            QCOMPARE(KeyTable::modifierFlagsForXModifiers(xModifiers), flagsBack);
        }
        QCOMPARE(KeyTable::modifierFlagsForQt(Qt::ControlModifier), 0x100000ull); // Ctrl is Command
        QCOMPARE(KeyTable::modifierFlagsForQt(Qt::MetaModifier), 0x40000ull);     // Meta is Control
        QCOMPARE(
            KeyTable::modifierFlagsForQt(Qt::KeypadModifier | Qt::GroupSwitchModifier | Qt::ShiftModifier),
            0x20000ull);
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
};

QTEST_GUILESS_MAIN(TestKeyTable)
#include "tst_keytable.moc"
