// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/CompressedAudioDecoder.h"

#include "speech/SpeechResampler.h"

#include <mpg123.h>
#include <sndfile.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

class Mp3Decoder final : public CompressedAudioDecoder
{
public:
    Mp3Decoder()
    {
        int error = MPG123_OK;
        m_handle = mpg123_new(nullptr, &error);
        if (!m_handle) {
            m_failure = QStringLiteral("the MP3 decoder could not start");
            return;
        }
        mpg123_param(m_handle, MPG123_ADD_FLAGS, MPG123_QUIET | MPG123_FORCE_MONO | MPG123_FORCE_FLOAT, 0.0);
        if (mpg123_open_feed(m_handle) != MPG123_OK)
            m_failure = QStringLiteral("the MP3 decoder could not start");
    }
    ~Mp3Decoder() override
    {
        if (m_handle)
            mpg123_delete(m_handle);
    }

    QByteArray push(QByteArrayView bytes) override
    {
        if (m_failure || bytes.isEmpty())
            return {};
        if (mpg123_feed(m_handle, reinterpret_cast<const unsigned char *>(bytes.data()),
                        size_t(bytes.size())) != MPG123_OK) {
            m_failure = QStringLiteral("the MP3 decoder failed");
            return {};
        }
        return decode();
    }

    QByteArray finish() override
    {
        if (m_failure)
            return {};
        QByteArray out = decode();
        if (m_resampler)
            out.append(m_resampler->finish());
        return out;
    }

private:
    QByteArray decode()
    {
        QByteArray out;
        for (;;) {
            off_t frame = 0;
            unsigned char *audio = nullptr;
            size_t bytes = 0;
            const int result = mpg123_decode_frame(m_handle, &frame, &audio, &bytes);
            if (result == MPG123_NEW_FORMAT) {
                long rate = 0;
                int channels = 0;
                int encoding = 0;
                mpg123_getformat(m_handle, &rate, &channels, &encoding);
                if (encoding != MPG123_ENC_FLOAT_32 || channels != 1 || rate <= 0) {
                    m_failure = QStringLiteral("the MP3 decoder gave an unexpected format");
                    return out;
                }
                if (!m_resampler || m_rateHz != rate) {
                    if (m_resampler)
                        out.append(m_resampler->finish());
                    m_rateHz = rate;
                    m_resampler =
                        std::make_unique<SpeechResampler>(PcmFormat{int(rate), 1, PcmFormat::F32, 4});
                }
                continue;
            }
            if (result == MPG123_NEED_MORE || result == MPG123_DONE)
                return out;
            if (result != MPG123_OK) {
                m_failure = QStringLiteral("the MP3 stream could not be decoded");
                return out;
            }
            if (m_resampler && bytes >= sizeof(float))
                out.append(m_resampler->pushMono(reinterpret_cast<const float *>(audio),
                                                 qsizetype(bytes / sizeof(float))));
        }
    }

    mpg123_handle *m_handle = nullptr;
    long m_rateHz = 0;
    std::unique_ptr<SpeechResampler> m_resampler;
};

// libsndfile reads through callbacks that cannot wait for the network: a read past what has arrived would
// look like the end of the file. So it only runs while the bytes ahead of its position exceed a margin
// larger than an Ogg page or a FLAC frame of speech, and once the body has ended; and each read hands over
// at most a small block, so that its position stays near what it has decoded (libFLAC would otherwise
// take everything there is and then meet the end).
class SndfileDecoder final : public CompressedAudioDecoder
{
public:
    explicit SndfileDecoder(QString name)
        : m_name(std::move(name))
    {}
    ~SndfileDecoder() override
    {
        if (m_file)
            sf_close(m_file);
    }

    QByteArray push(QByteArrayView bytes) override
    {
        if (m_failure)
            return {};
        m_bytes.append(bytes);
        return decode();
    }

    QByteArray finish() override
    {
        if (m_failure)
            return {};
        m_ended = true;
        QByteArray out = decode();
        if (!m_file && !m_failure)
            m_failure = QStringLiteral("the %1 stream could not be opened").arg(m_name);
        if (m_resampler)
            out.append(m_resampler->finish());
        return out;
    }

