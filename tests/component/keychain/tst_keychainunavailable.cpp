// SPDX-License-Identifier: GPL-3.0-or-later
// A keyring that cannot serve, built twice: as tst_keychainlocked, gnome-keyring with the login collection
// locked and an item stored before; as tst_keychainnokeyring, a bus without a Secret Service (and, for the
// command line, no bus at all or a keyring that never finishes starting). Every call fails within a
// bounded time, says why, and leaves the stored item in place.
#include "account/KeychainHelper.h"
#include "keyring/KeyringFixture.h"
#include "platform/secret/LibsecretStore.h"

#include <QDeadlineTimer>
#include <QScopeGuard>
#include <QTest>

#include <functional>
#include <memory>

namespace {

#ifdef KEYCHAIN_LOCKED
constexpr bool kLocked = true;
#else
constexpr bool kLocked = false;
#endif
const QString kReason = kLocked ? "The keyring is locked" : "No keyring is available";
const QString kAccount = "openai-api-key";
// Generous: without a prompter gnome-keyring dismisses the unlock at once, and a keyring that does not
// answer is waited for 5 s.
constexpr qint64 kDoesNotHangMs = 15000;

// One of the helper's calls on the API key; true when it succeeded.
using KeychainCall = std::function<bool(KeychainHelper &)>;

} // namespace

class TestKeychainUnavailable : public QObject
{
    Q_OBJECT

private:
    KeyringFixture m_keyring{kLocked ? KeyringFixture::Mode::GnomeKeyring
                                     : KeyringFixture::Mode::NoSecretService};
    QString m_service;

    void verifyItemSurvived() const
    {
        if (!kLocked)
            return;
        const auto items = m_keyring.items({{"service", m_service}, {"account", kAccount}});
        QVERIFY(items.size() == 1 && items.first().label == "stored before the lock" && items.first().locked);
    }

    void verifyFails(const KeychainCall &call, KeychainHelper &keychain) const
    {
        const QDeadlineTimer hangs(kDoesNotHangMs);
        QVERIFY(!call(keychain));
        QVERIFY2(!hangs.hasExpired(), "an unavailable keyring must not hang the caller");
        QVERIFY2(keychain.lastFailureReason().startsWith(kReason), qPrintable(keychain.lastFailureReason()));
        verifyItemSurvived();
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(m_keyring.isReady(), qPrintable(m_keyring.errorString()));
        m_service = qEnvironmentVariable("QUILLVOX_KEYCHAIN_SERVICE");
        QVERIFY(m_service.startsWith(QLatin1String("com.vantor.quillvox.test.")));
        if (kLocked) {
            const KeyringFixture::Run stored = m_keyring.secretTool(
                {"store", "--label=stored before the lock", "service", m_service, "account", kAccount},
                "sk-before");
            QCOMPARE(stored.exitCode, 0);
            QVERIFY(m_keyring.lockLoginCollection());
            verifyItemSurvived();
        }
    }

    // Locked, the user may also never answer the unlock prompt: the call then gives up at its own
    // timeout, not gnome-keyring's (25 s), and gnome-keyring survives it.
    void callsFailWithReason_data()
    {
        QTest::addColumn<KeychainCall>("call");
        QTest::addColumn<bool>("promptUnanswered");
        const std::pair<const char *, KeychainCall> calls[] = {
            {"save", [](KeychainHelper &k) { return k.save("sk-new", KeychainKey::openAIAPIKey); }},
            {"load", [](KeychainHelper &k) { return k.load(KeychainKey::openAIAPIKey).has_value(); }},
            {"remove", [](KeychainHelper &k) { return k.remove(KeychainKey::openAIAPIKey); }}};
        for (const bool unanswered : kLocked ? QList{false, true} : QList{false}) {
            for (const auto &[name, call] : calls)
                QTest::addRow("%s%s", name, unanswered ? ", unlock prompt unanswered" : "")
                    << call << unanswered;
        }
    }

    void callsFailWithReason()
    {
        QFETCH(KeychainCall, call);
        QFETCH(bool, promptUnanswered);
        if (!promptUnanswered)
            return verifyFails(call, KeychainHelper::shared());
        QVERIFY(m_keyring.holdUnlockPrompts());
        const auto release = qScopeGuard([this] { m_keyring.releaseUnlockPrompts(); });
        KeychainHelper keychain(m_service, std::make_unique<LibsecretStore>(std::chrono::seconds(1)));
        verifyFails(call, keychain);
        QTRY_VERIFY2(m_keyring.unlockPromptCalls() > 0, qPrintable(m_keyring.logs()));
    }

    // "bus": the fixture's, none at all, or one whose keyring never finishes starting.
    void commandLineFailsWithReason_data()
    {
        QTest::addColumn<QString>("bus");
        QTest::addColumn<QString>("option");
        QTest::addColumn<QByteArray>("input");
        const QByteArray key("sk-new\n");
        const auto row = [](const char *name, const char *bus, const char *option, const QByteArray &input) {
            QTest::newRow(name) << QString::fromLatin1(bus) << QString::fromLatin1(option) << input;
        };
        row("set", "", "--set-api-key", key);
        row("clear", "", "--clear-api-key", {});
        if (kLocked)
            return;
        row("set, no session bus", "none", "--set-api-key", key);
        row("clear, no session bus", "none", "--clear-api-key", {});
        row("set, keyring never starts", "stalled", "--set-api-key", key);
    }

    void commandLineFailsWithReason()
    {
        QFETCH(QString, bus);
        QFETCH(QString, option);
        QFETCH(QByteArray, input);
        QProcessEnvironment env = m_keyring.environment();
        std::unique_ptr<KeyringFixture> stalled;
        if (bus == u"none")
            env.insert("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/quillvox-no-bus-here");
        if (bus == u"stalled") {
            stalled = std::make_unique<KeyringFixture>(KeyringFixture::Mode::StalledSecretService);
            QVERIFY2(stalled->isReady(), qPrintable(stalled->errorString()));
            env = stalled->environment();
        }
        const QDeadlineTimer hangs(kDoesNotHangMs);
        const KeyringFixture::Run run =
            m_keyring.run(QStringLiteral(QUILLVOX_EXECUTABLE), {option}, input, env);
        QVERIFY(run.finished);
        QVERIFY2(!hangs.hasExpired(), "an unavailable keyring must not hang the command line");
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(run.err.contains(kReason.toUtf8()), run.err.constData());
        QVERIFY(!run.err.contains("sk-new") && !run.out.contains("sk-new"));
        verifyItemSurvived();
    }
};

QTEST_GUILESS_MAIN(TestKeychainUnavailable)
#include "tst_keychainunavailable.moc"
