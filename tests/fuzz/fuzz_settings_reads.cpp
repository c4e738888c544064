// SPDX-License-Identifier: GPL-3.0-or-later
// A settings file as anyone may have left it: every typed read of every key answers a value of its
// type or nothing, and the history and usage records load from it without harm.
#include "FuzzCheck.h"
#include "core/UserDefaults.h"
#include "records/HistoryManager.h"
#include "records/UsageManager.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <cstdint>

namespace {

QTemporaryDir &folder()
{
    static QTemporaryDir dir(QDir::tempPath() + QStringLiteral("/quillvox-fuzz-XXXXXX"));
    return dir;
}

const QStringList &keys()
{
    static const QStringList list{
        QStringLiteral("k"),         QStringLiteral("g/k"),     HistoryManager::userDefaultsKey,
        UsageManager::allTimeKey,    UsageManager::thisWeekKey, UsageManager::weekStartKey,
        UsageManager::monthStartKey,
    };
    return list;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    static QCoreApplication app(*argc, *argv);
    if (!folder().isValid())
        std::abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // "@Variant(" and "@DateTime(" values are QDataStream images of a QVariant that Qt deserialises
    // itself, as whatever type they name, reserving whatever element count they claim (gigabytes of
    // untouched memory natively, a time-out under ASan). That decoder is Qt's and fuzzed there; the store
    // writes only dates, so only images that name QDateTime are let through.
    const QByteArrayView input(data, qsizetype(size));
    if (input.contains("@Variant("))
        return -1;
    for (qsizetype at = input.indexOf("@DateTime("); at >= 0; at = input.indexOf("@DateTime(", at + 1)) {
        if (!input.sliced(at).startsWith("@DateTime(\\0\\0\\0\\x10\\"))
            return -1;
    }
    const QString path = folder().filePath(QStringLiteral("Quillvox.conf"));
    {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            std::abort();
        file.write(reinterpret_cast<const char *>(data), qint64(size));
    }
    UserDefaults defaults(path);
    for (const QString &key : keys()) {
        defaults.contains(key);
        defaults.string(key);
        defaults.data(key);
        defaults.boolean(key);
        if (const auto date = defaults.date(key))
            FUZZ_CHECK(date->isValid());
        const auto u32 = defaults.unsigned32(key);
        const auto u64 = defaults.unsigned64(key);
        if (u32)
            FUZZ_CHECK(u64 && *u64 == *u32);
    }
    const QDateTime now = QDateTime::fromSecsSinceEpoch(1'750'000'000, Qt::UTC);
    UsageManager usage(
        defaults, [now] { return now; }, QTimeZone::utc(), QLocale::c());
    FUZZ_CHECK(usage.weekStart().isValid() && usage.monthStart().isValid());
    HistoryManager history(defaults, folder().filePath(QStringLiteral("History")), [now] { return now; });
    FUZZ_CHECK(history.sessions().size() <= qsizetype(1) << 20);
    return 0;
}
