#include "CtlHouseCommand.h"

#include <algorithm>

#include <QDateTime>
#include <QJsonArray>

#include "TarvJson.h"

#include "CtlFormatter.h"

namespace {

QString text(const QJsonValue& value)
{
    return value.isString() ? value.toString() : QString();
}

// "name [id]", or the id alone when the device has no name of its own.
QString label(const QJsonObject& device)
{
    const QString id = text(device.value(QStringLiteral("id")));
    const QString name = text(device.value(QStringLiteral("name")));
    return name.isEmpty() || name == id ? id : QStringLiteral("%1 [%2]").arg(name, id);
}

// By name ignoring case, then by id: the same order on every run.
bool before(const CtlHouse::Device* a, const CtlHouse::Device* b)
{
    const int order = a->name.compare(b->name, Qt::CaseInsensitive);
    if (order != 0)
        return order < 0;
    if (a->name != b->name)
        return a->name < b->name;
    return a->id < b->id;
}

QJsonObject deviceEntry(const CtlHouse::Device& device, const QString& selfId, const CtlHouse& house)
{
    QJsonValue saved = QJsonValue::Null;
    if (device.hasSavedGroup) {
        QJsonArray members;
        for (const QString& id : device.savedGroup.members) {
            const CtlHouse::Device* member = house.byId(id);
            members.append(QJsonObject{{QStringLiteral("id"), id},
                                       {QStringLiteral("name"), member ? member->name : QString()}});
        }
        saved = QJsonObject{{QStringLiteral("name"), device.savedGroup.name},
                            {QStringLiteral("members"), members},
                            {QStringLiteral("timestamp"), double(device.savedGroup.timestamp)}};
    }
    return QJsonObject{{QStringLiteral("id"), device.id},
                       {QStringLiteral("name"), device.name},
                       {QStringLiteral("self"), device.id == selfId},
                       {QStringLiteral("transcoder"), device.transcoder},
                       {QStringLiteral("reachable"), device.reachable},
                       {QStringLiteral("master"), device.master},
                       {QStringLiteral("savedGroup"), saved}};
}

// " (this device, not reachable)", or nothing.
QString notes(const QJsonObject& device, const QStringList& more = QStringList())
{
    QStringList said = more;
    if (device.value(QStringLiteral("self")).toBool())
        said.append(QStringLiteral("this device"));
    if (!device.value(QStringLiteral("reachable")).toBool())
        said.append(QStringLiteral("not reachable"));
    return said.isEmpty() ? QString() : QStringLiteral(" (%1)").arg(said.join(QStringLiteral(", ")));
}

QString counted(int count, const QString& one, const QString& many)
{
    return QStringLiteral("%1 %2").arg(count).arg(count == 1 ? one : many);
}

} // namespace

CtlHouseCommand::CtlHouseCommand(CtlContext& context)
    : m_context(context)
{
}

CtlExitCode::Enum CtlHouseCommand::run()
{
    const CtlReply host = m_context.client().host();
    if (!host.isOk())
        return m_context.fail(host);
    const QString selfId = ::text(host.body().value(QStringLiteral("id")));
    if (selfId.isEmpty())
        return m_context.apiError(QStringLiteral("the host did not say its id"));
    const CtlReply rows = m_context.client().rows(CtlHouse::path());
    if (!rows.isOk())
        return m_context.fail(rows);
    const QJsonObject house = houseOf(selfId, CtlHouse::fromRows(rows.body()));
    if (m_context.arguments().json())
        m_context.out() << TarvJson::toText(house, true) << '\n';
    else
        m_context.out() << CtlFormatter::printable(text(house)) << '\n';
    m_context.out().flush();
    return CtlExitCode::Ok;
}

QJsonObject CtlHouseCommand::houseOf(const QString& selfId, const CtlHouse& house)
{
    QList<const CtlHouse::Device*> transcoders;
    QList<const CtlHouse::Device*> others;
    QJsonArray raw;
    for (const CtlHouse::Device& device : house.devices()) {
        (device.transcoder ? transcoders : others).append(&device);
        raw.append(device.raw);
    }
    std::sort(transcoders.begin(), transcoders.end(), before);
    std::sort(others.begin(), others.end(), before);

    QJsonArray groups;
    QList<const CtlHouse::Device*> placed;
    QList<const CtlHouse::Device*> lone;
    for (const CtlHouse::Device* transcoder : qAsConst(transcoders)) {
        QJsonArray followers;
        for (const CtlHouse::Device* device : qAsConst(others)) {
            if (device->master == transcoder->id) {
                followers.append(deviceEntry(*device, selfId, house));
                placed.append(device);
            }
        }
        // A transcoder nobody follows plays on its own: people see a group
        // only where rooms play together.
        if (followers.isEmpty()) {
            lone.append(transcoder);
            continue;
        }
        groups.append(QJsonObject{{QStringLiteral("transcoder"), deviceEntry(*transcoder, selfId, house)},
                                  {QStringLiteral("followers"), followers}});
    }
    // Besides lone transcoders: a device following nobody, one whose master
    // is unknown, or one following a device that is no transcoder here.
    for (const CtlHouse::Device* device : qAsConst(others)) {
        if (!placed.contains(device))
            lone.append(device);
    }
    std::sort(lone.begin(), lone.end(), before);
    QJsonArray alone;
    for (const CtlHouse::Device* device : qAsConst(lone))
        alone.append(deviceEntry(*device, selfId, house));
    return QJsonObject{{QStringLiteral("self"), selfId},
                       {QStringLiteral("groups"), groups},
                       {QStringLiteral("alone"), alone},
                       {QStringLiteral("devices"), raw}};
}

