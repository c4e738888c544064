// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/dbus/StatusNotifierItem.h"

#include "core/Logging.h"
#include "platform/dbus/DBusMenuExporter.h"

#include <QCoreApplication>
#include <QDBusAbstractAdaptor>
#include <QDBusArgument>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>
#include <QDBusVariant>
#include <QtEndian>

namespace {

const QString kWatcherPath = QStringLiteral("/StatusNotifierWatcher");
const QString kItemPath = QStringLiteral("/StatusNotifierItem");
const QString kMenuPath = QStringLiteral("/MenuBar");

// One picture as the item sends it: ARGB32, big-endian, row after row.
struct SniPixmap
{
    int width = 0;
    int height = 0;
    QByteArray argb;
};
using SniPixmaps = QList<SniPixmap>;

struct SniToolTip
{
    QString iconName;
    SniPixmaps pixmaps;
    QString title;
    QString description;
};

} // namespace

Q_DECLARE_METATYPE(SniPixmap)
Q_DECLARE_METATYPE(SniToolTip)

namespace {

QDBusArgument &operator<<(QDBusArgument &argument, const SniPixmap &pixmap)
{
    argument.beginStructure();
    argument << pixmap.width << pixmap.height << pixmap.argb;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, SniPixmap &pixmap)
{
    argument.beginStructure();
    argument >> pixmap.width >> pixmap.height >> pixmap.argb;
    argument.endStructure();
    return argument;
}

QDBusArgument &operator<<(QDBusArgument &argument, const SniToolTip &toolTip)
{
    argument.beginStructure();
    argument << toolTip.iconName << toolTip.pixmaps << toolTip.title << toolTip.description;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, SniToolTip &toolTip)
{
    argument.beginStructure();
    argument >> toolTip.iconName >> toolTip.pixmaps >> toolTip.title >> toolTip.description;
    argument.endStructure();
    return argument;
}

SniPixmap sniPixmap(const QImage &image)
{
    const QImage argb = image.convertToFormat(QImage::Format_ARGB32);
    SniPixmap pixmap{argb.width(), argb.height(),
                     QByteArray(argb.width() * argb.height() * 4, Qt::Uninitialized)};
    auto *out = reinterpret_cast<uchar *>(pixmap.argb.data());
    for (int y = 0; y < argb.height(); ++y) {
        const auto *row = reinterpret_cast<const quint32 *>(argb.constScanLine(y));
        for (int x = 0; x < argb.width(); ++x, out += 4)
            qToBigEndian(row[x], out);
    }
    return pixmap;
}

} // namespace

// org.kde.StatusNotifierItem on the item's object; it reads everything from the item.
class StatusNotifierItemAdaptor : public QDBusAbstractAdaptor
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierItem")
    Q_PROPERTY(QString Category READ category)
    Q_PROPERTY(QString Id READ id)
    Q_PROPERTY(QString Title READ title)
    Q_PROPERTY(QString Status READ status)
    Q_PROPERTY(int WindowId READ windowId)
    Q_PROPERTY(QString IconThemePath READ empty)
    Q_PROPERTY(QDBusObjectPath Menu READ menu)
    Q_PROPERTY(bool ItemIsMenu READ itemIsMenu)
    Q_PROPERTY(QString IconName READ iconName)
    Q_PROPERTY(SniPixmaps IconPixmap READ iconPixmap)
    Q_PROPERTY(QString OverlayIconName READ empty)
    Q_PROPERTY(SniPixmaps OverlayIconPixmap READ noPixmaps)
    Q_PROPERTY(QString AttentionIconName READ empty)
    Q_PROPERTY(SniPixmaps AttentionIconPixmap READ noPixmaps)
    Q_PROPERTY(QString AttentionMovieName READ empty)
    Q_PROPERTY(SniToolTip ToolTip READ toolTip)

public:
    explicit StatusNotifierItemAdaptor(StatusNotifierItem *item)
        : QDBusAbstractAdaptor(item)
        , m_item(item)
    {
        connect(item, &StatusNotifierItem::iconChanged, this, &StatusNotifierItemAdaptor::NewIcon);
        connect(item, &StatusNotifierItem::toolTipChanged, this, &StatusNotifierItemAdaptor::NewToolTip);
    }

    static QString category() { return QStringLiteral("ApplicationStatus"); }
    QString id() const { return m_item->id(); }
    static QString title() { return QCoreApplication::applicationName(); }
    static QString status() { return QStringLiteral("Active"); }
    static int windowId() { return 0; }
    static QString empty() { return {}; }
    QDBusObjectPath menu() const
    {
        return QDBusObjectPath(m_item->hasMenu() ? kMenuPath : QStringLiteral("/"));
    }
    bool itemIsMenu() const { return m_item->hasMenu(); }
    QString iconName() const { return m_item->iconName(); }
    SniPixmaps iconPixmap() const
    {
        SniPixmaps pixmaps;
        for (const QImage &image : m_item->pixmaps())
            pixmaps.append(sniPixmap(image));
        return pixmaps;
    }
    static SniPixmaps noPixmaps() { return {}; }
    SniToolTip toolTip() const
    {
        // Markup to the hosts that format it; its line breaks stay.
        return {QString(), {}, m_item->toolTipTitle(), m_item->toolTipDescription().toHtmlEscaped()};
    }

