#include "CtlJson.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>

#include "TarvJson.h"

bool CtlJson::parse(const QByteArray& text, QJsonValue* value, QString* error)
{
    // Objects and arrays parse as they are, so errors point at the user's
    // text; scalars are wrapped in an array, which shifts offsets by one.
    // The host's parser reads it, not QJsonDocument, which leaks on
    // duplicated keys: answers come from whatever listens at the URL.
    const QByteArray trimmed = text.trimmed();
    const bool container = trimmed.startsWith('{') || trimmed.startsWith('[');
    TarvError parseError;
    const QVariant parsed = TarvJson::parse(container ? text : '[' + text + ']', parseError, nullptr);
    if (parseError.isError()) {
        if (error) {
            const int at = qBound(1, parseError.offset + (container ? 1 : 0), text.size() + 1);
            *error = QStringLiteral("%1 at character %2").arg(parseError.message).arg(at);
        }
        return false;
    }
    const QJsonValue document = QJsonValue::fromVariant(parsed);
    if (container) {
        if (value)
            *value = document;
        return true;
    }
    const QJsonArray array = document.toArray();
    if (array.size() != 1) {
        if (error)
            *error = array.isEmpty() ? QStringLiteral("no JSON value") : QStringLiteral("more than one JSON value");
        return false;
    }
    if (value)
        *value = array.first();
    return true;
}

QByteArray CtlJson::toBytes(const QJsonValue& value, bool indented)
{
    if (value.isObject())
        return QJsonDocument(value.toObject()).toJson(indented ? QJsonDocument::Indented : QJsonDocument::Compact)
            .trimmed();
    if (value.isArray())
        return QJsonDocument(value.toArray()).toJson(indented ? QJsonDocument::Indented : QJsonDocument::Compact)
            .trimmed();
    if (value.isUndefined())
        return QByteArrayLiteral("null");
    const QByteArray wrapped = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    return wrapped.mid(1, wrapped.size() - 2);
}

QString CtlJson::toText(const QJsonValue& value, bool indented)
{
    return QString::fromUtf8(toBytes(value, indented));
}
