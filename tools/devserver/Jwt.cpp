// SPDX-License-Identifier: GPL-3.0-or-later
#include "Jwt.h"

#include <QJsonDocument>
#include <QMessageAuthenticationCode>

namespace {

constexpr auto base64url = QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals;

QByteArray encodedJson(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact).toBase64(base64url);
}

std::optional<QJsonObject> decodedJson(const QByteArray &part)
{
    const auto decoded =
        QByteArray::fromBase64Encoding(part, base64url | QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded)
        return std::nullopt;
    const QJsonDocument document = QJsonDocument::fromJson(*decoded);
    if (!document.isObject())
        return std::nullopt;
    return document.object();
}

QByteArray signature(const QByteArray &signingInput, const QByteArray &secret)
{
    return QMessageAuthenticationCode::hash(signingInput, secret, QCryptographicHash::Sha256)
        .toBase64(base64url);
}

// Takes as long for a near miss as for a wild guess.
bool sameBytes(const QByteArray &a, const QByteArray &b)
{
    if (a.size() != b.size())
        return false;
    unsigned char difference = 0;
    for (qsizetype i = 0; i < a.size(); ++i)
        difference |= static_cast<unsigned char>(a[i] ^ b[i]);
    return difference == 0;
}

} // namespace

std::string Jwt::sign(const QJsonObject &payload, const QByteArray &secret)
{
    const QByteArray signingInput =
        encodedJson({{"alg", "HS256"}, {"typ", "JWT"}}) + '.' + encodedJson(payload);
    const QByteArray token = signingInput + '.' + signature(signingInput, secret);
    return token.toStdString();
}

std::optional<QJsonObject> Jwt::verify(std::string_view token, const QByteArray &secret)
{
    const QByteArray text(token.data(), static_cast<qsizetype>(token.size()));
    const QList<QByteArray> parts = text.split('.');
    if (parts.size() != 3)
        return std::nullopt;
    const QByteArray signingInput = parts[0] + '.' + parts[1];
    if (!sameBytes(parts[2], signature(signingInput, secret)))
        return std::nullopt;
    // Only what sign() writes: a token naming another algorithm was not made here.
    const std::optional<QJsonObject> header = decodedJson(parts[0]);
    if (!header || header->value("alg").toString() != u"HS256")
        return std::nullopt;
    return decodedJson(parts[1]);
}
