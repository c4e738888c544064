// SPDX-License-Identifier: GPL-3.0-or-later
#include "shortcuts/ShortcutRecorderItem.h"

#include <QKeyEvent>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QQuickWindow>
#include <QSGRendererInterface>
#include <QSignalSpy>
#include <QTest>
#include <QtQml/qqmlextensionplugin.h>

#include <memory>

Q_IMPORT_QML_PLUGIN(Quillvox_ShortcutsPlugin)

namespace {

using Kind = ShortcutRecorderItem::Interpretation::Kind;

// X keycodes (evdev + 8) of a PC keyboard.
constexpr quint32 kEscape = 9;
constexpr quint32 kKeyQ = 24;
constexpr quint32 kKeyA = 38;
constexpr quint32 kKeyS = 39;
constexpr quint32 kLeftShift = 50;
constexpr quint32 kRightAlt = 108;
constexpr quint32 kPlayPause = 172;
constexpr quint32 kCapsLock = 66;

QKeyEvent keyPress(quint32 scanCode, int qtKey, Qt::KeyboardModifiers modifiers)
{
    return QKeyEvent(QEvent::KeyPress, qtKey, modifiers, scanCode, 0, 0);
}

} // namespace

class TestShortcutRecorder : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QQuickWindow> m_window;

