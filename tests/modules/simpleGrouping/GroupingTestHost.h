#pragma once

#include <QByteArray>
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QHostAddress>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QUdpSocket>
#include <QtTest>

#include <model/cmrequest>
#include <model/cmrowsclone>
#include <tarv>

#include "ChildProcess.h"
#include "ModuleTestSupport.h"

// What a device's host holds for the module, set up per test: the own
// record and id, the device state (empty until the module writes it), the
// two streaming time settings, the saved group (none), the player's data
// (state 0) and the system-members list in a registry of the host's own.
// Everything goes away with the object (values are cleared).
class GroupingTestHost
{
public:
    GroupingTestHost(const TarvSystemMember& self, int stopTimeoutMs, int requestTimeoutMs)
        : m_nodes(new CMNodes)
    {
        CMRoot()->defineValue(TarvSystemMemberPath(), TarvValue().setSystemMember(self).toVariant());
        CMRoot()->defineValue(TarvSystemMemberIdPath(), TarvValue().setString_(self.id()).toVariant());
        CMRoot()->defineValue(TarvGroupingPersistentGroupSettingsPath(),
                              TarvValue().setGroupingPersistentGroup(TarvGroupingPersistentGroup()).toVariant());
        CMRoot()->defineValue(TarvPlayerDataPath(), TarvPlayLogicData().setState(0).toVariant());
        CMRoot()->defineValue(TarvDeviceStatePath(), TarvValue().toVariant());
        CMRoot()->defineValue(TarvStopStreamingTimeoutPath(), TarvValue().setI32_(stopTimeoutMs).toVariant());
        CMRoot()->defineValue(TarvRequestStreamingTimeoutPath(), TarvValue().setI32_(requestTimeoutMs).toVariant());
        m_systemMembers = CMListRowsNode::create(m_nodes, TarvSystemMembersPath());
    }
    ~GroupingTestHost()
    {
        delete m_nodes;
        CMRoot()->clearValues();
    }
    GroupingTestHost(const GroupingTestHost&) = delete;
    GroupingTestHost& operator=(const GroupingTestHost&) = delete;

    CMListRowsNode* systemMembers() const { return m_systemMembers; }

    // Adds or replaces the system-members row of `member`.
    void setSystemMember(const TarvSystemMember& member) { m_systemMembers->rowsSetById(row(member)); }
    void removeSystemMember(const QString& id) { m_systemMembers->rowsRemoveById(id); }

    static TarvRoles row(const TarvSystemMember& member)
    {
        TarvRoles roles;
        roles.setId(member.id()).setType(TarvRolesType::Unknown).setTitle(TrString(member.name()));
        roles.setValue(TarvValue().setSystemMember(member));
        return roles;
    }

    static void setOwnRecord(const TarvSystemMember& self)
    {
        CMRoot()->setValue(TarvSystemMemberPath(), TarvValue().setSystemMember(self), CMReply<QVariant>());
    }
    static void setDeviceState(const QString& id, TarvTranscoderState::Enum state)
    {
        TarvSystemMemberTranscoderState record;
        record.setId(id).setType(state);
        CMRoot()->setValue(TarvDeviceStatePath(), TarvValue().setSystemMemberTranscoderState(record),
                           CMReply<QVariant>());
    }
    static TarvSystemMemberTranscoderState deviceState()
    {
        return TarvValue(CMRoot()->getValue(TarvDeviceStatePath()).toHash()).systemMemberTranscoderState();
    }

private:
    CMNodes* m_nodes;
    CMListRowsNode* m_systemMembers;
};

inline TarvSystemMember makeMember(const QString& id, const QString& name, const QString& host = QString(),
                                   const QString& ipAddress = QString(), bool transcoder = true)
{
    TarvSystemMember member;
    member.setId(id).setName(name).setHost(host).setIpAddress(ipAddress).setTranscoder(transcoder);
    return member;
}

// A grouping-request record: `command`, and `master` when `withMaster`.
inline TarvGroupingRequest groupingRequestRecord(int command, const TarvSystemMember& master = TarvSystemMember(),
                                                 bool withMaster = false)
{
    // The command as a plain number, as a client sends it: commands outside
    // the enum's values are part of what the tests send.
    TarvGroupingRequest request(QVariantHash{{TarvGroupingRequest::Command(), command}});
    if (withMaster)
        request.setMaster(master);
    return request;
}

// A grouping request as the module's own writers send it: a value union
// holding the record ({"groupingRequest": {...}}).
inline TarvHash groupingRequest(int command, const TarvSystemMember& master = TarvSystemMember(),
                                bool withMaster = false)
{
    return TarvValue().setGroupingRequest(groupingRequestRecord(command, master, withMaster));
}

inline TarvRoles membersRow(const QString& id)
{
    auto* node = qobject_cast<CMListRowsNode*>(CMRoot()->findNode(TarvGroupingMembersPath()));
    return node ? node->rowsGetById(id) : TarvRoles();
}

inline CMListRowsNode* membersNode()
{
    return qobject_cast<CMListRowsNode*>(CMRoot()->findNode(TarvGroupingMembersPath()));
}

// Waits (bounded) for the next datagram on `socket` and returns its payload;
// empty when none came.
inline QByteArray nextDatagram(QUdpSocket& socket, int timeoutMs = 2000)
{
    if (!socket.hasPendingDatagrams() && !QTest::qWaitFor([&] { return socket.hasPendingDatagrams(); }, timeoutMs))
        return QByteArray();
    QByteArray payload(static_cast<int>(socket.pendingDatagramSize()), '\0');
    socket.readDatagram(payload.data(), payload.size());
    return payload;
}

// Reads datagrams until one starts with `prefix`, passing over repeats of
// `repeated` (a sender's periodic "add") for at most `timeoutMs` in all;
// anything else is returned as it is, and nothing (empty) when time is up.
inline QByteArray nextDatagramStartingWith(QUdpSocket& socket, const QByteArray& prefix, const QByteArray& repeated,
                                           int timeoutMs = 2000)
{
    const QDeadlineTimer deadline(timeoutMs);
    while (!deadline.hasExpired()) {
        const QByteArray payload = nextDatagram(socket, static_cast<int>(deadline.remainingTime()));
        if (payload.isEmpty() || payload.startsWith(prefix) || payload != repeated)
            return payload;
    }
    return QByteArray();
}

// Sends one receiver-link datagram to the module's listener on this machine.
inline void sendToListener(const QByteArray& payload)
{
    QUdpSocket sender;
    sender.writeDatagram(payload, QHostAddress::LocalHost, TarvRequestPort());
}

