// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "account/KeychainHelper.h"
#include "core/UserDefaults.h"
#include "platform/AudioSink.h"
#include "platform/null/MemorySecretStore.h"
#include "speech/NarrationServices.h"
#include "speech/SpeechManager.h"

#include <QStringList>
#include <QTemporaryDir>
#include <QUrl>

#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

// A SpeechManager as the application builds one, in own-key mode against the dev server: the key in
// memory, settings in a temporary folder, history reduced to noting that a stream has ended.
class BenchNarration
{
public:
    BenchNarration(std::unique_ptr<AudioSink> sink, const QUrl &origin,
                   QNetworkAccessManager *network = nullptr)
        : m_defaults(m_dir.filePath(QStringLiteral("defaults.conf")))
        , m_keychain(QStringLiteral("com.vantor.quillvox.bench"), std::make_unique<MemorySecretStore>())
    {
        m_keychain.save(QStringLiteral("local"), KeychainKey::openAIAPIKey);
        SpeechManager::Services services;
        services.defaults = &m_defaults;
        services.keychain = &m_keychain;
        services.account = &m_account;
        services.records = &m_records;
        services.selection = &m_selection;
        services.audioSink = std::move(sink);
        services.network = network;
        services.serviceOrigin = origin;
        services.openAIOrigin = origin;
        m_speech = std::make_unique<SpeechManager>(std::move(services));
    }

    SpeechManager &speech() { return *m_speech; }
    // The current narration's stream has ended (the controller hands it to the history then).
    bool streamEnded() const { return m_records.ended; }
    void speak(const QString &text)
    {
        m_records.ended = false;
        m_speech->speak(text);
    }

private:
    class Records final : public NarrationRecords
    {
    public:
        bool ended = false;
        void addSession(const QString &, const QString &, double, const QByteArray &) override
        {
            ended = true;
        }
        QString audioFile(const QUuid &) const override { return {}; }
        void recordUsage(qint64) override {}
    };

    QTemporaryDir m_dir;
    UserDefaults m_defaults;
    KeychainHelper m_keychain;
    NoAccount m_account;
    NoSelection m_selection;
    Records m_records;
    std::unique_ptr<SpeechManager> m_speech;
};

// `words` words of plain sentences, the same on every call.
inline QString benchText(int words)
{
    static const QStringList vocabulary = QStringLiteral("the quick brown fox jumps over a lazy dog while "
                                                         "seven readers listen to every careful word spoken")
                                              .split(u' ');
    QStringList sentences;
    QStringList sentence;
    for (int i = 0; i < words; ++i) {
        sentence << vocabulary.at((i * 7 + i / 13) % vocabulary.size());
        if (sentence.size() == 12 || i + 1 == words) {
            sentence.first()[0] = sentence.first().at(0).toUpper();
            sentences << sentence.join(u' ') + u'.';
            sentence.clear();
        }
    }
    return sentences.join(u' ');
}

inline long residentKiB()
{
    std::ifstream statm("/proc/self/statm");
    long pages = 0, resident = 0;
    statm >> pages >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}