private Q_SLOTS:
    void initTestCase() { QQuickWindow::setGraphicsApi(QSGRendererInterface::Software); }

    void init()
    {
        m_window = std::make_unique<QQuickWindow>();
        m_window->resize(200, 50);
        m_window->show();
        m_window->requestActivate();
        QVERIFY(QTest::qWaitForWindowActive(m_window.get()));
    }

    void cleanup() { m_window.reset(); }

    void interpretKeyPress()
    {
        struct Row
        {
            quint32 scanCode;
            int qtKey;
            Qt::KeyboardModifiers modifiers;
            Kind kind;
            quint32 key = 0;
            quint64 flags = 0;
        };
        const Qt::KeyboardModifiers none, ctrl = Qt::ControlModifier;
        const Row rows[] = {
            {kEscape, Qt::Key_Escape, none, Kind::Cancel},
            {kKeyA, Qt::Key_A, none, Kind::Ignore}, // a letter alone keeps waiting
            {kKeyA, Qt::Key_A, Qt::ShiftModifier, Kind::Record, 0, 0x20000},
            {kKeyQ, Qt::Key_Q, Qt::MetaModifier, Kind::Record, 12, 0x40000}, // Super is Control
            // The key by position, not by layout: AZERTY's A on the Q key.
            {kKeyQ, Qt::Key_A, ctrl, Kind::Record, 12, 0x100000},
            {kCapsLock, Qt::Key_CapsLock, ctrl, Kind::Ignore},
            {kLeftShift, Qt::Key_Shift, ctrl | Qt::ShiftModifier, Kind::Ignore},
            {kRightAlt, Qt::Key_AltGr, ctrl, Kind::Ignore},
            {kPlayPause, Qt::Key_MediaTogglePlayPause, ctrl, Kind::Ignore}, // a key with no name
            {0, Qt::Key_S, ctrl, Kind::Ignore}};                            // no native key code
        for (const Row &r : rows) {
            const auto meaning = ShortcutRecorderItem::interpretKeyPress(r.scanCode, r.qtKey, r.modifiers);
            QCOMPARE(int(meaning.kind), int(r.kind));
            QCOMPARE(meaning.key, r.key);
            QCOMPARE(meaning.modifiers, r.flags);
        }
    }

    void recordingTakesFocusAndRecordsOnce()
    {
        ShortcutRecorderItem item(m_window->contentItem());
        QSignalSpy recorded(&item, &ShortcutRecorderItem::shortcutRecorded);
        QVERIFY(!item.hasActiveFocus());

        item.setRecording(true);
        QTRY_VERIFY(item.hasActiveFocus());

        QKeyEvent letter = keyPress(kKeyA, Qt::Key_A, {});
        QCoreApplication::sendEvent(m_window.get(), &letter);
        QVERIFY(letter.isAccepted());
        QVERIFY(item.recording());
        QCOMPARE(recorded.count(), 0);

        QKeyEvent override(QEvent::ShortcutOverride, Qt::Key_S, Qt::ControlModifier | Qt::AltModifier, kKeyS,
                           0, 0);
        override.ignore();
        QCoreApplication::sendEvent(m_window.get(), &override);
        QVERIFY(override.isAccepted());

        QKeyEvent combination = keyPress(kKeyS, Qt::Key_S, Qt::ControlModifier | Qt::AltModifier);
        QCoreApplication::sendEvent(m_window.get(), &combination);
        QCOMPARE(recorded.count(), 1);
        QCOMPARE(recorded.at(0).at(0).value<quint32>(), 1u);
        QCOMPARE(recorded.at(0).at(1).value<quint64>(), quint64(0x180000));
        QVERIFY(!item.recording());

        // Idle again: keys are no longer taken.
        QKeyEvent after = keyPress(kKeyQ, Qt::Key_Q, Qt::ControlModifier);
        QCoreApplication::sendEvent(m_window.get(), &after);
        QVERIFY(!after.isAccepted());
        QCOMPARE(recorded.count(), 1);
    }

    void qmlRecorder_data()
    {
        QTest::addColumn<quint32>("scanCode");
        QTest::addColumn<int>("qtKey");
        QTest::addColumn<Qt::KeyboardModifiers>("modifiers");
        QTest::addColumn<QVariantList>("recorded");

        QTest::newRow("combination") << kKeyQ << int(Qt::Key_Q) << (Qt::ControlModifier | Qt::ShiftModifier)
                                     << QVariantList{12, 0x120000};
        QTest::newRow("escape") << kEscape << int(Qt::Key_Escape) << Qt::KeyboardModifiers()
                                << QVariantList{};
    }

    // The row's control as the settings window uses it, through the QML module.
    void qmlRecorder()
    {
        QFETCH(quint32, scanCode);
        QFETCH(int, qtKey);
        QFETCH(Qt::KeyboardModifiers, modifiers);
        QFETCH(QVariantList, recorded);

        QQmlEngine engine;
        // Where qt_add_qml_module puts the module's files; Qt 6.4 does not look there by itself.
        engine.addImportPath(QStringLiteral("qrc:/qt/qml"));
        QQmlComponent component(&engine);
        component.setData(R"(
            import QtQuick
            import Quillvox.Shortcuts
            ShortcutRecorder {
                property var got: []
                property int finishedCount: 0
                label: "Ctrl+Alt+S"
                onRecorded: (key, modifiers) => got = [key, modifiers]
                onFinished: { finishedCount += 1; isRecording = false }
            })",
                          QUrl());
        std::unique_ptr<QObject> object(component.create());
        QVERIFY2(object, qPrintable(component.errorString()));
        auto *root = qobject_cast<QQuickItem *>(object.get());
        root->setParentItem(m_window->contentItem());
        root->setProperty("isRecording", true);
        auto *item = root->findChild<ShortcutRecorderItem *>();
        QVERIFY(item);
        QTRY_VERIFY(item->hasActiveFocus());

        QKeyEvent press = keyPress(scanCode, qtKey, modifiers);
        QCoreApplication::sendEvent(m_window.get(), &press);

        QCOMPARE(root->property("finishedCount").toInt(), 1);
        QCOMPARE(root->property("isRecording").toBool(), false);
        const QVariantList got = root->property("got").toList();
        QCOMPARE(got.size(), recorded.size());
        for (qsizetype i = 0; i < got.size(); ++i)
            QCOMPARE(got.at(i).toULongLong(), recorded.at(i).toULongLong());

        // The row starts recording again later: the item follows.
        root->setProperty("isRecording", true);
        QVERIFY(item->recording());
    }
};

QTEST_MAIN(TestShortcutRecorder)
#include "tst_shortcutrecorder.moc"
