// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/secret/LibsecretStore.h"

#include <libsecret/secret.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

// Only the SecretService and SecretItem calls are used, never secret_password_*: those go through
// libsecret's backend switch, which stores into a plain file inside a sandbox or when SECRET_BACKEND
// says so. Secrets go to a Secret Service or nowhere.

namespace {

using Status = SecretStore::Status;
using Result = SecretStore::Result;
using namespace std::chrono_literals;

// A running Secret Service answers within milliseconds, and an installed one starts within a second or
// two; after five seconds nothing is coming.
constexpr std::chrono::milliseconds kConnectTimeout = 5s;

struct GObjectDeleter
{
    void operator()(gpointer object) const { g_object_unref(object); }
};
template<typename T> using GObjectPtr = std::unique_ptr<T, GObjectDeleter>;

struct GErrorDeleter
{
    void operator()(GError *error) const { g_error_free(error); }
};
using ErrorPtr = std::unique_ptr<GError, GErrorDeleter>;

struct SecretValueDeleter
{
    void operator()(SecretValue *value) const { secret_value_unref(value); }
};
using SecretValuePtr = std::unique_ptr<SecretValue, SecretValueDeleter>;

struct HashTableDeleter
{
    void operator()(GHashTable *table) const { g_hash_table_unref(table); }
};
using HashTablePtr = std::unique_ptr<GHashTable, HashTableDeleter>;

struct ObjectListDeleter
{
    void operator()(GList *list) const { g_list_free_full(list, g_object_unref); }
};
using ObjectListPtr = std::unique_ptr<GList, ObjectListDeleter>;

Result result(Status status, const QString &detail = {})
{
    Result r;
    r.status = status;
    r.detail = detail;
    return r;
}

QString messageOf(const GError *error)
{
    return error ? QString::fromUtf8(error->message) : QString();
}

const SecretSchema *itemSchema()
{
    static const SecretSchema schema = [] {
        SecretSchema s{};
        s.name = "com.vantor.quillvox";
        // Match by the attributes alone, so that items other tools (secret-tool, a password manager)
        // stored under the same service and account count as ours.
        s.flags = SECRET_SCHEMA_DONT_MATCH_NAME;
        s.attributes[0] = {"service", SECRET_SCHEMA_ATTRIBUTE_STRING};
        s.attributes[1] = {"account", SECRET_SCHEMA_ATTRIBUTE_STRING};
        return s;
    }();
    return &schema;
}

HashTablePtr itemAttributes(const QString &service, const QString &account)
{
    GHashTable *table = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free);
    g_hash_table_insert(table, g_strdup("service"), g_strdup(service.toUtf8().constData()));
    g_hash_table_insert(table, g_strdup("account"), g_strdup(account.toUtf8().constData()));
    return HashTablePtr(table);
}

// Cancels after a timeout, from a thread of its own: secret_service_get_sync runs a main loop that
// no timer of ours can join. Cancelling from another thread is safe for connecting, which makes only
// plain D-Bus calls; GDBus hands their cancellation to the caller's context.
class Deadline
{
public:
    explicit Deadline(std::chrono::milliseconds timeout)
        : m_cancellable(g_cancellable_new())
        , m_thread([this, timeout] {
            std::unique_lock lock(m_mutex);
            if (!m_finished.wait_for(lock, timeout, [this] { return m_done; }))
                g_cancellable_cancel(m_cancellable.get());
        })
    {}

    ~Deadline()
    {
        {
            std::lock_guard lock(m_mutex);
            m_done = true;
        }
        m_finished.notify_one();
        m_thread.join();
    }

    Deadline(const Deadline &) = delete;
    Deadline &operator=(const Deadline &) = delete;

    GCancellable *cancellable() const { return m_cancellable.get(); }
    bool expired() const { return g_cancellable_is_cancelled(m_cancellable.get()); }

private:
    GObjectPtr<GCancellable> m_cancellable;
    std::mutex m_mutex;
    std::condition_variable m_finished;
    bool m_done = false;
    std::thread m_thread;
};

// Runs asynchronous libsecret calls on a main context of our own until they complete, or until
// `timeout` has passed for all of them together. (The library's *_sync calls run such a loop inside,
// out of our reach.)
//
// WORKAROUND: at the timeout a call is abandoned, not cancelled. libsecret answers a cancelled unlock
// prompt by dismissing it, and gnome-keyring 42 (Debian 12) aborts when an unlock prompt is dismissed
// while it is showing (gkd-secret-unlock.c: perform_next_unlock, assertion !self->current). So the
// prompt stays up for the user, and an unlock there serves the next call. Nothing iterates this context
// after the timeout, so the abandoned call never continues.
class BoundedLoop
{
public:
    explicit BoundedLoop(std::chrono::milliseconds timeout)
        : m_context(g_main_context_new())
        , m_deadline(g_timeout_source_new(static_cast<guint>(timeout.count())))
    {
        g_main_context_push_thread_default(m_context);
        g_source_set_callback(m_deadline, &BoundedLoop::onDeadline, this, nullptr);
        g_source_attach(m_deadline, m_context);
    }

