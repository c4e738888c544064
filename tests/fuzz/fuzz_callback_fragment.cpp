// SPDX-License-Identifier: GPL-3.0-or-later
// The fragment of a sign-in callback URL: whatever arrives, every kept key and value comes from one
// "key=value" piece, and a value without escapes is kept exactly.
#include "FuzzCheck.h"
#include "account/AuthManager.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QString fragment = QString::fromUtf8(reinterpret_cast<const char *>(data), qsizetype(size));
    const QHash<QString, QString> params = AuthManager::parseFragment(fragment);
    for (auto it = params.cbegin(); it != params.cend(); ++it) {
        FUZZ_CHECK(!it.key().contains(u'&') && !it.key().contains(u'='));
        FUZZ_CHECK(fragment.contains(it.key() + u'='));
    }
    // A single piece without escapes comes back exactly.
    const qsizetype eq = fragment.indexOf(u'=');
    if (eq >= 0 && !fragment.contains(u'&') && !fragment.contains(u'%') && fragment.count(u'=') == 1)
        FUZZ_CHECK(params.value(fragment.left(eq)) == fragment.mid(eq + 1) && params.size() == 1);
    return 0;
}
