#pragma once

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

// The devices of a host's /system/house list as tarvctl reads them
// (GET /api/v1/rows?path=/system/house): who each device follows, its saved
// group and whether other devices can reach its control API. Rows of the
// wrong shape are kept with what could be read; nothing in them can make
// the parse fail.
class CtlHouse
{
public:
    struct SavedGroup
    {
        QString name;
        QStringList members; // device ids, in the saved order
        qint64 timestamp = 0; // ms since 1970; 0 unknown
    };
    struct Device
    {
        QString id;
        QString name;
        QString host;
        QString ipAddress;
        bool transcoder = false;
        QString master; // the id it follows; its own for a transcoder; empty unknown
        bool hasSavedGroup = false;
        SavedGroup savedGroup;
        bool reachable = false; // "api" is not null
        QString apiAddress;
        int apiPort = 0;
        QJsonObject raw; // the row's houseMember record as the host sent it
    };
    enum Match { Found, Unknown, Ambiguous };

    // The host's list of the house.
    static QString path() { return QStringLiteral("/system/house"); }

    // From the answer of GET /api/v1/rows?path=/system/house.
    static CtlHouse fromRows(const QJsonObject& answer);

    const QList<Device>& devices() const { return m_devices; }
    // The device with this id, or nullptr.
    const Device* byId(const QString& id) const;
    // A device's name, or its id when it has none or is not in the house.
    QString nameOf(const QString& id) const;

    // Finds a device by its exact id, else by its name ignoring case.
    // Found: `id` is set. Unknown: `candidates` are every known name.
    // Ambiguous: `candidates` are the ids of the devices with that name.
    // Both lists are sorted.
    Match find(const QString& nameOrId, QString* id, QStringList* candidates) const;

private:
    QList<Device> m_devices;
};
