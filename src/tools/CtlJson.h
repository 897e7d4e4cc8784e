#pragma once

#include <QByteArray>
#include <QJsonValue>
#include <QString>

// JSON text for any JSON value, scalars included (QJsonDocument alone only
// reads and writes objects and arrays).
class CtlJson
{
public:
    // Parses exactly one JSON value. On failure returns false and says what
    // is wrong and where, counting characters from 1.
    static bool parse(const QByteArray& text, QJsonValue* value, QString* error);
    static QByteArray toBytes(const QJsonValue& value, bool indented = false);
    static QString toText(const QJsonValue& value, bool indented = false);
};
