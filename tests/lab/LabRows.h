#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>

#include "LabApi.h"

// Reading grouping rows and API errors as the lab suites compare them.

inline QStringList sorted(QStringList list)
{
    list.sort();
    return list;
}

inline QJsonObject groupingMember(const QJsonObject& row)
{
    return row.value(QStringLiteral("value")).toObject().value(QStringLiteral("groupingMember")).toObject();
}

inline QString masterIdOf(const QJsonObject& row)
{
    return groupingMember(row).value(QStringLiteral("master")).toObject().value(QStringLiteral("id")).toString();
}

inline QString followerIdOf(const QJsonObject& row)
{
    return groupingMember(row).value(QStringLiteral("follower")).toObject().value(QStringLiteral("id")).toString();
}

// A saved group's member ids ({"name", "members", "timestamp"}), sorted.
inline QStringList groupMembers(const QJsonObject& group)
{
    QStringList ids;
    for (const QJsonValue& id : group.value(QStringLiteral("members")).toArray())
        ids.append(id.toString());
    ids.sort();
    return ids;
}

// The rows' ids, sorted.
inline QStringList rowIds(const QJsonArray& rows)
{
    QStringList ids;
    for (const QJsonValue& row : rows)
        ids.append(row.toObject().value(QStringLiteral("id")).toString());
    ids.sort();
    return ids;
}

inline QString errorMessage(const LabApi::Reply& reply)
{
    return reply.json.toObject().value(QStringLiteral("error")).toObject().value(QStringLiteral("message")).toString();
}
