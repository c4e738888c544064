// SPDX-License-Identifier: GPL-3.0-or-later
#include "ManualClock.h"

#include "account/KeychainHelper.h"
#include "core/AppEvents.h"
#include "onboarding/OnboardingPackage.h"
#include "onboarding/OnboardingViewModel.h"
#include "platform/null/MemorySecretStore.h"

#include <QSignalSpy>
#include <QTest>
#include <QUrlQuery>

using namespace std::chrono_literals;

class TestOnboarding : public QObject
{
    Q_OBJECT

    ManualClock m_clock;

    std::unique_ptr<OnboardingViewModel> model(std::function<bool()> isTrusted = {})
    {
        OnboardingViewModel::Services services;
        services.clock = &m_clock;
        services.isTrusted = std::move(isTrusted);
        return std::make_unique<OnboardingViewModel>(std::move(services));
    }

    // Brings a fresh model to `step` the way the views do.
    static void reach(OnboardingViewModel &vm, const QString &step)
    {
        if (step == u"signIn")
            vm.nextStep();
        else if (step == u"freeMinutes")
            vm.goToFreeMinutes();
        else if (step == u"permissions")
            vm.goToPermissions();
        else if (step == u"tutorial")
            vm.goToTutorial();
        else if (step == u"pricing")
            vm.goToPricing();
        else if (step == u"purchaseConfirmation")
            Q_EMIT AppEvents::shared().onboardingPurchaseSuccess();
        else if (step == u"completion")
            vm.goToCompletion();
    }

private Q_SLOTS:
    void steps_data()
    {
        QTest::addColumn<QString>("from");
        QTest::addColumn<QString>("afterNext");
        QTest::addColumn<QString>("afterPrevious");
        QTest::addColumn<bool>("showsBack");

        const auto row = [](const char *from, const char *afterNext, const char *afterPrevious, bool back) {
            QTest::newRow(from) << QString::fromLatin1(from) << QString::fromLatin1(afterNext)
                                << QString::fromLatin1(afterPrevious) << back;
        };
        row("welcome", "signIn", "welcome", false);
        row("signIn", "freeMinutes", "welcome", true);
        row("freeMinutes", "permissions", "freeMinutes", false);
        row("permissions", "tutorial", "freeMinutes", true);
        row("tutorial", "pricing", "tutorial", false);
        row("pricing", "purchaseConfirmation", "pricing", false);
        row("purchaseConfirmation", "completion", "purchaseConfirmation", false);
        row("completion", "completion", "completion", false);
    }

    void steps()
    {
        QFETCH(QString, from);
        for (const bool forward : {true, false}) {
            const auto vm = model();
            reach(*vm, from);
            QCOMPARE(vm->currentStepName(), from);
            QTEST(vm->canGoBack(), "showsBack");
            if (forward) {
                vm->nextStep();
                QTEST(vm->currentStepName(), "afterNext");
            } else {
                vm->previousStep();
                QTEST(vm->currentStepName(), "afterPrevious");
            }
        }
    }

    // Trust as the session answers it at each poll (the first answer is the construction's own check).
    void permissionPoll_data()
    {
        QTest::addColumn<QList<bool>>("answers");
        QTest::addColumn<int>("publications");
        QTest::addColumn<bool>("finally");

        QTest::newRow("never trusted") << QList<bool>{false, false, false, false} << 0 << false;
        QTest::newRow("trusted from the start") << QList<bool>{true, true, true, true} << 1 << true;
        QTest::newRow("granted later") << QList<bool>{false, false, true, true} << 1 << true;
        QTest::newRow("granted then lost") << QList<bool>{false, true, true, false} << 2 << false;
    }

    void permissionPoll()
    {
        QFETCH(QList<bool>, answers);
        qsizetype asked = 0;
        const auto vm = model([&] { return answers.value(std::min(asked++, answers.size() - 1)); });
        QSignalSpy published(vm.get(), &OnboardingViewModel::hasPermissionsChanged);
        QCoreApplication::processEvents();
        for (qsizetype tick = 1; tick < answers.size(); ++tick) {
            m_clock.advance(999ms);
            QCOMPARE(asked, tick);
            m_clock.advance(1ms);
            QCOMPARE(asked, tick + 1);
            QCoreApplication::processEvents();
        }
        QTEST(int(published.count()), "publications");
        QTEST(vm->hasPermissions(), "finally");
    }

