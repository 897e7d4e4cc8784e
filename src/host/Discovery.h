#pragma once

#include <QElapsedTimer>
#include <QHash>
#include <QHostAddress>
#include <QObject>
#include <QSet>
#include <QTimer>
#include <QUdpSocket>
#include <QVariantHash>

#include "TarvSystemMember.h"

class CMListRowsNode;

// Finds the devices on the LAN. Every period, and at once whenever the own
// record or house information changes, it announces them on a multicast
// group as the JSON {"systemMember": {...}, "house": {"master",
// "savedGroupName", "apiPort"}}; it keeps one row per device id in the members
// list (itself included): id = device id, title = name, type 0
// (TarvRolesType::Unknown), value = {"systemMember": record}. A row is
// updated when its record changes. A device that misses announcements is
// first only suspected (logged); its row is removed once it has missed
// GoneAfterMissed in a row, so that a lossy network does not lose a live
// device while one that is really gone still disappears within a bounded
// time (goneAfterMs()). The list stops loading after the first full
// period. Announcements that are oversized, malformed or carry no id are
// dropped and counted. Announcements without "house" (older hosts) are
// taken with an empty House; other unknown top-level keys are ignored so
// that later hosts may add some; a "house" of the wrong shape is malformed.
class Discovery : public QObject
{
    Q_OBJECT

public:
    static constexpr int MaxAnnouncementBytes = 8 * 1024;
    // Announcements missed in a row before a device is suspected and before
    // it is removed. Each count has a margin of half a period for late
    // timers and the network. At 5 % loss eight losses in a row happen once
    // in 2.6e10 periods; a device that really went silent is removed 7.5 to
    // 8.5 periods after its last announcement.
    static constexpr int SuspectAfterMissed = 2;
    static constexpr int GoneAfterMissed = 8;

    // What a device announces besides its record, for the house view.
    struct House
    {
        // The device id it follows (its own on a transcoder); "" unknown.
        QString master;
        // Its saved group's name; "" none.
        QString savedGroupName;
        // Its control API's port for other devices; 0: not reachable.
        quint16 apiPort = 0;

        bool operator==(const House& other) const
        {
            return master == other.master && savedGroupName == other.savedGroupName && apiPort == other.apiPort;
        }
        bool operator!=(const House& other) const { return !(*this == other); }
    };
    static QString HouseKey() { return QStringLiteral("house"); }

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
    // Announced at once when it changes (and announcing is on).
    void setOwnHouse(const Discovery::House& house);
    House ownHouse() const { return m_ownHouse; }
    // While off, nothing is announced (the device still listens and keeps
    // its own row); turning it on announces at once. On by default.
    // "At once" is when control returns to the event loop, so that changes
    // made together go out in one announcement.
    void setAnnouncing(bool announcing);
    bool isAnnouncing() const { return m_announcing; }
    // Dropped announcements: {"malformed", "oversized", "noId", "dropped"}.
    // Changes only when one is dropped, so that publishing it costs nothing
    // while the LAN is healthy.
    QVariantHash stats() const;
    // Silence after which a device is suspected, and removed.
    static constexpr int silenceLimitMs(int missed, int periodMs) { return missed * periodMs + periodMs / 2; }
    int suspectAfterMs() const { return silenceLimitMs(SuspectAfterMissed, m_options.periodMs); }
    int goneAfterMs() const { return silenceLimitMs(GoneAfterMissed, m_options.periodMs); }
    // Well-formed announcements heard, own ones included.
    qint64 receivedCount() const { return m_received; }

    // One announcement as if it had just arrived from `sender`: what the
    // socket's reader does with each (the fuzzer feeds it directly).
    void handleDatagram(const QByteArray& data, const QHostAddress& sender);

Q_SIGNALS:
    void statsChanged(const QVariantHash& stats);
    // Another device's well-formed announcement, just before its members
    // row is written. `source` is the datagram's sender: the only address
    // this device's control API is ever reached at.
    void memberHeard(const TarvSystemMember& record, const Discovery::House& house, const QHostAddress& source);

private:
    void announce();
    // Announces once control returns to the event loop.
    void announceSoon();
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
    QTimer m_announceTimer;
    QElapsedTimer m_clock;
    TarvSystemMember m_own;
    House m_ownHouse;
    bool m_announcing = true;
    // When each other device was last heard, on m_clock.
    QHash<QString, qint64> m_lastSeen;
    // Devices that missed SuspectAfterMissed announcements and were not
    // heard since.
    QSet<QString> m_suspected;
    QVariantHash m_stats;
    qint64 m_received = 0;
    bool m_started = false;
    bool m_firstPeriodDone = false;
    bool m_warnedThisPeriod = false;
};

Q_DECLARE_METATYPE(Discovery::House)
