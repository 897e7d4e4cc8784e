#include "HostJson.h"

#include <QJsonArray>
#include <QJsonDocument>

#include "CMPath.h"
#include "TarvHash.h"
#include "TarvJson.h"
#include "TrString.h"

namespace HostJson {

QJsonValue fromVariant(const QVariant& value)
{
    const int type = value.userType();
    if (type == QMetaType::QVariantHash || type == QMetaType::QVariantMap) {
        QJsonObject object;
        const QVariantHash hash = value.toHash();
        for (auto it = hash.begin(); it != hash.end(); ++it)
            object.insert(it.key(), fromVariant(it.value()));
        return object;
    }
    if (type == QMetaType::QVariantList || type == QMetaType::QStringList) {
        QJsonArray array;
        for (const QVariant& item : value.toList())
            array.append(fromVariant(item));
        return array;
    }
    if (type == qMetaTypeId<CMPath>())
        return value.value<CMPath>().toString();
    if (type == qMetaTypeId<TrString>())
        return value.value<TrString>().toString();
    if (type == qMetaTypeId<TarvHash>())
        return fromVariant(value.value<TarvHash>().toVariant());
    return QJsonValue::fromVariant(value);
}

std::string compact(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString();
}

std::string error(const QString& name, const QString& title, const QString& message)
{
    QJsonObject inner;
    inner.insert(QStringLiteral("name"), name);
    inner.insert(QStringLiteral("title"), title);
    inner.insert(QStringLiteral("message"), message);
    QJsonObject outer;
    outer.insert(QStringLiteral("error"), inner);
    return compact(outer);
}

bool parseObject(const std::string& body, QVariantHash* result, QString* error)
{
    const QByteArray bytes = QByteArray::fromStdString(body);
    if (bytes.trimmed().isEmpty()) {
        result->clear();
        return true;
    }
    TarvError parseError;
    const QVariant parsed = TarvJson::parse(bytes, parseError, nullptr);
    if (parseError.isError()) {
        // Qt only parses objects and arrays at the top level; say so plainly
        // for the common mistake of sending a bare text or number.
        *error = QStringLiteral("The request body is not valid JSON (at byte %1: %2); it must be one JSON object")
                     .arg(parseError.offset)
                     .arg(parseError.message);
        return false;
    }
    if (parsed.userType() != QMetaType::QVariantHash) {
        *error = QStringLiteral("The request body must be one JSON object, e.g. {\"string_\": \"Kitchen\"}");
        return false;
    }
    *result = parsed.toHash();
    return true;
}

} // namespace HostJson
