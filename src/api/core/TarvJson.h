#pragma once

#include <QByteArray>
#include <QJsonValue>
#include <QString>
#include <QVariant>
#include <QVariantHash>

// What went wrong while parsing JSON text: a message and the byte offset.
struct TarvError
{
    QString message;
    int offset = -1;

    bool isError() const { return !message.isEmpty(); }
};

namespace TarvJson {

// Parses JSON text that may come from anyone on the LAN. The document must
// be an object or an array (at most 1024 levels deep); objects become
// QVariantHash (never QVariantMap), so parsed records compare equal to
// records built in code; of duplicated keys the last one wins; numbers and
// error texts are those QJsonDocument gives. On error the result is invalid
// and `error` says why; `consumed`, when given, receives the number of bytes
// read (the whole input on success, 0 on error).
//
// Deliberately not QJsonDocument::fromJson: Qt 5.15 leaks the earlier value
// of a duplicated key when it is an object or a non-empty array, so every
// such datagram or request would cost memory for good. Strictly RFC 8259:
// unlike QJsonDocument it refuses raw control characters in strings, unknown
// escapes such as "\x", unpaired surrogate escapes and the numbers ".5" and
// "1."; no writer of ours produces them.
QVariant parse(const QByteArray& json, TarvError& error, unsigned int* consumed);

// The JSON value as a variant with every object a QVariantHash.
QVariant toVariant(const QJsonValue& value);

// The other way: a variant as the host holds it (hashes, lists, texts,
// numbers, records, paths, translatable texts) as JSON.
QJsonValue fromVariant(const QVariant& value);

// Exactly one JSON value, scalars included, read with parse(). On failure
// false, `value` untouched, and `error` says what is wrong and where,
// counting characters from 1.
bool parseValue(const QByteArray& text, QJsonValue* value, QString* error);

// A request body that must hold one JSON object; an empty body is an empty
// object. False with a message for people otherwise.
bool parseObject(const QByteArray& body, QVariantHash* result, QString* error);

// JSON text of any value, scalars included (QJsonDocument alone only writes
// objects and arrays); undefined is written as null.
QByteArray toBytes(const QJsonValue& value, bool indented = false);
QString toText(const QJsonValue& value, bool indented = false);

} // namespace TarvJson