    ~BoundedLoop()
    {
        g_source_destroy(m_deadline);
        g_source_unref(m_deadline);
        // Lets completed calls release what they still hold; an abandoned one must stay where it is.
        if (!m_timedOut) {
            while (g_main_context_iteration(m_context, FALSE)) {
            }
        }
        g_main_context_pop_thread_default(m_context);
        g_main_context_unref(m_context);
    }

    BoundedLoop(const BoundedLoop &) = delete;
    BoundedLoop &operator=(const BoundedLoop &) = delete;

    // `start(callback, userData)` begins one asynchronous call; this runs the loop until the call
    // completes. Null when the time ran out first.
    template<typename Start> GObjectPtr<GAsyncResult> run(Start &&start)
    {
        if (m_timedOut)
            return nullptr;
        auto pending = std::make_unique<Pending>();
        start(&BoundedLoop::onReady, pending.get());
        while (!pending->result && !m_timedOut)
            g_main_context_iteration(m_context, TRUE);
        if (!pending->result) {
            // The abandoned call keeps a pointer to it.
            pending.release();
            return nullptr;
        }
        return GObjectPtr<GAsyncResult>(pending->result);
    }

private:
    struct Pending
    {
        GAsyncResult *result = nullptr;
    };

    static void onReady(GObject *, GAsyncResult *result, gpointer pending)
    {
        static_cast<Pending *>(pending)->result = static_cast<GAsyncResult *>(g_object_ref(result));
    }

    static gboolean onDeadline(gpointer self)
    {
        static_cast<BoundedLoop *>(self)->m_timedOut = true;
        return G_SOURCE_REMOVE;
    }

    GMainContext *m_context;
    GSource *m_deadline;
    bool m_timedOut = false;
};

struct Connection
{
    GObjectPtr<SecretService> service;
    Result failure;
};

Connection connectToService()
{
    Deadline deadline(kConnectTimeout);
    GError *rawError = nullptr;
    // libsecret keeps the service it returns for the rest of the process; only the first call connects.
    SecretService *service =
        secret_service_get_sync(SECRET_SERVICE_OPEN_SESSION, deadline.cancellable(), &rawError);
    const ErrorPtr error(rawError);
    Connection connection;
    if (service) {
        connection.service.reset(service);
        return connection;
    }
    connection.failure =
        result(Status::Unavailable, deadline.expired() ? QStringLiteral("no Secret Service answered in time")
                                                       : messageOf(error.get()));
    return connection;
}

bool isGone(const GError *error)
{
    if (!error || error->domain != G_DBUS_ERROR)
        return false;
    switch (error->code) {
    case G_DBUS_ERROR_SERVICE_UNKNOWN:
    case G_DBUS_ERROR_NAME_HAS_NO_OWNER:
    case G_DBUS_ERROR_NO_REPLY:
    case G_DBUS_ERROR_DISCONNECTED:
    case G_DBUS_ERROR_NO_SERVER:
    case G_DBUS_ERROR_TIMEOUT:
    case G_DBUS_ERROR_TIMED_OUT:
        return true;
    default:
        return false;
    }
}

// The only wait that long is for the user at the unlock prompt.
Result unanswered()
{
    return result(Status::Locked, QStringLiteral("the unlock prompt went unanswered"));
}

Result failureOf(const GError *error)
{
    if (g_error_matches(error, SECRET_ERROR, SECRET_ERROR_IS_LOCKED))
        return result(Status::Locked, messageOf(error));
    // The service may have gone away or restarted, which leaves libsecret's cached connection and
    // session stale: start afresh on the next call.
    secret_service_disconnect();
    return result(isGone(error) ? Status::Unavailable : Status::Failed, messageOf(error));
}

} // namespace

LibsecretStore::LibsecretStore(std::chrono::milliseconds unlockTimeout)
    : m_unlockTimeout(unlockTimeout)
{}

