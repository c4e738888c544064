// SPDX-License-Identifier: GPL-3.0-or-later
// KeychainHelper's own logic over the in-memory store: text encoding, the delete-then-add save, and
// what a failing keyring leaves behind and reports.
#include "KeychainTestSupport.h"

#include "account/KeychainHelper.h"
#include "platform/null/MemorySecretStore.h"

using Status = SecretStore::Status;
using Operation = MemorySecretStore::Operation;

Q_DECLARE_METATYPE(SecretStore::Status)

namespace {

const QString kService = QStringLiteral("com.vantor.quillvox.test.helper");
const QString kAccount = QStringLiteral("openai-api-key");

QString reasonPrefix(Status status)
{
    switch (status) {
    case Status::Unavailable:
        return QStringLiteral("No keyring is available");
    case Status::Locked:
        return QStringLiteral("The keyring is locked");
    default:
        return QStringLiteral("The keyring refused the request");
    }
}

} // namespace

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
    }

    void cleanup()
    {
        m_helper.reset();
        m_store = nullptr;
    }

    void saveStoresUtf8UnderServiceAndAccount_data()
    {
        QTest::addColumn<KeychainKey>("key");
        QTest::addColumn<QString>("account");
        QTest::addColumn<QString>("value");
        QTest::addColumn<QByteArray>("bytes");

        QTest::newRow("api key") << KeychainKey::openAIAPIKey << "openai-api-key"
                                 << "sk-test" << QByteArray("sk-test");
        QTest::newRow("access token") << KeychainKey::accessToken << "access-token"
                                      << "eyJhbGciOi.x.y" << QByteArray("eyJhbGciOi.x.y");
        QTest::newRow("refresh token non-ASCII")
            << KeychainKey::refreshToken << "refresh-token" << QStringLiteral("Grüße 鍵 🔑")
            << QByteArray("Gr\xc3\xbc\xc3\x9f\x65 \xe9\x8d\xb5 \xf0\x9f\x94\x91");
        QTest::newRow("empty") << KeychainKey::openAIAPIKey << "openai-api-key"
                               << "" << QByteArray("");
    }

    void saveStoresUtf8UnderServiceAndAccount()
    {
        QFETCH(KeychainKey, key);
        QFETCH(QString, account);
        QFETCH(QString, value);
        QFETCH(QByteArray, bytes);

        QVERIFY(m_helper->save(value, key));
        QCOMPARE(m_store->secret(kService, account), std::optional<QByteArray>(bytes));
        QCOMPARE(m_store->label(kService, account),
                 std::optional<QString>(QStringLiteral("Quillvox: ") + account));
        QCOMPARE(m_store->itemCount(), 1);
        QVERIFY(m_helper->lastFailureReason().isEmpty());
    }

    void loadDecodesStrictUtf8_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<std::optional<QString>>("expected");

        QTest::newRow("ASCII") << QByteArray("sk-123") << std::optional<QString>(QStringLiteral("sk-123"));
        QTest::newRow("non-ASCII") << QByteArray("\xc3\xa9t\xc3\xa9 \xf0\x9f\x94\x91")
                                   << std::optional<QString>(QStringLiteral("été 🔑"));
        QTest::newRow("empty") << QByteArray("") << std::optional<QString>(QStringLiteral(""));
        QTest::newRow("leading BOM kept")
            << QByteArray("\xef\xbb\xbfk") << std::optional<QString>(QStringLiteral("\uFEFFk"));
        QTest::newRow("invalid byte") << QByteArray("ab\xff") << std::optional<QString>();
        QTest::newRow("truncated sequence") << QByteArray("ab\xc3") << std::optional<QString>();
        QTest::newRow("overlong encoding") << QByteArray("\xc0\xaf") << std::optional<QString>();
        QTest::newRow("encoded surrogate") << QByteArray("\xed\xa0\x80") << std::optional<QString>();
    }

    void loadDecodesStrictUtf8()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(std::optional<QString>, expected);

        m_store->insert(kService, kAccount, bytes);
        const std::optional<QString> loaded = m_helper->load(KeychainKey::openAIAPIKey);
        QCOMPARE(loaded, expected);
        if (loaded)
            QVERIFY2(!loaded->isNull(), "a stored empty value must not look like a missing one");
        QCOMPARE(m_helper->lastFailureReason().isEmpty(), expected.has_value());
    }

    void loadOfMissingItemIsNothingWithoutFailure()
    {
        m_store->insert(kService, QStringLiteral("access-token"), "other account");
        m_store->insert(kService + QStringLiteral(".other"), kAccount, "other service");

        QCOMPARE(m_helper->load(KeychainKey::openAIAPIKey), std::optional<QString>());
        QVERIFY(m_helper->lastFailureReason().isEmpty());
    }

    void saveOfInvalidUnicodeTouchesNothing_data()
    {
        QTest::addColumn<QString>("value");
        QTest::newRow("lone high surrogate") << QStringLiteral("a") + QChar(0xD800) + QStringLiteral("b");
        QTest::newRow("lone low surrogate") << QStringLiteral("a") + QChar(0xDC00);
        QTest::newRow("high surrogate at the end") << QStringLiteral("sk-") + QChar(0xD83D);
    }

    void saveOfInvalidUnicodeTouchesNothing()
    {
        QFETCH(QString, value);
        m_store->insert(kService, kAccount, "old");

        QVERIFY(!m_helper->save(value, KeychainKey::openAIAPIKey));
        QCOMPARE(m_store->secret(kService, kAccount), std::optional<QByteArray>("old"));
        QVERIFY(!m_helper->lastFailureReason().isEmpty());
    }

    // A failed add comes after the delete, so the old value is gone as well.
    void saveFailingInAddLeavesNoItem_data()
    {
        QTest::addColumn<Status>("failure");
        QTest::newRow("refused") << Status::Failed;
        QTest::newRow("locked") << Status::Locked;
        QTest::newRow("unavailable") << Status::Unavailable;
    }

    void saveFailingInAddLeavesNoItem()
    {
        QFETCH(Status, failure);
        m_store->insert(kService, kAccount, "old");
        m_store->setFailure(Operation::Store, failure);

        QVERIFY(!m_helper->save(QStringLiteral("new"), KeychainKey::openAIAPIKey));
        QCOMPARE(m_store->itemCount(), 0);
        QVERIFY2(m_helper->lastFailureReason().startsWith(reasonPrefix(failure)),
                 qPrintable(m_helper->lastFailureReason()));
    }

    void saveAfterFailedDelete_data()
    {
        QTest::addColumn<Status>("failure");
        QTest::addColumn<bool>("saved");
        QTest::addColumn<QByteArray>("left");

        // A refused delete does not decide the save; the add still runs.
        QTest::newRow("refused") << Status::Failed << true << QByteArray("new");
        // No keyring, or one that stayed locked, will not take the add either: the old item is untouched.
        QTest::newRow("locked") << Status::Locked << false << QByteArray("old");
        QTest::newRow("unavailable") << Status::Unavailable << false << QByteArray("old");
    }

    void saveAfterFailedDelete()
    {
        QFETCH(Status, failure);
        QFETCH(bool, saved);
        QFETCH(QByteArray, left);
        m_store->insert(kService, kAccount, "old");
        m_store->setFailure(Operation::Remove, failure);

        QCOMPARE(m_helper->save(QStringLiteral("new"), KeychainKey::openAIAPIKey), saved);
        QCOMPARE(m_store->secret(kService, kAccount), std::optional<QByteArray>(left));
        QCOMPARE(m_helper->lastFailureReason().isEmpty(), saved);
    }

    void failuresReportWhy_data()
    {
        QTest::addColumn<Status>("failure");
        QTest::newRow("no keyring") << Status::Unavailable;
        QTest::newRow("locked") << Status::Locked;
        QTest::newRow("refused") << Status::Failed;
    }

    void failuresReportWhy()
    {
        QFETCH(Status, failure);
        m_store->insert(kService, kAccount, "stored");
        m_store->setFailure(failure);

        QVERIFY(!m_helper->save(QStringLiteral("new"), KeychainKey::openAIAPIKey));
        QVERIFY2(m_helper->lastFailureReason().startsWith(reasonPrefix(failure)),
                 qPrintable(m_helper->lastFailureReason()));
        QCOMPARE(m_helper->load(KeychainKey::openAIAPIKey), std::optional<QString>());
        QVERIFY(m_helper->lastFailureReason().startsWith(reasonPrefix(failure)));
        QVERIFY(!m_helper->remove(KeychainKey::openAIAPIKey));
        QVERIFY(m_helper->lastFailureReason().startsWith(reasonPrefix(failure)));
        QCOMPARE(m_store->secret(kService, kAccount), std::optional<QByteArray>("stored"));

        // The reason belongs to the last call: it goes once a call succeeds.
        m_store->setFailure(Status::Ok);
        QCOMPARE(m_helper->load(KeychainKey::openAIAPIKey), std::optional<QString>(QStringLiteral("stored")));
        QVERIFY(m_helper->lastFailureReason().isEmpty());
    }

    void noKeyringReasonTellsWhatToInstall()
    {
        m_store->setFailure(Status::Unavailable);
        QVERIFY(!m_helper->remove(KeychainKey::accessToken));
        const QString reason = m_helper->lastFailureReason();
        for (const char *keyring : {"GNOME Keyring", "KWallet", "KeePassXC"})
            QVERIFY2(reason.contains(QLatin1String(keyring)), qPrintable(reason));
        QVERIFY(reason.endsWith(u'.'));
    }

    void removeOfMissingItemSucceeds()
    {
        m_store->insert(kService + QStringLiteral(".other"), kAccount, "other service");

        QVERIFY(m_helper->remove(KeychainKey::openAIAPIKey));
        QVERIFY(m_helper->lastFailureReason().isEmpty());
        QCOMPARE(m_store->itemCount(), 1);
    }
};

QTEST_GUILESS_MAIN(TestKeychainHelper)
#include "tst_keychainhelper.moc"
