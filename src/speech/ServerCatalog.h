// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QStringList>

// The voices and models a speech server the user chose offers, read from its GET /v1/audio/voices and
// GET /v1/models answers. Self-hosted servers shape these lists differently; all shapes give names in
// the server's order, without repeats.
namespace ServerCatalog {

// {"voices": ["af_heart", ...]}, {"voices": [{"id"|"voice_id"|"name": ...}, ...]}, {"data": [...]}, or a
// bare array of either. Empty for anything else.
QStringList voices(const QByteArray &json);
// {"data": [{"id": ...}, ...]} (OpenAI's shape), {"models": [...]}, or a bare array.
QStringList models(const QByteArray &json);
// The model a narration asks a chosen server for when the user has not picked one: the first speech model
// listed, else "tts-1" (the name these servers accept for OpenAI's), never OpenAI's dated name.
QString defaultModel(const QStringList &listed);

} // namespace ServerCatalog
