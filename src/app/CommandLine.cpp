// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/CommandLine.h"

#include "account/KeychainHelper.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <QTextStream>

#include <cstdio>

namespace {

const QStringList kHeadlessOptions{QStringLiteral("--set-api-key"), QStringLiteral("--clear-api-key"),
                                   QStringLiteral("--help"), QStringLiteral("-h"),
                                   QStringLiteral("--version"), QStringLiteral("-v")};

void printError(const QString &text)
{
    QTextStream(stderr) << text << Qt::endl;
}

// Reads one line from standard input, without its line end. The key never travels in the arguments,
// where any user on the machine could read it from the process list.
QString readKeyFromStandardInput()
{
    QFile in;
    if (!in.open(stdin, QIODevice::ReadOnly))
        return {};
    QByteArray line = in.readLine();
    while (line.endsWith('\n') || line.endsWith('\r'))
        line.chop(1);
    return QString::fromUtf8(line);
}

int setApiKey()
{
    const QString key = readKeyFromStandardInput();
    if (key.isEmpty()) {
        printError(QStringLiteral("No API key given: pipe the key on standard input, for example\n"
                                  "  printf '%s\\n' \"$OPENAI_API_KEY\" | quillvox --set-api-key"));
        return 1;
    }
    KeychainHelper &keychain = KeychainHelper::shared();
    if (!keychain.save(key, KeychainKey::openAIAPIKey)) {
        printError(QStringLiteral("Could not save the API key: ") + keychain.lastFailureReason());
        return 1;
    }
    QTextStream(stdout) << "API key saved to the keyring." << Qt::endl;
    return 0;
}

int clearApiKey()
{
    KeychainHelper &keychain = KeychainHelper::shared();
    if (!keychain.remove(KeychainKey::openAIAPIKey)) {
        printError(QStringLiteral("Could not remove the API key: ") + keychain.lastFailureReason());
        return 1;
    }
    QTextStream(stdout) << "API key removed from the keyring." << Qt::endl;
    return 0;
}

} // namespace

bool isHeadlessMode(const QStringList &arguments)
{
    for (const QString &a : arguments) {
        if (kHeadlessOptions.contains(a))
            return true;
    }
    return false;
}

int runQuillvox(int argc, char *argv[])
{
    QCoreApplication::setApplicationName(QStringLiteral("Quillvox"));
    QCoreApplication::setApplicationVersion(QStringLiteral(QUILLVOX_VERSION));

    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Reads selected text aloud."));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption setKey(QStringLiteral("set-api-key"),
                                    QStringLiteral("Save the OpenAI API key read from standard input."));
    const QCommandLineOption clearKey(QStringLiteral("clear-api-key"),
                                      QStringLiteral("Remove the saved OpenAI API key."));
    parser.addOptions({setKey, clearKey});
    parser.process(app);

    if (parser.isSet(setKey))
        return setApiKey();
    if (parser.isSet(clearKey))
        return clearApiKey();
    parser.showHelp(0);
}
