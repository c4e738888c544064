// SPDX-License-Identifier: GPL-3.0-or-later
// An HTTP response read as it arrives: any split of the same bytes into arrivals reads the same head,
// body and failure; the body never holds more than came; once done or failed, nothing changes it.
#include "FuzzCheck.h"
#include "speech/HttpResponseParser.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <optional>

namespace {

struct Read
{
    HttpResponseParser::State state;
    bool hasHead;
    int status;
    QByteArray reason;
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray body;
    QString failure;
    bool operator==(const Read &) const = default;
};

Read snapshot(const HttpResponseParser &parser, const QByteArray &body)
{
    return {parser.state(), parser.hasHead(), parser.status(), parser.reason(), parser.headers(),
            body,           parser.failure()};
}

bool ended(const HttpResponseParser &parser)
{
    return parser.state() == HttpResponseParser::State::Done ||
           parser.state() == HttpResponseParser::State::Failed;
}

struct Outcome
{
    Read beforeClose;
    Read afterClose;
    bool whole;
    bool operator==(const Outcome &) const = default;
};

// Feeds `bytes` in arrivals of the given lengths (cycled; 0 is an empty arrival), then closes.
Outcome read(const QByteArray &bytes, const std::vector<uint8_t> &lengths)
{
    HttpResponseParser parser;
    QByteArray body;
    std::optional<Read> end;
    qsizetype at = 0;
    for (size_t i = 0; at < bytes.size(); ++i) {
        qsizetype length = lengths.empty() ? bytes.size() : lengths[i % lengths.size()];
        if (i > size_t(bytes.size()) + lengths.size())
            length = bytes.size(); // only empty arrivals left in the cycle
        length = std::min(length, bytes.size() - at);
        parser.feed(QByteArrayView(bytes).sliced(at, length), body);
        at += length;
        if (!end && ended(parser))
            end = snapshot(parser, body);
        FUZZ_CHECK(!end || snapshot(parser, body) == *end);
        FUZZ_CHECK(body.size() <= at);
    }
    Outcome outcome{snapshot(parser, body), {}, parser.closed()};
    outcome.afterClose = snapshot(parser, body);
    FUZZ_CHECK(ended(parser) && outcome.whole == (parser.state() == HttpResponseParser::State::Done));
    FUZZ_CHECK(!end || outcome.afterClose == *end);
    FUZZ_CHECK(outcome.whole == outcome.afterClose.failure.isEmpty());
    // Closing again, or bytes after the end, change nothing.
    FUZZ_CHECK(parser.closed() == outcome.whole);
    parser.feed(bytes, body);
    FUZZ_CHECK(snapshot(parser, body) == outcome.afterClose);
    FUZZ_CHECK(!parser.hasHead() || (parser.status() >= 200 && parser.status() <= 599));
    return outcome;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const std::vector<uint8_t> lengths =
        input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(1, 16));
    const std::string rest = input.ConsumeRemainingBytesAsString();
    const QByteArray bytes(rest.data(), qsizetype(rest.size()));

    const Outcome whole = read(bytes, {});
    FUZZ_CHECK(read(bytes, lengths) == whole);
    FUZZ_CHECK(read(bytes, {1}) == whole);
    return 0;
}
