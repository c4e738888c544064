// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/dbus/DBusMenuExporter.h"

#include <QAction>
#include <QDBusAbstractAdaptor>
#include <QDBusArgument>
#include <QDBusMetaType>
#include <QDBusVariant>
#include <QEvent>
#include <QMenu>
#include <QTimer>

namespace {

struct MenuLayoutItem
{
    int id = 0;
    QVariantMap properties;
    QList<MenuLayoutItem> children;
};

struct MenuItemProperties
{
    int id = 0;
    QVariantMap properties;
};
using MenuItemPropertiesList = QList<MenuItemProperties>;

struct MenuItemPropertyNames
{
    int id = 0;
    QStringList names;
};
using MenuItemPropertyNamesList = QList<MenuItemPropertyNames>;

struct MenuEvent
{
    int id = 0;
    QString eventId;
    QDBusVariant data;
    uint timestamp = 0;
};
using MenuEventList = QList<MenuEvent>;

} // namespace

Q_DECLARE_METATYPE(MenuLayoutItem)
Q_DECLARE_METATYPE(MenuItemProperties)
Q_DECLARE_METATYPE(MenuItemPropertyNames)
Q_DECLARE_METATYPE(MenuEvent)

namespace {

QDBusArgument &operator<<(QDBusArgument &argument, const MenuLayoutItem &item)
{
    argument.beginStructure();
    argument << item.id << item.properties;
    argument.beginArray(qMetaTypeId<QDBusVariant>());
    for (const MenuLayoutItem &child : item.children)
        argument << QDBusVariant(QVariant::fromValue(child));
    argument.endArray();
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, MenuLayoutItem &item)
{
    // Only ever sent; a layout that comes in is read as far as its head.
    argument.beginStructure();
    argument >> item.id >> item.properties;
    argument.beginArray();
    while (!argument.atEnd()) {
        QDBusVariant child;
        argument >> child;
    }
    argument.endArray();
    argument.endStructure();
    return argument;
}

QDBusArgument &operator<<(QDBusArgument &argument, const MenuItemProperties &item)
{
    argument.beginStructure();
    argument << item.id << item.properties;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, MenuItemProperties &item)
{
    argument.beginStructure();
    argument >> item.id >> item.properties;
    argument.endStructure();
    return argument;
}

QDBusArgument &operator<<(QDBusArgument &argument, const MenuItemPropertyNames &item)
{
    argument.beginStructure();
    argument << item.id << item.names;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, MenuItemPropertyNames &item)
{
    argument.beginStructure();
    argument >> item.id >> item.names;
    argument.endStructure();
    return argument;
}

QDBusArgument &operator<<(QDBusArgument &argument, const MenuEvent &event)
{
    argument.beginStructure();
    argument << event.id << event.eventId << event.data << event.timestamp;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, MenuEvent &event)
{
    argument.beginStructure();
    argument >> event.id >> event.eventId >> event.data >> event.timestamp;
    argument.endStructure();
    return argument;
}

QVariantMap filtered(const QVariantMap &properties, const QStringList &names)
{
    if (names.isEmpty())
        return properties;
    QVariantMap kept;
    for (const QString &name : names) {
        if (properties.contains(name))
            kept.insert(name, properties.value(name));
    }
    return kept;
}

// dbusmenu marks the mnemonic with "_" where Qt uses "&".
QString dbusMenuLabel(const QString &text)
{
    QString label;
    for (qsizetype i = 0; i < text.size(); ++i) {
        if (text[i] == u'_')
            label += QStringLiteral("__");
        else if (text[i] == u'&' && i + 1 < text.size() && text[i + 1] != u'&')
            label += u'_';
        else if (text[i] == u'&' && i + 1 < text.size())
            label += text[++i];
        else
            label += text[i];
    }
    return label;
}

} // namespace

