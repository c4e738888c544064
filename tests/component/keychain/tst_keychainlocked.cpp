// SPDX-License-Identifier: GPL-3.0-or-later
// A locked keyring: every call asks for the unlock prompt, fails with the reason when it is dismissed or
// goes unanswered, and leaves the stored item in place.
#include "KeychainTestSupport.h"

#include "account/KeychainHelper.h"
#include "keyring/KeyringFixture.h"
#include "platform/secret/LibsecretStore.h"

#include <QElapsedTimer>
#include <QScopeGuard>

#include <memory>

namespace {

const QString kAccount = QStringLiteral("openai-api-key");
const QString kLocked = QStringLiteral("The keyring is locked");
// Generous: without a prompter gnome-keyring dismisses the unlock at once.
constexpr qint64 kDoesNotHangMs = 15000;

} // namespace

class TestKeychainLocked : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<KeyringFixture> m_keyring;
    QString m_service;

    QList<KeyringFixture::Item> storedItems() const
    {
        return m_keyring->items(
            {{QStringLiteral("service"), m_service}, {QStringLiteral("account"), kAccount}});
    }

    void verifyItemSurvived() const
    {
        const QList<KeyringFixture::Item> items = storedItems();
        QCOMPARE(items.size(), 1);
        QCOMPARE(items.first().label, QStringLiteral("stored before the lock"));
        QVERIFY(items.first().locked);
    }

private Q_SLOTS:
    void initTestCase()
    {
        m_keyring = std::make_unique<KeyringFixture>();
        QVERIFY2(m_keyring->isReady(), qPrintable(m_keyring->errorString()));
        m_service = qEnvironmentVariable("QUILLVOX_KEYCHAIN_SERVICE");
        QVERIFY(m_service.startsWith(QLatin1String("com.vantor.quillvox.test.")));
        const KeyringFixture::Run stored =
            m_keyring->secretTool({QStringLiteral("store"), QStringLiteral("--label=stored before the lock"),
                                   QStringLiteral("service"), m_service, QStringLiteral("account"), kAccount},
                                  "sk-before");
        QCOMPARE(stored.exitCode, 0);
        QVERIFY(m_keyring->lockLoginCollection());
        verifyItemSurvived();
    }

    void cleanupTestCase() { m_keyring.reset(); }

    void callsFailWithReason_data() { addKeychainCallRows(); }

    void callsFailWithReason()
    {
        QFETCH(KeychainCall, call);
        KeychainHelper &keychain = KeychainHelper::shared();

        QElapsedTimer timer;
        timer.start();
        QVERIFY(!call(keychain));
        QVERIFY2(timer.elapsed() < kDoesNotHangMs, "a locked keyring without a prompt must not hang");
        QVERIFY2(keychain.lastFailureReason().startsWith(kLocked), qPrintable(keychain.lastFailureReason()));
        verifyItemSurvived();
    }

    // The user never answers the unlock prompt: the call gives up at its own timeout, not gnome-keyring's
    // (25 s), and gnome-keyring survives it.
    void unansweredUnlockPromptEndsAtTimeout_data() { callsFailWithReason_data(); }

    void unansweredUnlockPromptEndsAtTimeout()
    {
        QFETCH(KeychainCall, call);
        QVERIFY(m_keyring->holdUnlockPrompts());
        const auto release = qScopeGuard([this] { m_keyring->releaseUnlockPrompts(); });
        KeychainHelper keychain(m_service, std::make_unique<LibsecretStore>(std::chrono::seconds(1)));

        QElapsedTimer timer;
        timer.start();
        QVERIFY(!call(keychain));
        QVERIFY2(timer.elapsed() < kDoesNotHangMs, "an unanswered unlock prompt must end at the timeout");
        QTRY_VERIFY2(m_keyring->unlockPromptCalls() > 0, qPrintable(m_keyring->logs()));
        QVERIFY2(keychain.lastFailureReason().startsWith(kLocked), qPrintable(keychain.lastFailureReason()));
        verifyItemSurvived();
    }

    void commandLineFailsWithReason_data()
    {
        QTest::addColumn<QString>("option");
        QTest::addColumn<QByteArray>("input");

        QTest::newRow("set") << "--set-api-key" << QByteArray("sk-new\n");
        QTest::newRow("clear") << "--clear-api-key" << QByteArray();
    }

    void commandLineFailsWithReason()
    {
        QFETCH(QString, option);
        QFETCH(QByteArray, input);

        const KeyringFixture::Run run = m_keyring->run(QStringLiteral(QUILLVOX_EXECUTABLE), {option}, input);
        QVERIFY(run.finished);
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(run.err.contains(kLocked.toUtf8()), run.err.constData());
        QVERIFY(!run.err.contains("sk-new"));
        verifyItemSurvived();
    }
};

QTEST_GUILESS_MAIN(TestKeychainLocked)
#include "tst_keychainlocked.moc"
