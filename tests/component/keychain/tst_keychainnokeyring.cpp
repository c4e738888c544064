// SPDX-License-Identifier: GPL-3.0-or-later
// No Secret Service: on a bus that has none and cannot start one, on a bus whose keyring never finishes
// starting, and with no session bus at all. Calls fail within a bounded time and say why.
#include "KeychainTestSupport.h"

#include "account/KeychainHelper.h"
#include "keyring/KeyringFixture.h"

#include <QElapsedTimer>
#include <QTemporaryDir>

#include <memory>

namespace {

const QString kNoKeyring = QStringLiteral("No keyring is available");
// Generous, against a wait of 5 s for a keyring that does not answer.
constexpr qint64 kDoesNotHangMs = 15000;

enum class Bus { NoSecretService, StalledSecretService, None };

} // namespace

Q_DECLARE_METATYPE(Bus)

class TestKeychainNoKeyring : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<KeyringFixture> m_bus;

private Q_SLOTS:
    void initTestCase()
    {
        m_bus = std::make_unique<KeyringFixture>(KeyringFixture::Mode::NoSecretService);
        QVERIFY2(m_bus->isReady(), qPrintable(m_bus->errorString()));
    }

    void cleanupTestCase() { m_bus.reset(); }

    void callsFailFastWithReason_data() { addKeychainCallRows(); }

    void callsFailFastWithReason()
    {
        QFETCH(KeychainCall, call);
        KeychainHelper &keychain = KeychainHelper::shared();

        QElapsedTimer timer;
        timer.start();
        QVERIFY(!call(keychain));
        QVERIFY2(timer.elapsed() < kDoesNotHangMs, "a missing keyring must not hang the caller");
        QVERIFY2(keychain.lastFailureReason().startsWith(kNoKeyring),
                 qPrintable(keychain.lastFailureReason()));
    }

    void commandLineFailsWithReason_data()
    {
        QTest::addColumn<Bus>("bus");
        QTest::addColumn<QString>("option");
        QTest::addColumn<QByteArray>("input");

        QTest::newRow("set, no Secret Service")
            << Bus::NoSecretService << "--set-api-key" << QByteArray("sk-new\n");
        QTest::newRow("clear, no Secret Service")
            << Bus::NoSecretService << "--clear-api-key" << QByteArray();
        QTest::newRow("set, no session bus") << Bus::None << "--set-api-key" << QByteArray("sk-new\n");
        QTest::newRow("clear, no session bus") << Bus::None << "--clear-api-key" << QByteArray();
        QTest::newRow("set, keyring never starts")
            << Bus::StalledSecretService << "--set-api-key" << QByteArray("sk-new\n");
    }

    void commandLineFailsWithReason()
    {
        QFETCH(Bus, bus);
        QFETCH(QString, option);
        QFETCH(QByteArray, input);

        QProcessEnvironment env = m_bus->environment();
        std::unique_ptr<KeyringFixture> stalled;
        QTemporaryDir empty;
        if (bus == Bus::StalledSecretService) {
            stalled = std::make_unique<KeyringFixture>(KeyringFixture::Mode::StalledSecretService);
            QVERIFY2(stalled->isReady(), qPrintable(stalled->errorString()));
            env = stalled->environment();
        } else if (bus == Bus::None) {
            QVERIFY(empty.isValid());
            env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"),
                       QStringLiteral("unix:path=") + empty.path() + QStringLiteral("/no-bus-here"));
        }

        QElapsedTimer timer;
        timer.start();
        const KeyringFixture::Run run = m_bus->run(QStringLiteral(QUILLVOX_EXECUTABLE), {option}, input, env);
        QVERIFY(run.finished);
        QVERIFY2(timer.elapsed() < kDoesNotHangMs, "a missing keyring must not hang the command line");
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(run.err.contains(kNoKeyring.toUtf8()), run.err.constData());
        QVERIFY(!run.err.contains("sk-new") && !run.out.contains("sk-new"));
    }
};

QTEST_GUILESS_MAIN(TestKeychainNoKeyring)
#include "tst_keychainnokeyring.moc"
