// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QUrl>
#include <QtQml/qqmlregistration.h>

#include <functional>
#include <memory>
#include <optional>

class KeychainHelper;
class QNetworkAccessManager;
class SpeechManager;
class SpeechStream;
class UserDefaults;

// The API Keys section: the personal OpenAI key (kept only in the keyring), and the OpenAI-compatible
// server and model that own-key narration uses.
class ApiKeySettingsModel : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("The settings window provides its view models")
    Q_PROPERTY(bool hasKey READ hasKey NOTIFY keyChanged)
    // "sk-…" and the key's last four characters; empty without a key.
    Q_PROPERTY(QString maskedKey READ maskedKey NOTIFY keyChanged)
    // Why the keyring refused the last save or removal; empty after one that worked.
    Q_PROPERTY(QString keyProblem READ keyProblem NOTIFY keyChanged)
    Q_PROPERTY(QString server READ server NOTIFY serverChanged)
    Q_PROPERTY(bool serverFromEnvironment READ serverFromEnvironment CONSTANT)
    // The warning for plain http to a local server, or the note that the environment decides.
    Q_PROPERTY(QString serverNote READ serverNote NOTIFY serverChanged)
    // Why the last address typed was not taken; empty once one is.
    Q_PROPERTY(QString serverError READ serverError NOTIFY serverChanged)
    Q_PROPERTY(QString model READ model NOTIFY modelChanged)
    Q_PROPERTY(QString defaultModel READ defaultModel NOTIFY modelChanged)
    // What a chosen server lists at /v1/models; empty for OpenAI's origin.
    Q_PROPERTY(QStringList serverModels READ serverModels NOTIFY modelChanged)
    // The server in use is one the user chose (not OpenAI's origin): it has a request size of its own.
    Q_PROPERTY(bool isChosenServer READ isChosenServer NOTIFY serverChanged)
    Q_PROPERTY(int maxInputChars READ maxInputChars NOTIFY serverChanged)
    Q_PROPERTY(TestState testState READ testState NOTIFY testChanged)
    // "Works", or what a narration would show for the same failure.
    Q_PROPERTY(QString testResult READ testResult NOTIFY testChanged)
    // The result as shown: a tick before "Works".
    Q_PROPERTY(QString testResultText READ testResultText NOTIFY testChanged)
    // The key being typed, not yet saved: "Save" or Enter saves it (and empties the field once the keyring
    // took it); Escape or leaving the section drops it. Half a key never replaces the stored one.
    Q_PROPERTY(QString draft READ draft WRITE setDraft NOTIFY draftChanged)
    Q_PROPERTY(bool canSave READ canSave NOTIFY draftChanged)

public:
    enum class TestState { Idle, Testing, Works, Failed };
    Q_ENUM(TestState)

    struct Services
    {
        KeychainHelper *keychain = nullptr;
        UserDefaults *defaults = nullptr;
        SpeechManager *speech = nullptr; // for the voice of the test; none: the default voice
        QNetworkAccessManager *network = nullptr;
        QUrl openAIOrigin;
        bool openAIOriginFromEnvironment = false;
        std::function<void()> ownKeyChanged;
    };

    explicit ApiKeySettingsModel(Services services, QObject *parent = nullptr);
    ~ApiKeySettingsModel() override;

    static QString maskKey(const QString &key);

    bool hasKey() const { return m_key.has_value(); }
    QString maskedKey() const { return m_key ? maskKey(*m_key) : QString(); }
    QString keyProblem() const { return m_keyProblem; }
    QString server() const;
    bool serverFromEnvironment() const { return m_services.openAIOriginFromEnvironment; }
    QString serverNote() const;
    QString serverError() const { return m_serverError; }
    QString model() const;
    QString defaultModel() const;
    QStringList serverModels() const;
    bool isChosenServer() const { return chosenServer().has_value(); }
    int maxInputChars() const;
    TestState testState() const { return m_testState; }
    QString testResult() const { return m_testResult; }
    QString testResultText() const { return shownResult(m_testState, m_testResult); }
    static QString shownResult(TestState state, const QString &result);
    QString draft() const { return m_draft; }
    void setDraft(const QString &text);
    bool canSave() const { return !m_draft.trimmed().isEmpty(); }
    // False, and the draft kept, when there was nothing to save or the keyring refused it.
    Q_INVOKABLE bool saveDraft();
    // Whether there was a draft to drop (Escape is the field's only while it holds one).
    Q_INVOKABLE bool discardDraft();

    // Saves the typed key to the keyring; blank text changes nothing. False when the keyring refused it.
    Q_INVOKABLE bool saveKey(const QString &text);
    // Reads the keyring again: the command line or another program may have set or removed the key.
    Q_INVOKABLE void reloadKey();
    Q_INVOKABLE bool removeKey();
    // Blank restores the default. False, and nothing stored, for an address that is refused.
    Q_INVOKABLE bool setServer(const QString &text);
    // Blank restores the default.
    Q_INVOKABLE void setModel(const QString &text);
    Q_INVOKABLE void setMaxInputChars(int characters);
    // Sends what a narration sends, with one short sentence, to the server in use; nothing is played or
    // recorded. A chosen server's audio is checked as a narration would play it.
    Q_INVOKABLE void test();

Q_SIGNALS:
    void keyChanged();
    void serverChanged();
    void modelChanged();
    void testChanged();
    void draftChanged();

private:
    std::optional<QUrl> chosenServer() const;
    void refreshCatalog();
    void finishTest(TestState state, const QString &result);
    void cancelTest();

    Services m_services;
    std::unique_ptr<QNetworkAccessManager> m_ownNetwork;
    std::optional<QString> m_key;
    QString m_keyProblem;
    QString m_serverError;
    TestState m_testState = TestState::Idle;
    QString m_testResult;
    QString m_draft;
    QPointer<SpeechStream> m_test;
};
