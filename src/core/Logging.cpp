// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/Logging.h"

Q_LOGGING_CATEGORY(lcCore, "quillvox.core", QtInfoMsg)
Q_LOGGING_CATEGORY(lcSpeech, "quillvox.speech", QtInfoMsg)
Q_LOGGING_CATEGORY(lcAudio, "quillvox.audio", QtInfoMsg)
Q_LOGGING_CATEGORY(lcCapture, "quillvox.capture", QtInfoMsg)
Q_LOGGING_CATEGORY(lcShortcuts, "quillvox.shortcuts", QtInfoMsg)
Q_LOGGING_CATEGORY(lcAccount, "quillvox.account", QtInfoMsg)
Q_LOGGING_CATEGORY(lcRecords, "quillvox.records", QtInfoMsg)
Q_LOGGING_CATEGORY(lcWidget, "quillvox.widget", QtInfoMsg)
Q_LOGGING_CATEGORY(lcApp, "quillvox.app", QtInfoMsg)