public Q_SLOTS:
    // With ItemIsMenu hosts open the menu themselves; these come from hosts that do not.
    void ContextMenu(int x, int y) { Q_EMIT m_item->activateRequested(QPoint(x, y)); }
    void Activate(int x, int y) { Q_EMIT m_item->activateRequested(QPoint(x, y)); }
    void SecondaryActivate(int x, int y) { Q_EMIT m_item->secondaryActivateRequested(QPoint(x, y)); }
    void Scroll(int, const QString &) {}

Q_SIGNALS:
    void NewTitle();
    void NewIcon();
    void NewAttentionIcon();
    void NewOverlayIcon();
    void NewToolTip();
    void NewStatus(const QString &status);

private:
    StatusNotifierItem *m_item;
};

const QString StatusNotifierItem::kWatcherService = QStringLiteral("org.kde.StatusNotifierWatcher");

StatusNotifierItem::StatusNotifierItem(const QString &id, const QDBusConnection &bus, QObject *parent)
    : QObject(parent)
    , m_bus(bus)
    , m_id(id)
{
    qDBusRegisterMetaType<SniPixmap>();
    qDBusRegisterMetaType<SniPixmaps>();
    qDBusRegisterMetaType<SniToolTip>();
    new StatusNotifierItemAdaptor(this);
}

StatusNotifierItem::~StatusNotifierItem()
{
    if (m_onBus) {
        m_bus.unregisterObject(kItemPath);
        m_bus.unregisterService(m_service);
    }
}

bool StatusNotifierItem::registerOnBus()
{
    if (m_onBus)
        return true;
    if (!m_bus.isConnected())
        return false;
    static int s_instances = 0;
    m_service = QStringLiteral("org.kde.StatusNotifierItem-%1-%2")
                    .arg(QCoreApplication::applicationPid())
                    .arg(++s_instances);
    if (!m_bus.registerObject(kItemPath, this, QDBusConnection::ExportAdaptors) ||
        !m_bus.registerService(m_service)) {
        qCWarning(lcApp) << "tray item not on the bus:" << m_bus.lastError().message();
        m_bus.unregisterObject(kItemPath);
        return false;
    }
    m_onBus = true;
    if (m_menuExporter)
        m_menuExporter->registerOnBus(m_bus, kMenuPath);

    // Panels start after their applications, and restart.
    m_watcher =
        new QDBusServiceWatcher(kWatcherService, m_bus, QDBusServiceWatcher::WatchForOwnerChange, this);
    connect(m_watcher, &QDBusServiceWatcher::serviceOwnerChanged, this,
            [this](const QString &, const QString &, const QString &owner) {
                setRegistered(false);
                if (!owner.isEmpty())
                    registerWithWatcher();
            });
    registerWithWatcher();
    return true;
}

void StatusNotifierItem::unregisterFromBus()
{
    if (!std::exchange(m_onBus, false))
        return;
    delete std::exchange(m_watcher, nullptr);
    m_bus.unregisterService(m_service);
    m_bus.unregisterObject(kMenuPath);
    m_bus.unregisterObject(kItemPath);
    setRegistered(false);
}

void StatusNotifierItem::registerWithWatcher()
{
    QDBusMessage call = QDBusMessage::createMethodCall(kWatcherService, kWatcherPath,
                                                       QStringLiteral("org.kde.StatusNotifierWatcher"),
                                                       QStringLiteral("RegisterStatusNotifierItem"));
    call << m_service;
    call.setAutoStartService(false);
    auto *pending = new QDBusPendingCallWatcher(m_bus.asyncCall(call), this);
    connect(pending, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher *call) {
        call->deleteLater();
        setRegistered(!call->isError());
    });
}

void StatusNotifierItem::setRegistered(bool registered)
{
    if (std::exchange(m_registered, registered) != registered)
        Q_EMIT registeredChanged(registered);
}

void StatusNotifierItem::setIcon(const QString &name, const QList<QImage> &pixmaps)
{
    m_iconName = name;
    m_pixmaps = pixmaps;
    Q_EMIT iconChanged();
}

void StatusNotifierItem::setToolTip(const QString &title, const QString &description)
{
    if (title == m_toolTipTitle && description == m_toolTipDescription)
        return;
    m_toolTipTitle = title;
    m_toolTipDescription = description;
    Q_EMIT toolTipChanged();
}

void StatusNotifierItem::setMenu(QMenu *menu)
{
    delete m_menuExporter;
    m_menuExporter = menu ? new DBusMenuExporter(menu, this) : nullptr;
    if (m_menuExporter && m_onBus)
        m_menuExporter->registerOnBus(m_bus, kMenuPath);
}

#include "StatusNotifierItem.moc"