    static constexpr qsizetype kMarginBytes = 16 * 1024;
    static constexpr qsizetype kReadBytes = 4096;

private:
    bool ahead() const { return m_ended || m_bytes.size() - m_position >= kMarginBytes; }

    QByteArray decode()
    {
        if (!m_file && !open())
            return {};
        QByteArray out;
        std::vector<float> frames(size_t(1024) * size_t(m_channels));
        while (ahead()) {
            const sf_count_t read = sf_readf_float(m_file, frames.data(), 1024);
            if (read <= 0) {
                if (sf_error(m_file) != SF_ERR_NO_ERROR)
                    m_failure = QStringLiteral("the %1 stream could not be decoded").arg(m_name);
                break;
            }
            std::vector<float> mono(size_t(read), 0.0f);
            for (sf_count_t i = 0; i < read; ++i) {
                for (int c = 0; c < m_channels; ++c)
                    mono[size_t(i)] += frames[size_t(i * m_channels + c)];
                mono[size_t(i)] /= float(m_channels);
            }
            out.append(m_resampler->pushMono(mono.data(), read));
        }
        return out;
    }

    bool open()
    {
        // Retried as bytes come in: the headers of an Ogg stream span several pages.
        if (!m_ended && (m_bytes.size() < kMarginBytes || m_bytes.size() - m_lastOpenAttempt < kReadBytes))
            return false;
        m_lastOpenAttempt = m_bytes.size();
        m_position = 0;
        SF_INFO info{};
        m_file = sf_open_virtual(&m_io, SFM_READ, &info, this);
        if (!m_file)
            return false;
        if (info.channels <= 0 || info.channels > 64 || info.samplerate <= 0 || info.samplerate > 768000) {
            sf_close(m_file);
            m_file = nullptr;
            m_failure = QStringLiteral("the %1 stream has an unusable format").arg(m_name);
            return false;
        }
        m_channels = info.channels;
        m_resampler = std::make_unique<SpeechResampler>(PcmFormat{info.samplerate, 1, PcmFormat::F32, 4});
        return true;
    }

    static SndfileDecoder *self(void *user) { return static_cast<SndfileDecoder *>(user); }
    static sf_count_t length(void *user) { return self(user)->m_bytes.size(); }
    static sf_count_t seek(sf_count_t offset, int whence, void *user)
    {
        SndfileDecoder *d = self(user);
        const sf_count_t base = whence == SEEK_SET   ? 0
                                : whence == SEEK_CUR ? d->m_position
                                                     : d->m_bytes.size();
        const sf_count_t target = base + offset;
        if (target < 0 || target > d->m_bytes.size())
            return -1;
        d->m_position = qsizetype(target);
        return target;
    }
    static sf_count_t read(void *ptr, sf_count_t count, void *user)
    {
        SndfileDecoder *d = self(user);
        const sf_count_t n = std::min<sf_count_t>({count, d->m_bytes.size() - d->m_position, kReadBytes});
        if (n <= 0)
            return 0;
        std::memcpy(ptr, d->m_bytes.constData() + d->m_position, size_t(n));
        d->m_position += qsizetype(n);
        return n;
    }
    static sf_count_t write(const void *, sf_count_t, void *) { return 0; }
    static sf_count_t tell(void *user) { return self(user)->m_position; }

    QString m_name;
    SF_VIRTUAL_IO m_io{length, seek, read, write, tell};
    SNDFILE *m_file = nullptr;
    QByteArray m_bytes;
    qsizetype m_position = 0;
    qsizetype m_lastOpenAttempt = -kReadBytes;
    bool m_ended = false;
    int m_channels = 1;
    std::unique_ptr<SpeechResampler> m_resampler;
};

} // namespace

std::unique_ptr<CompressedAudioDecoder> CompressedAudioDecoder::create(ServerAudioFormat::Kind kind)
{
    switch (kind) {
    case ServerAudioFormat::Mp3:
        return std::make_unique<Mp3Decoder>();
    case ServerAudioFormat::Ogg:
        return std::make_unique<SndfileDecoder>(QStringLiteral("Ogg"));
    case ServerAudioFormat::Flac:
        return std::make_unique<SndfileDecoder>(QStringLiteral("FLAC"));
    default:
        return nullptr;
    }
}
