// SPDX-License-Identifier: GPL-3.0-or-later
// KeychainHelper's own logic over the in-memory store: strict UTF-8, the delete-then-add save, and what
// a failing keyring leaves behind and reports. Names, labels and round trips are tst_keychainkeyring's,
// each call's failure on a real keyring tst_keychainunavailable's.
#include "KeychainTestSupport.h"

#include "account/KeychainHelper.h"
#include "platform/null/MemorySecretStore.h"

using Status = SecretStore::Status;
using Operation = MemorySecretStore::Operation;

const QString kService = QStringLiteral("com.vantor.quillvox.test.helper");
const QString kAccount = QStringLiteral("openai-api-key");

class TestKeychainHelper : public QObject
{
    Q_OBJECT

private:
    MemorySecretStore *m_store = nullptr;
    std::unique_ptr<KeychainHelper> m_helper;

private Q_SLOTS:
    void init()
    {
        auto store = std::make_unique<MemorySecretStore>();
        m_store = store.get();
        m_helper = std::make_unique<KeychainHelper>(kService, std::move(store));
        m_store->insert(kService, kAccount, "old");
    }

    void loadDecodesStrictUtf8_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<std::optional<QString>>("expected");

        QTest::newRow("leading BOM kept")
            << QByteArray("\xef\xbb\xbfk") << std::optional<QString>(QStringLiteral("\uFEFFk"));
        QTest::newRow("invalid byte") << QByteArray("ab\xff") << std::optional<QString>();
        QTest::newRow("truncated sequence") << QByteArray("ab\xc3") << std::optional<QString>();
    }

    void loadDecodesStrictUtf8()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(std::optional<QString>, expected);

        m_store->insert(kService, kAccount, bytes);
        QCOMPARE(m_helper->load(KeychainKey::openAIAPIKey), expected);
        QCOMPARE(m_helper->lastFailureReason().isEmpty(), expected.has_value());
    }

    void saveOfInvalidUnicodeTouchesNothing_data()
    {
        QTest::addColumn<QString>("value");
        QTest::newRow("lone low surrogate") << QStringLiteral("a") + QChar(0xDC00);
        QTest::newRow("high surrogate at the end") << QStringLiteral("sk-") + QChar(0xD83D);
    }

    void saveOfInvalidUnicodeTouchesNothing()
    {
        QFETCH(QString, value);
        QVERIFY(!m_helper->save(value, KeychainKey::openAIAPIKey));
        QCOMPARE(m_store->secret(kService, kAccount), std::optional<QByteArray>("old"));
        QVERIFY(!m_helper->lastFailureReason().isEmpty());
    }

    // A save deletes, then adds. A failed add comes after the delete, so the old value is gone as well. A
    // refused delete does not decide the save; no keyring, or one that stayed locked, will not take the
    // add either, and the old item is untouched.
    void saveWithAFailingStep_data()
    {
        QTest::addColumn<Operation>("step");
        QTest::addColumn<Status>("failure");
        QTest::addColumn<std::optional<QByteArray>>("left");

        const std::optional<QByteArray> nothing, old("old"), saved("new");
        QTest::newRow("add refused") << Operation::Store << Status::Failed << nothing;
        QTest::newRow("add locked") << Operation::Store << Status::Locked << nothing;
        QTest::newRow("add without keyring") << Operation::Store << Status::Unavailable << nothing;
        QTest::newRow("delete refused") << Operation::Remove << Status::Failed << saved;
        QTest::newRow("delete locked") << Operation::Remove << Status::Locked << old;
        QTest::newRow("delete without keyring") << Operation::Remove << Status::Unavailable << old;
    }

    void saveWithAFailingStep()
    {
        QFETCH(Operation, step);
        QFETCH(Status, failure);
        QFETCH(std::optional<QByteArray>, left);
        m_store->setFailure(step, failure);

        const bool saved = left == QByteArray("new");
        QCOMPARE(m_helper->save(QStringLiteral("new"), KeychainKey::openAIAPIKey), saved);
        QCOMPARE(m_store->secret(kService, kAccount), left);
        QCOMPARE(m_helper->lastFailureReason().isEmpty(), saved);
        const QString reason = failure == Status::Unavailable ? "No keyring is available"
                               : failure == Status::Locked    ? "The keyring is locked"
                                                              : "The keyring refused the request";
        if (!saved)
            QVERIFY2(m_helper->lastFailureReason().startsWith(reason),
                     qPrintable(m_helper->lastFailureReason()));
        // The reason belongs to the last call: it goes once a call succeeds.
        m_store->setFailure(Status::Ok);
        QVERIFY(m_helper->remove(KeychainKey::openAIAPIKey));
        QVERIFY(m_helper->lastFailureReason().isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestKeychainHelper)
#include "tst_keychainhelper.moc"
