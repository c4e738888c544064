// SPDX-License-Identifier: GPL-3.0-or-later
#include "settings/ApiKeySettingsModel.h"

#include "account/KeychainHelper.h"
#include "core/UserDefaults.h"
#include "speech/OpenAIServer.h"
#include "speech/ServerCatalog.h"
#include "speech/SpeechError.h"
#include "speech/SpeechManager.h"
#include "speech/SpeechStream.h"
#include "speech/TTSRequest.h"
#include "speech/VoiceStyle.h"

#include <QNetworkAccessManager>

ApiKeySettingsModel::ApiKeySettingsModel(Services services, QObject *parent)
    : QObject(parent)
    , m_services(std::move(services))
{
    if (!m_services.network) {
        m_ownNetwork = std::make_unique<QNetworkAccessManager>();
        m_services.network = m_ownNetwork.get();
    }
    reloadKey();
    if (m_services.speech) {
        connect(m_services.speech, &SpeechManager::availableVoicesChanged, this,
                &ApiKeySettingsModel::modelChanged);
        m_services.speech->refreshServerCatalog();
    }
}

void ApiKeySettingsModel::refreshCatalog()
{
    if (m_services.speech)
        m_services.speech->refreshServerCatalog();
}

QStringList ApiKeySettingsModel::serverModels() const
{
    return chosenServer() ? OpenAIServer::listedModels(*m_services.defaults) : QStringList();
}

int ApiKeySettingsModel::maxInputChars() const
{
    return OpenAIServer::maxInputChars(*m_services.defaults);
}

void ApiKeySettingsModel::setMaxInputChars(int characters)
{
    m_services.defaults->setUnsigned32(OpenAIServer::maxInputCharsKey, quint32(std::max(characters, 1)));
    Q_EMIT serverChanged();
}

ApiKeySettingsModel::~ApiKeySettingsModel()
{
    cancelTest();
}

QString ApiKeySettingsModel::maskKey(const QString &key)
{
    return QStringLiteral("sk-…") + key.right(4);
}

QString ApiKeySettingsModel::server() const
{
    return OpenAIServer::effectiveOrigin(*m_services.defaults, m_services.openAIOrigin,
                                         m_services.openAIOriginFromEnvironment)
        .toString();
}

QString ApiKeySettingsModel::serverNote() const
{
    if (m_services.openAIOriginFromEnvironment)
        return QStringLiteral("Set by QUILLVOX_OPENAI_ORIGIN, which wins over this field.");
    const OpenAIServer::Verdict verdict = OpenAIServer::check(server());
    return verdict.kind == OpenAIServer::Verdict::Unencrypted ? verdict.message : QString();
}

std::optional<QUrl> ApiKeySettingsModel::chosenServer() const
{
    return OpenAIServer::chosenServer(*m_services.defaults, m_services.openAIOriginFromEnvironment);
}

QString ApiKeySettingsModel::model() const
{
    return chosenServer() ? OpenAIServer::chosenServerModel(*m_services.defaults)
                          : OpenAIServer::effectiveModel(*m_services.defaults);
}

QString ApiKeySettingsModel::defaultModel() const
{
    return chosenServer() ? ServerCatalog::defaultModel(OpenAIServer::listedModels(*m_services.defaults))
                          : OpenAIServer::defaultModel();
}

void ApiKeySettingsModel::reloadKey()
{
    const std::optional<QString> before = m_key;
    m_key = m_services.keychain->loadSecret(KeychainKey::openAIAPIKey);
    if (m_key && m_key->isEmpty())
        m_key.reset();
    if (m_key != before)
        Q_EMIT keyChanged();
}

bool ApiKeySettingsModel::saveKey(const QString &text)
{
    const QString key = text.trimmed();
    if (key.isEmpty() || key == m_key)
        return true;
    const bool saved = m_services.keychain->save(key, KeychainKey::openAIAPIKey);
    if (saved) {
        m_key = key;
        m_keyProblem.clear();
    } else {
        m_keyProblem = m_services.keychain->lastFailureReason();
    }
    Q_EMIT keyChanged();
    if (saved)
        refreshCatalog();
    if (saved && m_services.ownKeyChanged)
        m_services.ownKeyChanged();
    return saved;
}

bool ApiKeySettingsModel::removeKey()
{
    const bool removed = m_services.keychain->remove(KeychainKey::openAIAPIKey);
    if (removed) {
        m_key.reset();
        m_keyProblem.clear();
    } else {
        m_keyProblem = m_services.keychain->lastFailureReason();
    }
    Q_EMIT keyChanged();
    if (removed && m_services.ownKeyChanged)
        m_services.ownKeyChanged();
    return removed;
}

