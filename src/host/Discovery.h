#pragma once

#include <QElapsedTimer>
#include <QHash>
#include <QHostAddress>
#include <QObject>
#include <QTimer>
#include <QUdpSocket>
#include <QVariantHash>

#include "TarvSystemMember.h"

class CMListRowsNode;

// Finds the devices on the LAN. Every period, and at once whenever the own
// record changes, it announces the record on a multicast group as the JSON
// {"systemMember": {...}}; it keeps one row per device id in the members
// list (itself included): id = device id, title = name, type 0
// (TarvRolesType::Unknown), value = {"systemMember": record}. A row is
// updated when its record changes and removed once its device has been
// silent for three periods. The list stops loading after the first full
// period. Announcements that are oversized, malformed or carry no id are
// dropped and counted.
class Discovery : public QObject
{
    Q_OBJECT

public:
    static constexpr int MaxAnnouncementBytes = 8 * 1024;
    static constexpr int MissedPeriods = 3;

    struct Options
    {
        QHostAddress group;
        quint16 port = 0;
        // The interface with this address carries the group; AnyIPv4 leaves
        // the choice to the system.
        QHostAddress interfaceAddress;
        int periodMs = 1000;
    };

    Discovery(CMListRowsNode* members, const Options& options, QObject* parent = nullptr);

    // Binds and joins the group, announces at once and then every period.
    // False (and logged) when the socket cannot be set up; the list then
    // holds only this device, and still stops loading after one period.
    bool start(QString* error);
    // Stops announcing and listening; rows stay as they are.
    void stop();

    void setOwnRecord(const TarvSystemMember& record);
    // While off, nothing is announced (the device still listens and keeps
    // its own row); turning it on announces at once. On by default.
    void setAnnouncing(bool announcing);
    bool isAnnouncing() const { return m_announcing; }
    // Dropped announcements: {"malformed", "oversized", "noId", "dropped"}.
    // Changes only when one is dropped, so that publishing it costs nothing
    // while the LAN is healthy.
    QVariantHash stats() const;
    // Well-formed announcements heard, own ones included.
    qint64 receivedCount() const { return m_received; }

    // One announcement as if it had just arrived from `sender`: what the
    // socket's reader does with each (the fuzzer feeds it directly).
    void handleDatagram(const QByteArray& data, const QHostAddress& sender);

Q_SIGNALS:
    void statsChanged(const QVariantHash& stats);

private:
    void announce();
    void drop(const char* counter, const QHostAddress& sender, const QString& reason);
    void upsert(const TarvSystemMember& record);
    void armExpiry();
    void on_socket_readyRead();
    void on_periodTimer_timeout();
    void on_expiryTimer_timeout();

    CMListRowsNode* m_members;
    Options m_options;
    QUdpSocket m_socket;
    QTimer m_periodTimer;
    QTimer m_expiryTimer;
    QElapsedTimer m_clock;
    TarvSystemMember m_own;
    bool m_announcing = true;
    // When each other device was last heard, on m_clock.
    QHash<QString, qint64> m_lastSeen;
    QVariantHash m_stats;
    qint64 m_received = 0;
    bool m_started = false;
    bool m_firstPeriodDone = false;
    bool m_warnedThisPeriod = false;
};