// com.canonical.dbusmenu, protocol version 3.
class DBusMenuAdaptor : public QDBusAbstractAdaptor
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.canonical.dbusmenu")
    Q_PROPERTY(uint Version READ version)
    Q_PROPERTY(QString TextDirection READ textDirection)
    Q_PROPERTY(QString Status READ status)
    Q_PROPERTY(QStringList IconThemePath READ iconThemePath)

public:
    explicit DBusMenuAdaptor(DBusMenuExporter *exporter)
        : QDBusAbstractAdaptor(exporter)
        , m_exporter(exporter)
    {
        connect(exporter, &DBusMenuExporter::layoutUpdated, this, &DBusMenuAdaptor::LayoutUpdated);
    }

    static uint version() { return 3; }
    static QString textDirection() { return QStringLiteral("ltr"); }
    static QString status() { return QStringLiteral("normal"); }
    static QStringList iconThemePath() { return {}; }

public Q_SLOTS:
    uint GetLayout(int parentId, int recursionDepth, const QStringList &propertyNames, MenuLayoutItem &layout)
    {
        layout.id = parentId;
        layout.properties = filtered(m_exporter->properties(parentId), propertyNames);
        if (parentId == 0 && recursionDepth != 0) {
            for (const int id : m_exporter->ids())
                layout.children.append({id, filtered(m_exporter->properties(id), propertyNames), {}});
        }
        return m_exporter->revision();
    }

    MenuItemPropertiesList GetGroupProperties(const QList<int> &ids, const QStringList &propertyNames)
    {
        MenuItemPropertiesList items;
        for (const int id : ids) {
            if (m_exporter->exists(id))
                items.append({id, filtered(m_exporter->properties(id), propertyNames)});
        }
        return items;
    }

    QDBusVariant GetProperty(int id, const QString &name)
    {
        return QDBusVariant(m_exporter->properties(id).value(name));
    }

    void Event(int id, const QString &eventId, const QDBusVariant &, uint)
    {
        if (eventId == u"clicked")
            m_exporter->trigger(id);
    }

    QList<int> EventGroup(const MenuEventList &events)
    {
        QList<int> errors;
        for (const MenuEvent &event : events) {
            if (!m_exporter->exists(event.id))
                errors.append(event.id);
            else
                Event(event.id, event.eventId, event.data, event.timestamp);
        }
        return errors;
    }

    static bool AboutToShow(int) { return false; }

    QList<int> AboutToShowGroup(const QList<int> &ids, QList<int> &idErrors)
    {
        for (const int id : ids) {
            if (!m_exporter->exists(id))
                idErrors.append(id);
        }
        return {};
    }

Q_SIGNALS:
    void ItemsPropertiesUpdated(const MenuItemPropertiesList &updatedProps,
                                const MenuItemPropertyNamesList &removedProps);
    void LayoutUpdated(uint revision, int parent);
    void ItemActivationRequested(int id, uint timestamp);

private:
    DBusMenuExporter *m_exporter;
};

DBusMenuExporter::DBusMenuExporter(QMenu *menu, QObject *parent)
    : QObject(parent)
    , m_menu(menu)
    , m_menuObject(menu)
{
    qDBusRegisterMetaType<MenuLayoutItem>();
    qDBusRegisterMetaType<MenuItemProperties>();
    qDBusRegisterMetaType<MenuItemPropertiesList>();
    qDBusRegisterMetaType<MenuItemPropertyNames>();
    qDBusRegisterMetaType<MenuItemPropertyNamesList>();
    qDBusRegisterMetaType<MenuEvent>();
    qDBusRegisterMetaType<MenuEventList>();
    qDBusRegisterMetaType<QList<QStringList>>();
    new DBusMenuAdaptor(this);
    menu->installEventFilter(this);
}

DBusMenuExporter::~DBusMenuExporter()
{
    if (m_menu)
        m_menu->removeEventFilter(this);
    if (!m_path.isEmpty())
        m_bus.unregisterObject(m_path);
}