bool ApiKeySettingsModel::setServer(const QString &text)
{
    if (text.trimmed().isEmpty()) {
        m_services.defaults->remove(OpenAIServer::serverKey);
        m_serverError.clear();
        Q_EMIT serverChanged();
        Q_EMIT modelChanged();
        refreshCatalog();
        return true;
    }
    const OpenAIServer::Verdict verdict = OpenAIServer::check(text);
    if (verdict.kind == OpenAIServer::Verdict::Refused) {
        m_serverError = verdict.message;
        Q_EMIT serverChanged();
        return false;
    }
    m_serverError.clear();
    if (verdict.origin == OpenAIServer::defaultOrigin())
        m_services.defaults->remove(OpenAIServer::serverKey);
    else
        m_services.defaults->setString(OpenAIServer::serverKey, verdict.origin.toString());
    Q_EMIT serverChanged();
    Q_EMIT modelChanged(); // a chosen server has its own default model
    refreshCatalog();
    return true;
}

void ApiKeySettingsModel::setModel(const QString &text)
{
    const QString model = text.trimmed();
    if (model.isEmpty() || model == defaultModel())
        m_services.defaults->remove(OpenAIServer::modelKey);
    else
        m_services.defaults->setString(OpenAIServer::modelKey, model);
    Q_EMIT modelChanged();
}

void ApiKeySettingsModel::test()
{
    cancelTest();
    const std::optional<QUrl> chosen = chosenServer();
    if (!m_key && !OpenAIServer::isLocalServer(chosen)) {
        finishTest(TestState::Failed, SpeechError::make(SpeechError::apiKeyMissing).description());
        return;
    }
    // What a narration sends, with one short sentence: a server that refuses a narration's voice, style
    // or model refuses the test too.
    TTSRequest body;
    body.model = model();
    body.input = QStringLiteral("This is a test.");
    body.voice = m_services.speech ? m_services.speech->selectedVoice() : defaultVoice();
    body.instructions =
        (m_services.speech ? m_services.speech->selectedVoiceStyle() : VoiceStyle()).instructions();
    const QNetworkRequest request =
        buildSpeechRequest(SpeechBackend::OpenAI, QUrl(server()), m_key.value_or(QString()),
                           OpenAIServer::headTimeoutMs(chosen));
    auto *stream = new SpeechStream(m_services.network, request, body.toJson(), this);
    stream->setChosenServer(chosen.has_value());
    m_test = stream;
    // A chosen server's answer is checked to its end as a narration would play it.
    connect(stream, &SpeechStream::headReceived, this,
            [this, stream, chosen = chosen.has_value()](int status) {
                if (status != 200)
                    finishTest(TestState::Failed,
                               speechErrorForStatus(status, 0, stream->serverMessage()).description());
                else if (!chosen)
                    finishTest(TestState::Works, QStringLiteral("Works"));
            });
    connect(stream, &SpeechStream::bodyFinished, this,
            [this] { finishTest(TestState::Works, QStringLiteral("Works")); });
    connect(stream, &SpeechStream::audioUnplayable, this, [this](const QString &message) {
        finishTest(TestState::Failed, SpeechError::makeUnplayableAudio(message).description());
    });
    connect(stream, &SpeechStream::failedBeforeHead, this, [this, stream] {
        finishTest(TestState::Failed, speechErrorBeforeHead(stream->certificateProblem()).description());
    });
    m_testState = TestState::Testing;
    m_testResult.clear();
    Q_EMIT testChanged();
    stream->start();
}

QString ApiKeySettingsModel::shownResult(TestState state, const QString &result)
{
    return state == TestState::Works ? QStringLiteral("✓ ") + result : result;
}

void ApiKeySettingsModel::setDraft(const QString &text)
{
    if (text == m_draft)
        return;
    m_draft = text;
    Q_EMIT draftChanged();
}

bool ApiKeySettingsModel::saveDraft()
{
    if (!canSave() || !saveKey(m_draft))
        return false;
    setDraft(QString());
    return true;
}

bool ApiKeySettingsModel::discardDraft()
{
    const bool had = !m_draft.isEmpty();
    setDraft(QString());
    return had;
}

void ApiKeySettingsModel::finishTest(TestState state, const QString &result)
{
    cancelTest();
    m_testState = state;
    m_testResult = result;
    Q_EMIT testChanged();
}

void ApiKeySettingsModel::cancelTest()
{
    if (SpeechStream *stream = m_test) {
        m_test = nullptr;
        stream->disconnect(this);
        stream->cancel();
        stream->deleteLater();
    }
}