SecretStore::Result LibsecretStore::store(const QString &service, const QString &account,
                                          const QString &label, const QByteArray &secret)
{
    const Connection connection = connectToService();
    if (!connection.service)
        return connection.failure;
    SecretService *secrets = connection.service.get();
    const HashTablePtr attributes = itemAttributes(service, account);
    const QByteArray labelUtf8 = label.toUtf8();
    const SecretValuePtr value(secret_value_new(secret.constData(), secret.size(), "text/plain"));

    BoundedLoop loop(m_unlockTimeout);
    // The default collection is the login keyring, which the desktop unlocks at login and keeps open
    // while the screen is locked: the counterpart of "accessible after first unlock".
    const auto stored = loop.run([&](GAsyncReadyCallback done, gpointer data) {
        secret_service_store(secrets, itemSchema(), attributes.get(), SECRET_COLLECTION_DEFAULT,
                             labelUtf8.constData(), value.get(), nullptr, done, data);
    });
    if (!stored)
        return unanswered();
    GError *rawError = nullptr;
    const bool ok = secret_service_store_finish(secrets, stored.get(), &rawError);
    const ErrorPtr error(rawError);
    if (!ok)
        return failureOf(error.get());
    return result(Status::Ok);
}

SecretStore::Result LibsecretStore::lookup(const QString &service, const QString &account)
{
    const Connection connection = connectToService();
    if (!connection.service)
        return connection.failure;
    SecretService *secrets = connection.service.get();
    const HashTablePtr attributes = itemAttributes(service, account);

    BoundedLoop loop(m_unlockTimeout);
    const auto searched = loop.run([&](GAsyncReadyCallback done, gpointer data) {
        secret_service_search(
            secrets, itemSchema(), attributes.get(),
            static_cast<SecretSearchFlags>(SECRET_SEARCH_UNLOCK | SECRET_SEARCH_LOAD_SECRETS), nullptr, done,
            data);
    });
    if (!searched)
        return unanswered();
    GError *rawError = nullptr;
    const ObjectListPtr items(secret_service_search_finish(secrets, searched.get(), &rawError));
    const ErrorPtr error(rawError);
    if (error)
        return failureOf(error.get());
    if (!items)
        return result(Status::NotFound);

    // Without SECRET_SEARCH_ALL the search returns one item, an unlocked one when there is any.
    auto *item = static_cast<SecretItem *>(items->data);
    if (secret_item_get_locked(item))
        return result(Status::Locked, QStringLiteral("the item stayed locked"));
    const SecretValuePtr value(secret_item_get_secret(item));
    if (!value)
        return result(Status::Failed, QStringLiteral("the keyring returned no secret for the item"));
    gsize length = 0;
    const gchar *bytes = secret_value_get(value.get(), &length);
    Result found = result(Status::Ok);
    found.data = QByteArray(bytes, static_cast<qsizetype>(length));
    return found;
}

SecretStore::Result LibsecretStore::remove(const QString &service, const QString &account)
{
    const Connection connection = connectToService();
    if (!connection.service)
        return connection.failure;
    SecretService *secrets = connection.service.get();
    const HashTablePtr attributes = itemAttributes(service, account);

    BoundedLoop loop(m_unlockTimeout);
    const auto searched = loop.run([&](GAsyncReadyCallback done, gpointer data) {
        secret_service_search(secrets, itemSchema(), attributes.get(),
                              static_cast<SecretSearchFlags>(SECRET_SEARCH_ALL | SECRET_SEARCH_UNLOCK),
                              nullptr, done, data);
    });
    if (!searched)
        return unanswered();
    GError *rawError = nullptr;
    const ObjectListPtr items(secret_service_search_finish(secrets, searched.get(), &rawError));
    const ErrorPtr error(rawError);
    if (error)
        return failureOf(error.get());
    if (!items)
        return result(Status::NotFound);

    bool stayedLocked = false;
    for (GList *node = items.get(); node; node = node->next) {
        auto *item = static_cast<SecretItem *>(node->data);
        if (secret_item_get_locked(item)) {
            stayedLocked = true;
            continue;
        }
        const auto deleted = loop.run(
            [&](GAsyncReadyCallback done, gpointer data) { secret_item_delete(item, nullptr, done, data); });
        if (!deleted)
            return unanswered();
        GError *rawDeleteError = nullptr;
        secret_item_delete_finish(item, deleted.get(), &rawDeleteError);
        const ErrorPtr deleteError(rawDeleteError);
        // Someone else deleting it first is as good as our deleting it.
        if (deleteError && !g_error_matches(deleteError.get(), SECRET_ERROR, SECRET_ERROR_NO_SUCH_OBJECT) &&
            !g_error_matches(deleteError.get(), G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_OBJECT))
            return failureOf(deleteError.get());
    }
    if (stayedLocked)
        return result(Status::Locked, QStringLiteral("an item stayed locked"));
    return result(Status::Ok);
}
