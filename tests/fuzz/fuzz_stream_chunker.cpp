// SPDX-License-Identifier: GPL-3.0-or-later
// The speech stream cut into chunks: any split of the same bytes into arrivals gives the same chunks
// and the same tail, every chunk is whole, and nothing is lost or repeated.
#include "FuzzCheck.h"
#include "speech/StreamChunker.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <QList>

#include <cstdint>

namespace {

struct Cut
{
    QList<QByteArray> chunks;
    QByteArray tail;
    bool operator==(const Cut &) const = default;
};

// Feeds `bytes` in arrivals of the given lengths (cycled; 0 is an empty arrival).
Cut cut(const QByteArray &bytes, qsizetype chunkBytes, const std::vector<uint8_t> &lengths)
{
    StreamChunker chunker(chunkBytes);
    Cut result;
    const auto collect = [&result](const QByteArray &chunk) { result.chunks.append(chunk); };
    qsizetype at = 0;
    for (size_t i = 0; at < bytes.size(); ++i) {
        const qsizetype length = lengths.empty()
                                     ? bytes.size()
                                     : std::min<qsizetype>(lengths[i % lengths.size()], bytes.size() - at);
        chunker.push(bytes.mid(at, length), collect);
        at += length;
        if (!lengths.empty() && i > size_t(bytes.size()) * 2 + lengths.size())
            break; // only empty arrivals left in the cycle
    }
    if (at < bytes.size())
        chunker.push(bytes.mid(at), collect);
    FUZZ_CHECK(chunker.pendingSize() < chunkBytes);
    result.tail = chunker.takeTail();
    FUZZ_CHECK(chunker.pendingSize() == 0);
    return result;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const auto chunkBytes = input.ConsumeIntegralInRange<qsizetype>(1, 64);
    const std::vector<uint8_t> lengths =
        input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(1, 16));
    const std::string rest = input.ConsumeRemainingBytesAsString();
    const QByteArray bytes(rest.data(), qsizetype(rest.size()));

    const Cut whole = cut(bytes, chunkBytes, {});
    FUZZ_CHECK(whole.tail.size() == bytes.size() % chunkBytes);
    QByteArray joined;
    for (const QByteArray &chunk : whole.chunks) {
        FUZZ_CHECK(chunk.size() == chunkBytes);
        joined += chunk;
    }
    FUZZ_CHECK(joined + whole.tail == bytes);
    FUZZ_CHECK(cut(bytes, chunkBytes, lengths) == whole);
    FUZZ_CHECK(cut(bytes, chunkBytes, {1}) == whole);

    // A clear() from inside the callback drops everything after that chunk.
    StreamChunker chunker(chunkBytes);
    int seen = 0;
    chunker.push(bytes, [&](const QByteArray &) {
        ++seen;
        chunker.clear();
    });
    FUZZ_CHECK(seen == (bytes.size() >= chunkBytes ? 1 : 0) &&
               chunker.pendingSize() == (seen ? 0 : bytes.size()));
    return 0;
}
