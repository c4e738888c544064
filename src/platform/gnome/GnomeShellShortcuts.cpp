// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/gnome/GnomeShellShortcuts.h"

#include "core/Logging.h"
#include "platform/gnome/GnomeShellExtension.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>

namespace {

using GnomeShellExtension::KeyRequest;

struct Modifier
{
    QLatin1String trigger;
    QLatin1String accelerator;
    QLatin1String label;
};

const Modifier kModifiers[] = {
    {QLatin1String("CTRL"), QLatin1String("<Control>"), QLatin1String("Ctrl")},
    {QLatin1String("ALT"), QLatin1String("<Alt>"), QLatin1String("Alt")},
    {QLatin1String("SHIFT"), QLatin1String("<Shift>"), QLatin1String("Shift")},
    {QLatin1String("LOGO"), QLatin1String("<Super>"), QLatin1String("Super")},
};

const Modifier *modifierNamed(QStringView name)
{
    for (const Modifier &m : kModifiers) {
        if (name.compare(m.trigger, Qt::CaseInsensitive) == 0)
            return &m;
    }
    return nullptr;
}

} // namespace

GnomeShellShortcuts::GnomeShellShortcuts(QDBusConnection bus, QObject *parent)
    : QObject(parent)
    , m_bus(std::move(bus))
    , m_watcher(new QDBusServiceWatcher(QString::fromLatin1(GnomeShellExtension::kService), m_bus,
                                        QDBusServiceWatcher::WatchForOwnerChange, this))
{
    qDBusRegisterMetaType<KeyRequest>();
    qDBusRegisterMetaType<QList<KeyRequest>>();
    connect(m_watcher, &QDBusServiceWatcher::serviceOwnerChanged, this,
            [this](const QString &, const QString &, const QString &newOwner) {
                // A new extension instance (switched on again, GNOME Shell restarted) knows none of our keys.
                publish({});
                if (!newOwner.isEmpty())
                    sendBind();
            });
    m_bus.connect(QString::fromLatin1(GnomeShellExtension::kService),
                  QString::fromLatin1(GnomeShellExtension::kPath),
                  QString::fromLatin1(GnomeShellExtension::kInterface), QStringLiteral("Activated"), this,
                  SLOT(onActivated(QString)));
}

GnomeShellShortcuts::~GnomeShellShortcuts()
{
    m_bus.disconnect(QString::fromLatin1(GnomeShellExtension::kService),
                     QString::fromLatin1(GnomeShellExtension::kPath),
                     QString::fromLatin1(GnomeShellExtension::kInterface), QStringLiteral("Activated"), this,
                     SLOT(onActivated(QString)));
}

bool GnomeShellShortcuts::isAvailable(QDBusConnection bus)
{
    const GnomeShellExtension::Support support = GnomeShellExtension::support(std::move(bus));
    return support == GnomeShellExtension::Support::Available ||
           support == GnomeShellExtension::Support::NotEnabled;
}

QString GnomeShellShortcuts::accelerator(const QString &trigger)
{
    const QStringList parts = trigger.split(u'+');
    if (parts.last().isEmpty() || modifierNamed(parts.last()))
        return {};
    QString result;
    for (qsizetype i = 0; i + 1 < parts.size(); ++i) {
        const Modifier *modifier = modifierNamed(parts[i]);
        if (!modifier)
            return {};
        result += modifier->accelerator;
    }
    return result + parts.last();
}

QString GnomeShellShortcuts::label(const QString &trigger)
{
    QStringList parts = trigger.split(u'+');
    for (QString &part : parts) {
        if (const Modifier *modifier = modifierNamed(part))
            part = modifier->label;
        else if (&part == &parts.last() && !part.isEmpty())
            // Letters as printed on the key; keysym names such as "space" or "F1" start with a capital.
            part[0] = part[0].toUpper();
    }
    return parts.join(u'+');
}

void GnomeShellShortcuts::bind(const QList<Shortcut> &shortcuts)
{
    m_shortcuts = shortcuts;
    sendBind();
}

void GnomeShellShortcuts::setAssignmentsHandler(std::function<void(const Assignments &)> handler)
{
    m_assignmentsHandler = std::move(handler);
}

void GnomeShellShortcuts::setActivationHandler(std::function<void(const QString &)> handler)
{
    m_activationHandler = std::move(handler);
}

void GnomeShellShortcuts::sendBind()
{
    QList<KeyRequest> requests;
    QHash<QString, QString> labels;
    for (const Shortcut &shortcut : std::as_const(m_shortcuts)) {
        const QString accel = accelerator(shortcut.preferredTrigger);
        if (accel.isEmpty())
            continue;
        requests.append({shortcut.id, accel});
        labels.insert(shortcut.id, label(shortcut.preferredTrigger));
    }
    QDBusMessage call = QDBusMessage::createMethodCall(
        QString::fromLatin1(GnomeShellExtension::kService), QString::fromLatin1(GnomeShellExtension::kPath),
        QString::fromLatin1(GnomeShellExtension::kInterface), QStringLiteral("BindShortcuts"));
    call << QVariant::fromValue(requests);
    // Not to be started by the call: without the extension there is nothing to bind until it appears.
    call.setAutoStartService(false);
    const quint64 generation = ++m_bindGeneration;
    auto *watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, watcher, generation, labels = std::move(labels)] {
                watcher->deleteLater();
                if (generation != m_bindGeneration)
                    return;
                const QDBusPendingReply<QStringList> reply = *watcher;
                if (reply.isError()) {
                    if (reply.error().type() != QDBusError::ServiceUnknown)
                        qCWarning(lcShortcuts) << "GNOME Shell extension refused the keys:" << reply.error();
                    publish({});
                    return;
                }
                Assignments assignments;
                for (const QString &id : reply.value())
                    assignments.insert(id, labels.value(id));
                publish(assignments);
            });
}

void GnomeShellShortcuts::publish(const Assignments &assignments)
{
    if (assignments == m_assignments)
        return;
    m_assignments = assignments;
    if (m_assignmentsHandler)
        m_assignmentsHandler(m_assignments);
}

void GnomeShellShortcuts::onActivated(const QString &id)
{
    if (m_activationHandler && m_assignments.contains(id))
        m_activationHandler(id);
}
