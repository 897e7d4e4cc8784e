#include "CtlJson.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>

bool CtlJson::parse(const QByteArray& text, QJsonValue* value, QString* error)
{
    // Wrapped in an array so that scalars parse too; offsets shift by one.
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson('[' + text + ']', &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        if (error) {
            const int at = qBound(1, parseError.offset, text.size() + 1);
            *error = QStringLiteral("%1 at character %2").arg(parseError.errorString()).arg(at);
        }
        return false;
    }
    const QJsonArray array = document.array();
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
