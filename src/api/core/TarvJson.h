#pragma once

#include <QByteArray>
#include <QString>
#include <QVariant>

// What went wrong while parsing JSON text: a message and the byte offset.
struct TarvError
{
    QString message;
    int offset = -1;

    bool isError() const { return !message.isEmpty(); }
};

namespace TarvJson {

// Parses JSON text. Objects become QVariantHash (never QVariantMap), so
// parsed records compare equal to records built in code. On error the result
// is invalid and `error` says why; `consumed`, when given, receives the
// number of bytes read (the whole input on success, 0 on error).
QVariant parse(const QByteArray& json, TarvError& error, unsigned int* consumed);

// The JSON value as a variant with every object a QVariantHash.
QVariant toVariant(const QJsonValue& value);

} // namespace TarvJson