QString CtlHouseCommand::text(const QJsonObject& house)
{
    const QString selfId = ::text(house.value(QStringLiteral("self")));
    const QJsonArray groups = house.value(QStringLiteral("groups")).toArray();
    const QJsonArray alone = house.value(QStringLiteral("alone")).toArray();
    QHash<QString, QString> names;
    QList<QJsonObject> withSavedGroup;
    QString self = selfId + QStringLiteral(" (not in the house)");
    const auto note = [&](const QJsonObject& device) {
        names.insert(::text(device.value(QStringLiteral("id"))), ::text(device.value(QStringLiteral("name"))));
        if (device.value(QStringLiteral("savedGroup")).isObject())
            withSavedGroup.append(device);
        if (device.value(QStringLiteral("self")).toBool())
            self = label(device);
    };
    for (const QJsonValue& group : groups) {
        note(group.toObject().value(QStringLiteral("transcoder")).toObject());
        for (const QJsonValue& follower : group.toObject().value(QStringLiteral("followers")).toArray())
            note(follower.toObject());
    }
    for (const QJsonValue& device : alone)
        note(device.toObject());

    QStringList lines{QStringLiteral("House: %1, %2; tarvctl talks to %3")
                          .arg(counted(names.size(), QStringLiteral("device"), QStringLiteral("devices")),
                               counted(groups.size(), QStringLiteral("group"), QStringLiteral("groups")), self)};
    for (const QJsonValue& value : groups) {
        const QJsonObject transcoder = value.toObject().value(QStringLiteral("transcoder")).toObject();
        lines.append(QStringLiteral("Group of ") + label(transcoder));
        lines.append(QStringLiteral("  %1  transcoder%2").arg(label(transcoder), notes(transcoder)));
        for (const QJsonValue& follower : value.toObject().value(QStringLiteral("followers")).toArray()) {
            lines.append(
                QStringLiteral("  %1  follower%2").arg(label(follower.toObject()), notes(follower.toObject())));
        }
    }
    lines.append(alone.isEmpty() ? QStringLiteral("On their own: none") : QStringLiteral("On their own"));
    for (const QJsonValue& value : alone) {
        const QJsonObject device = value.toObject();
        const QString master = ::text(device.value(QStringLiteral("master")));
        const QString id = ::text(device.value(QStringLiteral("id")));
        QString follows;
        if (device.value(QStringLiteral("transcoder")).toBool())
            follows = QStringLiteral("transcoder");
        else if (master.isEmpty())
            follows = QStringLiteral("master unknown");
        else if (master == id)
            follows = QStringLiteral("follows nobody");
        else if (names.contains(master))
            follows = QStringLiteral("follows ") + label(QJsonObject{{QStringLiteral("id"), master},
                                                                     {QStringLiteral("name"), names.value(master)}});
        else
            follows = QStringLiteral("follows %1, not in the house").arg(master);
        lines.append(QStringLiteral("  %1  %2%3").arg(label(device), follows, notes(device)));
    }

    std::sort(withSavedGroup.begin(), withSavedGroup.end(), [](const QJsonObject& a, const QJsonObject& b) {
        const QString aName = ::text(a.value(QStringLiteral("name")));
        const QString bName = ::text(b.value(QStringLiteral("name")));
        const int order = aName.compare(bName, Qt::CaseInsensitive);
        if (order != 0)
            return order < 0;
        return aName != bName ? aName < bName
                              : ::text(a.value(QStringLiteral("id"))) < ::text(b.value(QStringLiteral("id")));
    });
    lines.append(withSavedGroup.isEmpty() ? QStringLiteral("Saved groups: none") : QStringLiteral("Saved groups"));
    for (const QJsonObject& device : qAsConst(withSavedGroup)) {
        const QJsonObject group = device.value(QStringLiteral("savedGroup")).toObject();
        QStringList members;
        for (const QJsonValue& member : group.value(QStringLiteral("members")).toArray()) {
            const QString name = ::text(member.toObject().value(QStringLiteral("name")));
            members.append(name.isEmpty() ? ::text(member.toObject().value(QStringLiteral("id"))) : name);
        }
        const qint64 timestamp = qint64(group.value(QStringLiteral("timestamp")).toDouble());
        const QString when = timestamp > 0
            ? QDateTime::fromMSecsSinceEpoch(timestamp).toLocalTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss"))
            : QStringLiteral("at an unknown time");
        lines.append(QStringLiteral("  %1: \"%2\": %3 (saved %4)")
                         .arg(label(device), ::text(group.value(QStringLiteral("name"))),
                              members.join(QStringLiteral(", ")), when));
    }
    return lines.join(QLatin1Char('\n'));
}
