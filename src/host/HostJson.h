#pragma once

#include <string>

#include <QByteArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QVariant>

// JSON for the control API: variants as the host holds them (hashes, lists,
// texts, numbers, records, paths) to JSON and back.
namespace HostJson {

QJsonValue fromVariant(const QVariant& value);
std::string compact(const QJsonObject& object);
// {"error": {"name", "title", "message"}}.
std::string error(const QString& name, const QString& title, const QString& message);
// Parses a request body that must hold one JSON object; an empty body is an
// empty object. False with a message for people otherwise.
bool parseObject(const std::string& body, QVariantHash* result, QString* error);

} // namespace HostJson