bool DBusMenuExporter::registerOnBus(const QDBusConnection &bus, const QString &path)
{
    m_bus = bus;
    m_path = path;
    return m_bus.registerObject(path, this, QDBusConnection::ExportAdaptors);
}

QList<int> DBusMenuExporter::ids()
{
    QList<int> ids;
    if (m_menu) {
        for (QAction *action : m_menu->actions())
            ids.append(idOf(action));
    }
    return ids;
}

bool DBusMenuExporter::exists(int id)
{
    return id == 0 || actionOf(id);
}

QVariantMap DBusMenuExporter::properties(int id)
{
    if (id == 0)
        return {{QStringLiteral("children-display"), QStringLiteral("submenu")}};
    const QAction *action = actionOf(id);
    if (!action)
        return {};
    QVariantMap properties{{QStringLiteral("visible"), action->isVisible()}};
    if (action->isSeparator()) {
        properties.insert(QStringLiteral("type"), QStringLiteral("separator"));
        return properties;
    }
    properties.insert(QStringLiteral("label"), dbusMenuLabel(action->text()));
    properties.insert(QStringLiteral("enabled"), action->isEnabled());
    if (!action->shortcut().isEmpty())
        properties.insert(QStringLiteral("shortcut"), QVariant::fromValue(shortcutParts(action->shortcut())));
    if (action->isCheckable()) {
        properties.insert(QStringLiteral("toggle-type"), QStringLiteral("checkmark"));
        properties.insert(QStringLiteral("toggle-state"), action->isChecked() ? 1 : 0);
    }
    return properties;
}

void DBusMenuExporter::trigger(int id)
{
    // After the click's reply has gone out: the action may take long or end the process.
    if (QAction *action = actionOf(id)) {
        QTimer::singleShot(0, action, [action = QPointer<QAction>(action)] {
            if (action && action->isEnabled())
                action->trigger();
        });
    }
}

QList<QStringList> DBusMenuExporter::shortcutParts(const QKeySequence &sequence)
{
    QList<QStringList> chords;
    for (int i = 0; i < sequence.count(); ++i) {
        const QKeyCombination combination = sequence[i];
        QStringList keys;
        const Qt::KeyboardModifiers modifiers = combination.keyboardModifiers();
        if (modifiers & Qt::ControlModifier)
            keys.append(QStringLiteral("Control"));
        if (modifiers & Qt::AltModifier)
            keys.append(QStringLiteral("Alt"));
        if (modifiers & Qt::ShiftModifier)
            keys.append(QStringLiteral("Shift"));
        if (modifiers & Qt::MetaModifier)
            keys.append(QStringLiteral("Super"));
        keys.append(QKeySequence(combination.key()).toString(QKeySequence::PortableText));
        chords.append(keys);
    }
    return chords;
}

bool DBusMenuExporter::eventFilter(QObject *watched, QEvent *event)
{
    const QEvent::Type type = event->type();
    if (watched == m_menuObject &&
        (type == QEvent::ActionAdded || type == QEvent::ActionChanged || type == QEvent::ActionRemoved) &&
        !std::exchange(m_updatePending, true)) {
        // One new layout for a burst of changes: hosts fetch the whole menu again.
        QTimer::singleShot(0, this, [this] {
            m_updatePending = false;
            Q_EMIT layoutUpdated(++m_revision, 0);
        });
    }
    return QObject::eventFilter(watched, event);
}

int DBusMenuExporter::idOf(QAction *action)
{
    auto it = m_ids.find(action);
    if (it == m_ids.end()) {
        it = m_ids.insert(action, m_nextId++);
        connect(action, &QObject::destroyed, this, [this, action] { m_ids.remove(action); });
    }
    return *it;
}

QAction *DBusMenuExporter::actionOf(int id) const
{
    QAction *action = m_ids.key(id);
    return action && m_menu && m_menu->actions().contains(action) ? action : nullptr;
}

#include "DBusMenuExporter.moc"