    // "Use my own API key": the flow moves on once the keyring holds the key, offers no way back to
    // free minutes it never had, and skips pricing unless there is an account as well.
    void ownKeyPath_data()
    {
        QTest::addColumn<bool>("alsoSignedIn");
        QTest::addColumn<QString>("afterTutorial");
        QTest::newRow("key only") << false << QStringLiteral("completion");
        QTest::newRow("key and account") << true << QStringLiteral("pricing");
    }
    void ownKeyPath()
    {
        KeychainHelper keychain(QStringLiteral("test"), std::make_unique<MemorySecretStore>());
        OnboardingViewModel::Services services;
        services.clock = &m_clock;
        services.keychain = &keychain;
        OnboardingViewModel vm(std::move(services));
        QSignalSpy settingsOpened(&AppEvents::shared(), &AppEvents::openSettingsWindow);
        vm.nextStep();
        vm.useOwnApiKey();
        QCOMPARE(settingsOpened.count(), 1);
        m_clock.advance(1s);
        QCOMPARE(vm.currentStepName(), QStringLiteral("signIn"));

        QVERIFY(keychain.save(QStringLiteral("sk-own"), KeychainKey::openAIAPIKey));
        m_clock.advance(1s);
        QCOMPARE(vm.currentStepName(), QStringLiteral("permissions"));
        QVERIFY(!vm.canGoBack());

        QFETCH(bool, alsoSignedIn);
        if (alsoSignedIn)
            QVERIFY(keychain.save(QStringLiteral("token"), KeychainKey::accessToken));
        vm.goToTutorial();
        vm.finishTutorial();
        QTEST(vm.currentStepName(), "afterTutorial");
    }

    void packageTexts()
    {
        const std::tuple<double, const char *, int, const char *> rows[] = {
            {2.5, "2.5 hours", 500, "$5.00"},
            {20.0, "20 hours", 3500, "$35.00"},
            {1.0, "1 hour", 1999, "$19.99"},
            {3.33, "3.3 hours", 5, "$0.05"}};
        for (const auto &[hours, hoursText, cents, priceText] : rows) {
            QCOMPARE(OnboardingPackage::hoursText(hours), QString::fromLatin1(hoursText));
            QCOMPARE(OnboardingPackage::priceText(cents), QString::fromLatin1(priceText));
        }
    }

    // The purchase page is reached through the token exchange; characters outside the query set are
    // escaped.
    void tokenExchangeUrl()
    {
        for (const auto &[packageId, escaped] :
             {std::pair(u"popular"_qs, u"popular"_qs), std::pair(u"a b#c"_qs, u"a%20b%23c"_qs)}) {
            const QUrl url = OnboardingViewModel::tokenExchangeUrl(QUrl(QStringLiteral("https://svc.test/")),
                                                                   QStringLiteral("c0de"), packageId);
            QVERIFY(url.isValid());
            QCOMPARE(
                url.toString(QUrl::FullyEncoded),
                u"https://svc.test/api/auth/token-exchange?code=c0de&next=/api/credits/purchase-redirect?package="_qs +
                    escaped);
            QCOMPARE(QUrlQuery(url).queryItemValue(QStringLiteral("next"), QUrl::FullyDecoded),
                     QStringLiteral("/api/credits/purchase-redirect?package=") + packageId);
        }
    }

    void purchaseSuccessConfirmsTheSelectedPackage()
    {
        const auto vm = model();
        vm->goToPricing();
        vm->purchase(QStringLiteral("pro")); // no session: fails, but the package stays selected
        QCOMPARE(vm->purchaseError(), QStringLiteral("Failed to generate authentication code"));
        QVERIFY(!vm->purchasedPackage());
        Q_EMIT AppEvents::shared().onboardingPurchaseSuccess();
        QCOMPARE(vm->currentStep(), OnboardingStep::purchaseConfirmation);
        QCOMPARE(vm->purchasedPackage()->id, QStringLiteral("pro"));
        QCOMPARE(vm->purchasedMinutesText(), QStringLiteral("1200 minutes added to your account"));
    }
};

QTEST_GUILESS_MAIN(TestOnboarding)
#include "tst_onboarding.moc"
