// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/ResponseAudio.h"

#include "speech/CompressedAudioDecoder.h"
#include "speech/SpeechResampler.h"
#include "speech/WavReader.h"

ResponseAudio::ResponseAudio(QByteArray contentType)
    : m_contentType(std::move(contentType))
{}

ResponseAudio::~ResponseAudio() = default;

QString ResponseAudio::noAudioMessage()
{
    return QStringLiteral("The server sent no audio.");
}

void ResponseAudio::fail(const QString &message)
{
    if (!m_failure)
        m_failure = message;
    m_wav.reset();
    m_resampler.reset();
    m_decoder.reset();
}

QByteArray ResponseAudio::output(QByteArray bytes)
{
    m_producedBytes += bytes.size();
    return bytes;
}

QByteArray ResponseAudio::push(QByteArrayView piece)
{
    if (m_failure)
        return {};
    if (m_format)
        return feed(piece);
    m_sniffed.append(piece);
    return start(false);
}

QByteArray ResponseAudio::start(bool ended)
{
    m_format = ServerAudioFormat::detect(m_sniffed, m_contentType, ended);
    if (!m_format)
        return {};
    const ServerAudioFormat &format = *m_format;
    switch (format.kind) {
    case ServerAudioFormat::Pcm: {
        const PcmFormat pcm{format.rateHz, format.channels, PcmFormat::S16, 2};
        m_resampler = std::make_unique<SpeechResampler>(pcm);
        break;
    }
    case ServerAudioFormat::Wav:
        m_wav = std::make_unique<WavReader>();
        break;
    case ServerAudioFormat::NotAudio:
        fail(noAudioMessage());
        return {};
    default:
        m_decoder = CompressedAudioDecoder::create(format.kind);
        if (!m_decoder) {
            fail(QStringLiteral("The server sent %1 audio, which Quillvox cannot play.").arg(format.name()));
            return {};
        }
        break;
    }
    return feed(std::exchange(m_sniffed, QByteArray()));
}

QByteArray ResponseAudio::feed(QByteArrayView bytes)
{
    if (m_resampler && !m_wav)
        return output(m_resampler->push(bytes));
    if (m_wav) {
        const QByteArray samples = m_wav->push(bytes);
        if (m_wav->failure()) {
            fail(QStringLiteral("The server sent %1, which Quillvox cannot play.").arg(*m_wav->failure()));
            return {};
        }
        if (!m_resampler && m_wav->format())
            m_resampler = std::make_unique<SpeechResampler>(*m_wav->format());
        return m_resampler ? output(m_resampler->push(samples)) : QByteArray();
    }
    if (m_decoder) {
        QByteArray decoded = m_decoder->push(bytes);
        if (m_decoder->failure()) {
            fail(QStringLiteral("The server sent %1 audio that could not be played: %2.")
                     .arg(m_format->name(), *m_decoder->failure()));
            return {};
        }
        return output(std::move(decoded));
    }
    return {};
}

QByteArray ResponseAudio::finish()
{
    if (m_failure)
        return {};
    QByteArray out;
    if (!m_format)
        out = start(true);
    if (m_decoder && !m_failure) {
        out.append(output(m_decoder->finish()));
        if (m_decoder->failure())
            fail(QStringLiteral("The server sent %1 audio that could not be played: %2.")
                     .arg(m_format->name(), *m_decoder->failure()));
    } else if (m_resampler && !m_failure) {
        out.append(output(m_resampler->finish()));
    } else if (m_wav && m_wav->needsMore() && !m_failure) {
        fail(noAudioMessage());
    }
    // Less than one sample is no audio either.
    if (!m_failure && m_producedBytes < 2)
        fail(noAudioMessage());
    return m_failure ? QByteArray() : out;
}
