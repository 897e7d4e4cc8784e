#pragma once

#include <QHash>
#include <QHostAddress>
#include <QObject>
#include <QString>

#include "Discovery.h"
#include "TarvRoles.h"
#include "TarvSystemMember.h"

class CMListRowsNode;

// Keeps the house list: one row per device of the members list, this device
// included, keyed by device id: id = device id, type 0, title = name, value
//   {"houseMember": {"id", "name", "host", "ipAddress", "transcoder",
//     "master", "savedGroup": {"name", "members", "timestamp"},
//     "api": {"address", "port"} | null}}.
// Another device's row is built from its members row and what discovery
// heard with it (memberHeard): its api address is the announcement's
// source, never anything from the payload; api is null while it announces
// port 0. It leaves together with its members row, and the list loads while
// the members list does. The own row comes from setOwn() only. A row is
// written only when its content changes.
class HouseList : public QObject
{
    Q_OBJECT

public:
    static QString HouseMember() { return QStringLiteral("houseMember"); }

    HouseList(CMListRowsNode* house, CMListRowsNode* members, const QString& ownId, QObject* parent = nullptr);

    // The own row; an empty `apiAddress` (or port 0) is api null.
    void setOwn(const TarvSystemMember& record, const Discovery::House& house, const QString& apiAddress);
    // What discovery heard from another device (Discovery::memberHeard).
    void setMemberHouse(const TarvSystemMember& record, const Discovery::House& house, const QHostAddress& source);

    // The row for a device; an empty `apiAddress` or port 0 is api null.
    static TarvRoles makeRow(const TarvSystemMember& record, const Discovery::House& house,
                             const QString& apiAddress);

private:
    struct Heard
    {
        Discovery::House house;
        QString apiAddress;
    };

    void write(const TarvSystemMember& record, const Heard& heard);
    void on_members_rowChanged(const TarvRoles& newRow, const TarvRoles& oldRow);
    void on_members_loadingChanged(bool loading);

    CMListRowsNode* m_house;
    CMListRowsNode* m_members;
    QString m_ownId;
    // Other devices: what their last announcement said besides the record.
    QHash<QString, Heard> m_heard;
};
