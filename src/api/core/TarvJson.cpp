#include "TarvJson.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>

namespace TarvJson {

QVariant toVariant(const QJsonValue& value)
{
    if (value.isObject()) {
        QVariantHash hash;
        const QJsonObject object = value.toObject();
        for (auto it = object.begin(); it != object.end(); ++it)
            hash.insert(it.key(), toVariant(it.value()));
        return hash;
    }
    if (value.isArray()) {
        QVariantList list;
        const QJsonArray array = value.toArray();
        list.reserve(array.size());
        for (const QJsonValue& item : array)
            list.append(toVariant(item));
        return list;
    }
    return value.toVariant();
}

QVariant parse(const QByteArray& json, TarvError& error, unsigned int* consumed)
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(json, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        error.message = parseError.errorString();
        error.offset = parseError.offset;
        if (consumed)
            *consumed = 0;
        return QVariant();
    }
    error = TarvError();
    if (consumed)
        *consumed = static_cast<unsigned int>(json.size());
    if (document.isObject())
        return toVariant(document.object());
    if (document.isArray())
        return toVariant(document.array());
    return QVariant();
}

} // namespace TarvJson
