// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/ShellStatusMenu.h"

#include "app/StatusMenu.h"
#include "core/Logging.h"
#include "platform/gnome/GnomeShellExtension.h"
#include "speech/SpeechManager.h"

#include <QAction>
#include <QDBusArgument>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusServiceWatcher>
#include <QDBusVirtualObject>
#include <QMenu>
#include <QTimer>

Q_DECLARE_METATYPE(ShellStatusMenu::Item)

// Global, for QtDBus's marshalling templates to find.
static QDBusArgument &operator<<(QDBusArgument &argument, const ShellStatusMenu::Item &item)
{
    argument.beginStructure();
    argument << item.id << item.label << item.enabled << item.separator;
    argument.endStructure();
    return argument;
}

static const QDBusArgument &operator>>(const QDBusArgument &argument, ShellStatusMenu::Item &item)
{
    argument.beginStructure();
    argument >> item.id >> item.label >> item.enabled >> item.separator;
    argument.endStructure();
    return argument;
}

class ShellStatusMenu::BusObject final : public QDBusVirtualObject
{
public:
    BusObject(ShellStatusMenu &owner)
        : QDBusVirtualObject(&owner)
        , m_owner(owner)
    {}

    QString introspect(const QString &) const override
    {
        return QStringLiteral(R"xml(<interface name="com.vantor.Quillvox.StatusMenu">
  <method name="GetMenu">
    <arg type="b" name="playing" direction="out"/>
    <arg type="a(ssbb)" name="items" direction="out"/>
  </method>
  <method name="Activate">
    <arg type="s" name="id" direction="in"/>
  </method>
  <signal name="Changed"/>
</interface>
)xml");
    }

    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override
    {
        if (message.type() != QDBusMessage::MethodCallMessage ||
            message.interface() != QLatin1String(kInterface))
            return false;
        QMenu &menu = *m_owner.m_menu.menu();
        if (message.member() == u"GetMenu") {
            connection.send(message.createReply(
                {m_owner.m_speech.isPlaying(), QVariant::fromValue(ShellStatusMenu::items(menu))}));
            return true;
        }
        if (message.member() == u"Activate" && message.signature() == u"s") {
            if (ShellStatusMenu::activate(menu, message.arguments().constFirst().toString()))
                connection.send(message.createReply());
            else
                connection.send(message.createErrorReply(QDBusError::InvalidArgs,
                                                         QStringLiteral("No such item in the menu now")));
            return true;
        }
        return false;
    }

private:
    ShellStatusMenu &m_owner;
};

ShellStatusMenu::ShellStatusMenu(StatusMenu &menu, SpeechManager &speech, QDBusConnection bus,
                                 QObject *parent)
    : QObject(parent)
    , m_menu(menu)
    , m_speech(speech)
    , m_bus(std::move(bus))
{
    qDBusRegisterMetaType<Item>();
    qDBusRegisterMetaType<QList<Item>>();
}

ShellStatusMenu::~ShellStatusMenu()
{
    if (m_object)
        m_bus.unregisterObject(QString::fromLatin1(kPath));
}

void ShellStatusMenu::start()
{
    for (QAction *action : m_menu.menu()->actions())
        connect(action, &QAction::changed, this, &ShellStatusMenu::scheduleChanged);
    connect(&m_speech, &SpeechManager::isPlayingChanged, this, &ShellStatusMenu::scheduleChanged);

    if (!m_bus.isConnected()) {
        m_menu.show();
        return;
    }
    m_object = new BusObject(*this);
    if (!m_bus.registerVirtualObject(QString::fromLatin1(kPath), m_object))
        qCWarning(lcApp) << "could not export the status menu on the session bus";
    // The extension asked for the menu when our name appeared, before the object was there.
    scheduleChanged();

    const QString extension = QString::fromLatin1(GnomeShellExtension::kService);
    auto *watcher = new QDBusServiceWatcher(
        extension, m_bus,
        QDBusServiceWatcher::WatchForRegistration | QDBusServiceWatcher::WatchForUnregistration, this);
    connect(watcher, &QDBusServiceWatcher::serviceRegistered, this, [this] { followExtension(true); });
    connect(watcher, &QDBusServiceWatcher::serviceUnregistered, this, [this] { followExtension(false); });
    followExtension(m_bus.interface()->isServiceRegistered(extension));
}

void ShellStatusMenu::followExtension(bool present)
{
    if (present)
        m_menu.hide();
    else
        m_menu.show();
}

void ShellStatusMenu::scheduleChanged()
{
    if (m_changePending)
        return;
    m_changePending = true;
    // One signal for the several items one state change touches.
    QTimer::singleShot(0, this, [this] {
        m_changePending = false;
        if (m_object)
            m_bus.send(QDBusMessage::createSignal(QString::fromLatin1(kPath), QString::fromLatin1(kInterface),
                                                  QStringLiteral("Changed")));
    });
}

// The menu already hides what its state leaves out, separators included (StatusMenuState).
QList<ShellStatusMenu::Item> ShellStatusMenu::items(const QMenu &menu)
{
    QList<Item> result;
    const QList<QAction *> actions = menu.actions();
    for (qsizetype i = 0; i < actions.size(); ++i) {
        const QAction *action = actions[i];
        if (!action->isVisible())
            continue;
        if (action->isSeparator())
            result.append({QString(), QString(), false, true});
        else
            result.append({QString::number(i), action->text(), action->isEnabled(), false});
    }
    return result;
}

bool ShellStatusMenu::activate(QMenu &menu, const QString &id)
{
    bool numeric = false;
    const int index = id.toInt(&numeric);
    const QList<QAction *> actions = menu.actions();
    if (!numeric || index < 0 || index >= actions.size())
        return false;
    QAction *action = actions[index];
    if (action->isSeparator() || !action->isVisible() || !action->isEnabled())
        return false;
    // After the reply has gone: "Quit Quillvox" ends the process.
    QTimer::singleShot(0, action, &QAction::trigger);
    return true;
}
