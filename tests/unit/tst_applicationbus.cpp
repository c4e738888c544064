// SPDX-License-Identifier: GPL-3.0-or-later
// The running instance's channel: which callback URLs are routed, the profile's bus name, and requests
// crossing a real (private) session bus from a connection of their own to the instance's handler.
#include "app/RemoteControl.h"
#include "app/SingleInstance.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QTest>

#include <future>

namespace {

using Route = RemoteControl::UrlRoute;

QDBusConnection clientBus()
{
    return QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("client"));
}

} // namespace

class TestApplicationBus : public QObject
{
    Q_OBJECT

    QStringList m_heard;
    QJsonObject m_reply;
    std::unique_ptr<SingleInstance> m_instance;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(QDBusConnection::sessionBus().isConnected(), "needs a session bus (dbus-run-session)");
        QVERIFY(clientBus().isConnected());
    }

    void urlRoute()
    {
        const std::pair<const char *, Route> rows[] = {
            {"quillvox://auth/callback#access_token=a&refresh_token=r", Route::AuthCallback},
            {"quillvox://auth/callback?x=1", Route::AuthCallback},
            {"other://auth/callback", Route::AuthCallback}, // the scheme is not checked
            {"quillvox://purchase/success", Route::PurchaseSuccess},
            {"quillvox://AUTH/callback", Route::Ignored},
            {"quillvox://auth/Callback", Route::Ignored},
            {"quillvox://auth/callback/", Route::Ignored},
            {"quillvox://auth/error", Route::Ignored},
            {"quillvox://purchase/cancel", Route::Ignored},
            {"quillvox:auth/callback", Route::Ignored},
            {"not a url", Route::Ignored}};
        for (const auto &[url, route] : rows)
            QCOMPARE(RemoteControl::urlRoute(QString::fromLatin1(url)), route);
    }

    // The default profile has the plain name; any other configuration folder one of its own.
    void busName()
    {
        const std::pair<const char *, QString> rows[] = {
            {"/home/ann/.config", QString()},
            {"/home/ann/.config/", QString()},
            {"/tmp/profile/config", QStringLiteral("Profile_4722d43b96")},
            {"/tmp/prófile", QStringLiteral("Profile_6fb65a684f")}};
        for (const auto &[folder, profile] : rows) {
            const QString name =
                SingleInstance::busNameFor(QString::fromUtf8(folder), QStringLiteral("/home/ann"));
            QCOMPARE(name, QStringLiteral("com.vantor.Quillvox") +
                               (profile.isEmpty() ? QString() : u'.' + profile));
            QCOMPARE(SingleInstance::objectPathFor(name),
                     QStringLiteral("/com/vantor/Quillvox") +
                         (profile.isEmpty() ? QString() : u'/' + profile));
        }
    }

    void overTheBus_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<QString>("argument");
        QTest::addColumn<QStringList>("heard");
        QTest::addColumn<bool>("ok");
        for (const QString &action : SingleInstance::actionNames())
            QTest::newRow(qPrintable(action)) << action << QString() << QStringList{action + u'|'} << true;
        QTest::newRow("activate") << "activate" << QString() << QStringList{"activate|"} << true;
        QTest::newRow("open") << "open-url"
                              << "quillvox://auth/callback#access_token=t"
                              << QStringList{"open-url|quillvox://auth/callback#access_token=t"} << true;
        QTest::newRow("speak") << "speak"
                               << "Hello there." << QStringList{"speak|Hello there."} << true;
        QTest::newRow("status") << "status" << QString() << QStringList{"status|"} << true;
        QTest::newRow("unknown action") << "quit" << QString() << QStringList() << false;
        QTest::newRow("handler refuses") << "toggle"
                                         << "refuse" << QStringList{"toggle|"} << false;
    }

    void overTheBus()
    {
        QFETCH(QString, command);
        QFETCH(QString, argument);
        QFETCH(QStringList, heard);
        QFETCH(bool, ok);

        m_heard.clear();
        m_reply = QJsonObject{{QStringLiteral("ok"), argument != u"refuse"},
                              {QStringLiteral("status"), QJsonObject{{QStringLiteral("isPlaying"), true}}}};
        if (!m_instance) {
            m_instance = std::make_unique<SingleInstance>();
            QVERIFY(m_instance->listen([this](const QString &c, const QString &a) {
                m_heard.append(c + u'|' + a);
                return m_reply;
            }));
        }
        // From another thread, as a second process would: this one's event loop answers meanwhile.
        std::future<std::optional<QJsonObject>> call = std::async(
            std::launch::async, [&] { return SingleInstance::send(command, argument, 5000, clientBus()); });
        QTRY_VERIFY(call.wait_for(std::chrono::seconds(0)) == std::future_status::ready);
        const std::optional<QJsonObject> reply = call.get();
        QVERIFY(reply.has_value());
        QCOMPARE(m_heard, heard);
        QCOMPARE(reply->value(QStringLiteral("ok")).toBool(), ok);
        if (command == u"status")
            QCOMPARE(reply->value(QStringLiteral("status")).toObject(),
                     m_reply.value(QStringLiteral("status")));
    }

    void oneInstancePerProfile()
    {
        QVERIFY(m_instance);
        SingleInstance second(clientBus());
        QVERIFY(!second.listen([](const QString &, const QString &) { return QJsonObject(); }));

        m_instance.reset(); // the name goes with it
        QCOMPARE(SingleInstance::send(QStringLiteral("toggle"), {}, 5000, clientBus()), std::nullopt);
    }
};

QTEST_GUILESS_MAIN(TestApplicationBus)
#include "tst_applicationbus.moc"
