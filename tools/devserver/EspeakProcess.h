// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

// espeak-ng in a helper process of its own, forked while the server is still single-threaded.
//
// espeak-ng carries state from one utterance into the next (pitch flutter, waveform phase), so the same
// request would come out a little different, even in length, every time. The helper initialises the
// engine once and never speaks itself: it forks a short-lived child per utterance, so every utterance
// starts from the same pristine engine. Forking from the server, which runs many threads, could leave
// the child stuck on a lock another thread held; the helper has only one thread.
class EspeakProcess
{
public:
    struct Speech
    {
        std::vector<std::int16_t> samples;
        int sampleRateHz = 0;
    };

    // Must be called before the server starts any thread. Throws std::runtime_error.
    EspeakProcess();
    ~EspeakProcess();
    EspeakProcess(const EspeakProcess &) = delete;
    EspeakProcess &operator=(const EspeakProcess &) = delete;

    // 16-bit mono at espeak-ng's own rate. One utterance at a time; callable from any thread.
    // Throws std::runtime_error when synthesis fails or the helper is gone.
    Speech speak(std::string_view text, std::string_view voice);

private:
    std::mutex m_mutex;
    int m_socket = -1;
    pid_t m_helper = -1;
};
