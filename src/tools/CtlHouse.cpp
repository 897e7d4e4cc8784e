#include "CtlHouse.h"

#include <algorithm>

#include <QJsonArray>

namespace {

QString text(const QJsonValue& value)
{
    return value.isString() ? value.toString() : QString();
}

} // namespace

CtlHouse CtlHouse::fromRows(const QJsonObject& answer)
{
    CtlHouse house;
    for (const QJsonValue& row : answer.value(QStringLiteral("rows")).toArray()) {
        const QJsonObject rowObject = row.toObject();
        const QJsonObject member =
            rowObject.value(QStringLiteral("value")).toObject().value(QStringLiteral("houseMember")).toObject();
        Device device;
        device.raw = member;
        device.id = text(member.value(QStringLiteral("id")));
        if (device.id.isEmpty())
            device.id = text(rowObject.value(QStringLiteral("id")));
        device.name = text(member.value(QStringLiteral("name")));
        device.host = text(member.value(QStringLiteral("host")));
        device.ipAddress = text(member.value(QStringLiteral("ipAddress")));
        device.transcoder = member.value(QStringLiteral("transcoder")).toBool();
        device.master = text(member.value(QStringLiteral("master")));
        const QJsonValue saved = member.value(QStringLiteral("savedGroup"));
        if (saved.isObject()) {
            const QJsonObject group = saved.toObject();
            for (const QJsonValue& id : group.value(QStringLiteral("members")).toArray()) {
                if (!text(id).isEmpty())
                    device.savedGroup.members.append(text(id));
            }
            device.savedGroup.name = text(group.value(QStringLiteral("name")));
            device.savedGroup.timestamp = qint64(group.value(QStringLiteral("timestamp")).toDouble());
            // A cleared group is no group: the module keeps only its time.
            device.hasSavedGroup = !device.savedGroup.members.isEmpty();
        }
        const QJsonValue api = member.value(QStringLiteral("api"));
        if (api.isObject()) {
            device.reachable = true;
            device.apiAddress = text(api.toObject().value(QStringLiteral("address")));
            device.apiPort = api.toObject().value(QStringLiteral("port")).toInt();
        }
        if (!device.id.isEmpty())
            house.m_devices.append(device);
    }
    return house;
}

const CtlHouse::Device* CtlHouse::byId(const QString& id) const
{
    for (const Device& device : m_devices) {
        if (device.id == id)
            return &device;
    }
    return nullptr;
}

QString CtlHouse::nameOf(const QString& id) const
{
    const Device* device = byId(id);
    return device && !device->name.isEmpty() ? device->name : id;
}

CtlHouse::Match CtlHouse::find(const QString& nameOrId, QString* id, QStringList* candidates) const
{
    candidates->clear();
    if (byId(nameOrId)) {
        *id = nameOrId;
        return Found;
    }
    QStringList names;
    for (const Device& device : m_devices) {
        if (device.name.compare(nameOrId, Qt::CaseInsensitive) == 0)
            candidates->append(device.id);
        names.append(device.name.isEmpty() ? device.id : device.name);
    }
    if (candidates->size() == 1) {
        *id = candidates->first();
        candidates->clear();
        return Found;
    }
    if (candidates->size() > 1) {
        candidates->sort();
        return Ambiguous;
    }
    std::sort(names.begin(), names.end(), [](const QString& a, const QString& b) {
        const int order = a.compare(b, Qt::CaseInsensitive);
        return order != 0 ? order < 0 : a < b;
    });
    *candidates = names;
    return Unknown;
}
