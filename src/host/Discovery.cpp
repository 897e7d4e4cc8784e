#include "Discovery.h"

#include <limits>

#include <QNetworkDatagram>
#include <QNetworkInterface>

#include "CMListRowsNode.h"
#include "HostValidators.h"
#include "TarvConnect.h"
#include "TarvJson.h"
#include "TarvLog.h"
#include "TarvNetwork.h"
#include "TarvRoles.h"
#include "TarvValue.h"

namespace {

log4cplus::Logger logger()
{
    return TarvLog::logger("Discovery");
}

const char* const malformedKey = "malformed";
const char* const oversizedKey = "oversized";
const char* const noIdKey = "noId";
const char* const droppedKey = "dropped";

bool hasType(const QVariantHash& hash, const QString& key, int type)
{
    return !hash.contains(key) || hash.value(key).userType() == type;
}

// What a well-formed record may hold; anything else marks the sender as
// something other than a host of ours.
QString checkRecordFields(const QVariantHash& record)
{
    for (const QString& key : {TarvSystemMember::Id(), TarvSystemMember::Name(), TarvSystemMember::Host(),
                               TarvSystemMember::IpAddress()}) {
        if (!hasType(record, key, QMetaType::QString))
            return QStringLiteral("\"%1\" is not text").arg(key);
    }
    if (!hasType(record, TarvSystemMember::Transcoder(), QMetaType::Bool))
        return QStringLiteral("\"transcoder\" is not true or false");
    qint64 timestamp = 0;
    if (record.contains(TarvSystemMember::PersistentGroupTimestamp())
        && !HostValidators::toInteger(record.value(TarvSystemMember::PersistentGroupTimestamp()), &timestamp))
        return QStringLiteral("\"persistentGroupTimestamp\" is not a number");
    if (!hasType(record, TarvSystemMember::PersistentGroupMembers(), QMetaType::QVariantList))
        return QStringLiteral("\"persistentGroupMembers\" is not a list");
    if (record.value(TarvSystemMember::PersistentGroupMembers()).toList().size() > HostValidators::MaxGroupMembers)
        return QStringLiteral("\"persistentGroupMembers\" has more than %1 ids").arg(HostValidators::MaxGroupMembers);
    for (const QVariant& member : record.value(TarvSystemMember::PersistentGroupMembers()).toList()) {
        if (member.userType() != QMetaType::QString)
            return QStringLiteral("\"persistentGroupMembers\" holds something other than ids");
    }
    // Ids and names end up in lists, logs and terminals: they must be what a
    // host of ours could have announced. A missing id is counted apart.
    const QString id = record.value(TarvSystemMember::Id()).toString();
    if (!id.isEmpty()) {
        const QString reason = HostValidators::checkDeviceId(id);
        if (!reason.isEmpty())
            return QStringLiteral("\"id\" is not a device id (%1)").arg(reason);
    }
    const QString name = record.value(TarvSystemMember::Name()).toString();
    if (!name.isEmpty()) {
        const QString reason = HostValidators::checkDeviceName(name);
        if (!reason.isEmpty())
            return QStringLiteral("\"name\" is not a device name (%1)").arg(reason);
    }
    return QString();
}

const char* const masterKey = "master";
const char* const savedGroupNameKey = "savedGroupName";
const char* const apiPortKey = "apiPort";

// Reads an announcement's "house". Every field must be there with its type;
// keys of later hosts are ignored, as at the top level. The texts end up in
// lists, logs and terminals like the record's.
QString readHouse(const QVariant& value, Discovery::House* house)
{
    if (value.userType() != QMetaType::QVariantHash)
        return QStringLiteral("\"house\" is not an object");
    const QVariantHash hash = value.toHash();
    for (const char* key : {masterKey, savedGroupNameKey, apiPortKey}) {
        if (!hash.contains(QLatin1String(key)))
            return QStringLiteral("\"house\" has no \"%1\"").arg(QLatin1String(key));
    }
    const QVariant master = hash.value(QLatin1String(masterKey));
    if (master.userType() != QMetaType::QString)
        return QStringLiteral("\"house.master\" is not text");
    if (!master.toString().isEmpty()) {
        const QString reason = HostValidators::checkDeviceId(master.toString());
        if (!reason.isEmpty())
            return QStringLiteral("\"house.master\" is not a device id (%1)").arg(reason);
    }
    const QVariant name = hash.value(QLatin1String(savedGroupNameKey));
    if (name.userType() != QMetaType::QString)
        return QStringLiteral("\"house.savedGroupName\" is not text");
    if (!name.toString().isEmpty()) {
        const QString reason = HostValidators::checkDeviceName(name.toString());
        if (!reason.isEmpty())
            return QStringLiteral("\"house.savedGroupName\" is not a name (%1)").arg(reason);
    }
    qint64 port = -1;
    if (!HostValidators::toInteger(hash.value(QLatin1String(apiPortKey)), &port) || port < 0 || port > 65535)
        return QStringLiteral("\"house.apiPort\" is not a port number (0-65535)");
    house->master = master.toString();
    house->savedGroupName = name.toString();
    house->apiPort = static_cast<quint16>(port);
    return QString();
}

QVariantHash houseToHash(const Discovery::House& house)
{
    return {{QLatin1String(masterKey), house.master},
            {QLatin1String(savedGroupNameKey), house.savedGroupName},
            {QLatin1String(apiPortKey), int(house.apiPort)}};
}

} // namespace

Discovery::Discovery(CMListRowsNode* members, const Options& options, QObject* parent)
    : QObject(parent), m_members(members), m_options(options)
{
    qRegisterMetaType<Discovery::House>();
    for (const char* key : {malformedKey, oversizedKey, noIdKey, droppedKey})
        m_stats.insert(QLatin1String(key), 0);
    m_periodTimer.setInterval(m_options.periodMs);
    // The first timeout ends the loading round; it must not come early.
    m_periodTimer.setTimerType(Qt::PreciseTimer);
    m_expiryTimer.setTimerType(Qt::PreciseTimer);
    m_expiryTimer.setSingleShot(true);
    m_announceTimer.setSingleShot(true);
    m_announceTimer.setInterval(0);
    tarvConnect(&m_periodTimer, &QTimer::timeout, this, &Discovery::on_periodTimer_timeout);
    tarvConnect(&m_expiryTimer, &QTimer::timeout, this, &Discovery::on_expiryTimer_timeout);
    tarvConnect(&m_announceTimer, &QTimer::timeout, this, &Discovery::announce);
    tarvConnect(&m_socket, &QUdpSocket::readyRead, this, &Discovery::on_socket_readyRead);
}

bool Discovery::start(QString* error)
{
    m_clock.start();
    m_started = true;
    m_periodTimer.start();

    const QString where = QStringLiteral("%1:%2").arg(m_options.group.toString()).arg(m_options.port);
    // Bound to the group itself so that only the group's traffic arrives;
    // shared so that several hosts on one machine can listen.
    if (!m_socket.bind(m_options.group, m_options.port,
                       QAbstractSocket::ShareAddress | QAbstractSocket::ReuseAddressHint)) {
        *error = QStringLiteral("cannot bind the discovery socket to %1: %2").arg(where, m_socket.errorString());
        LOG4CPLUS_ERROR(logger(), "Discovery is off: " << *error);
        return false;
    }
    QNetworkInterface iface;
    if (m_options.interfaceAddress != QHostAddress(QHostAddress::AnyIPv4) && !m_options.interfaceAddress.isNull()) {
        for (const QNetworkInterface& candidate : QNetworkInterface::allInterfaces()) {
            for (const QNetworkAddressEntry& entry : candidate.addressEntries()) {
                if (entry.ip() == m_options.interfaceAddress)
                    iface = candidate;
            }
        }
        if (!iface.isValid()) {
            *error = QStringLiteral("no network interface has the address %1").arg(m_options.interfaceAddress.toString());
            LOG4CPLUS_ERROR(logger(), "Discovery is off: " << *error);
            m_socket.close();
            return false;
        }
    }
    const bool joined = iface.isValid() ? m_socket.joinMulticastGroup(m_options.group, iface)
                                        : m_socket.joinMulticastGroup(m_options.group);
    if (!joined) {
        *error = QStringLiteral("cannot join the discovery group %1%2: %3")
                     .arg(where, iface.isValid() ? QStringLiteral(" on ") + iface.name() : QString(),
                          m_socket.errorString());
        LOG4CPLUS_ERROR(logger(), "Discovery is off: " << *error);
        m_socket.close();
        return false;
    }
    if (iface.isValid())
        m_socket.setMulticastInterface(iface);
    // Hosts on the same machine (or the same namespace) must hear each other;
    // announcements never leave the link.
    m_socket.setSocketOption(QAbstractSocket::MulticastLoopbackOption, 1);
    m_socket.setSocketOption(QAbstractSocket::MulticastTtlOption, 1);
    LOG4CPLUS_INFO(logger(), "Discovery on " << where << (iface.isValid() ? " via " + iface.name() : QString())
                                             << " every " << m_options.periodMs << " ms");
    announce();
    return true;
}

void Discovery::stop()
{
    m_started = false;
    m_periodTimer.stop();
    m_expiryTimer.stop();
    m_announceTimer.stop();
    if (m_socket.state() == QAbstractSocket::BoundState)
        m_socket.leaveMulticastGroup(m_options.group);
    m_socket.close();
}

void Discovery::setOwnRecord(const TarvSystemMember& record)
{
    if (record == m_own)
        return;
    m_own = record;
    if (!m_own.id().isEmpty()) {
        TarvRoles row;
        row.setId(m_own.id())
            .setType(TarvRolesType::Unknown)
            .setTitle(m_own.name())
            .setValue(TarvValue().setSystemMember(m_own));
        m_members->rowsSetById(row);
    }
    if (m_started)
        announceSoon();
}

void Discovery::setOwnHouse(const Discovery::House& house)
{
    if (house == m_ownHouse)
        return;
    m_ownHouse = house;
    if (m_started)
        announceSoon();
}

QVariantHash Discovery::stats() const
{
    return m_stats;
}

void Discovery::setAnnouncing(bool announcing)
{
    if (announcing == m_announcing)
        return;
    m_announcing = announcing;
    if (m_announcing && m_started)
        announceSoon();
}

void Discovery::announceSoon()
{
    // One change of a setting often changes the record and the house
    // information one after the other; they go out together, in one
    // announcement, once the change is done.
    m_announceTimer.start();
}

void Discovery::announce()
{
    m_announceTimer.stop();
    if (!m_announcing || m_own.id().isEmpty() || m_socket.state() != QAbstractSocket::BoundState)
        return;
    const QByteArray data = TarvHash(QVariantHash{{TarvValue::SystemMember(), m_own.toVariant()},
                                                  {HouseKey(), houseToHash(m_ownHouse)}})
                                .toJson(false);
    if (data.size() > MaxAnnouncementBytes) {
        LOG4CPLUS_ERROR(logger(), "Own record is " << data.size() << " bytes, more than " << MaxAnnouncementBytes
                                                   << "; not announced");
        return;
    }
    if (m_socket.writeDatagram(data, m_options.group, m_options.port) != data.size())
        LOG4CPLUS_WARN(logger(), "Cannot announce on " << m_options.group.toString() << ":" << m_options.port << ": "
                                                       << m_socket.errorString());
}

void Discovery::on_socket_readyRead()
{
    while (m_socket.hasPendingDatagrams()) {
        const qint64 size = m_socket.pendingDatagramSize();
        QByteArray data(static_cast<int>(qMax<qint64>(size, 0)), Qt::Uninitialized);
        QHostAddress sender;
        const qint64 read = m_socket.readDatagram(data.data(), data.size(), &sender);
        if (read < 0)
            break;
        data.truncate(static_cast<int>(read));
        if (size > MaxAnnouncementBytes) {
            drop(oversizedKey, sender, QStringLiteral("%1 bytes, more than %2").arg(size).arg(MaxAnnouncementBytes));
            continue;
        }
        handleDatagram(data, sender);
    }
}

void Discovery::handleDatagram(const QByteArray& data, const QHostAddress& sender)
{
    TarvError parseError;
    const QVariant parsed = TarvJson::parse(data, parseError, nullptr);
    if (parseError.isError()) {
        drop(malformedKey, sender, QStringLiteral("not JSON (") + parseError.message + QLatin1Char(')'));
        return;
    }
    const QVariantHash root = parsed.toHash();
    const QVariant member = root.value(TarvValue::SystemMember());
    if (parsed.userType() != QMetaType::QVariantHash || member.userType() != QMetaType::QVariantHash) {
        drop(malformedKey, sender, QStringLiteral("not a {\"systemMember\": {...}} object"));
        return;
    }
    const QVariantHash fields = member.toHash();
    const QString fieldError = checkRecordFields(fields);
    if (!fieldError.isEmpty()) {
        drop(malformedKey, sender, fieldError);
        return;
    }
    House house;
    if (root.contains(HouseKey())) {
        const QString houseError = readHouse(root.value(HouseKey()), &house);
        if (!houseError.isEmpty()) {
            drop(malformedKey, sender, houseError);
            return;
        }
    }
    const TarvSystemMember announced(fields);
    if (announced.id().isEmpty()) {
        drop(noIdKey, sender, QStringLiteral("no device id"));
        return;
    }
    ++m_received;
    if (announced.id() == m_own.id())
        return; // our own announcement, heard through the loopback

    // Rebuilt field by field so every row holds the same types.
    TarvSystemMember record;
    record.setId(announced.id())
        .setName(announced.name())
        .setHost(announced.host())
        .setIpAddress(announced.ipAddress().isEmpty() ? tarvQHostAddressToIp(sender) : announced.ipAddress())
        .setTranscoder(announced.transcoder())
        .setPersistentGroupMembers(announced.persistentGroupMembers())
        .setPersistentGroupTimestamp(announced.persistentGroupTimestamp());
    Q_EMIT memberHeard(record, house, sender);
    upsert(record);
}

void Discovery::drop(const char* counter, const QHostAddress& sender, const QString& reason)
{
    m_stats[QLatin1String(counter)] = m_stats.value(QLatin1String(counter)).toLongLong() + 1;
    m_stats[QLatin1String(droppedKey)] = m_stats.value(QLatin1String(droppedKey)).toLongLong() + 1;
    // A flood of junk must not flood the log: one warning per period.
    if (!m_warnedThisPeriod) {
        m_warnedThisPeriod = true;
        LOG4CPLUS_WARN(logger(), "Dropped discovery announcement from " << tarvQHostAddressToIp(sender) << ": "
                                                                        << reason);
    } else {
        LOG4CPLUS_DEBUG(logger(), "Dropped discovery announcement from " << tarvQHostAddressToIp(sender) << ": "
                                                                         << reason);
    }
    Q_EMIT statsChanged(m_stats);
}

void Discovery::upsert(const TarvSystemMember& record)
{
    const bool known = m_lastSeen.contains(record.id());
    const qint64 now = m_clock.elapsed();
    if (m_suspected.remove(record.id()))
        LOG4CPLUS_INFO(logger(), "Member " << record.id() << " heard again after " << now - m_lastSeen.value(record.id())
                                           << " ms of silence");
    m_lastSeen.insert(record.id(), now);
    TarvRoles row;
    row.setId(record.id())
        .setType(TarvRolesType::Unknown)
        .setTitle(record.name())
        .setValue(TarvValue().setSystemMember(record));
    if (!known)
        LOG4CPLUS_INFO(logger(), "Member " << record.id() << " \"" << record.name() << "\" at " << record.host()
                                           << " appeared");
    m_members->rowsSetById(row);
    if (!m_expiryTimer.isActive())
        armExpiry();
}

void Discovery::armExpiry()
{
    if (m_lastSeen.isEmpty()) {
        m_expiryTimer.stop();
        return;
    }
    // The next moment a device becomes suspected or gone.
    qint64 earliest = std::numeric_limits<qint64>::max();
    for (auto it = m_lastSeen.cbegin(); it != m_lastSeen.cend(); ++it)
        earliest = qMin(earliest, it.value() + (m_suspected.contains(it.key()) ? goneAfterMs() : suspectAfterMs()));
    m_expiryTimer.start(static_cast<int>(qMax<qint64>(0, earliest - m_clock.elapsed()) + 1));
}

void Discovery::on_expiryTimer_timeout()
{
    const qint64 now = m_clock.elapsed();
    for (auto it = m_lastSeen.begin(); it != m_lastSeen.end();) {
        const QString id = it.key();
        const qint64 silence = now - it.value();
        if (silence > goneAfterMs()) {
            it = m_lastSeen.erase(it);
            m_suspected.remove(id);
            LOG4CPLUS_INFO(logger(), "Member " << id << " missed " << GoneAfterMissed << " announcements ("
                                               << silence << " ms of silence); removed");
            m_members->rowsRemoveById(id);
            continue;
        }
        if (silence > suspectAfterMs() && !m_suspected.contains(id)) {
            m_suspected.insert(id);
            LOG4CPLUS_INFO(logger(), "Member " << id << " missed " << SuspectAfterMissed
                                               << " announcements; suspected, removed if silent for "
                                               << goneAfterMs() << " ms");
        }
        ++it;
    }
    armExpiry();
}

void Discovery::on_periodTimer_timeout()
{
    m_warnedThisPeriod = false;
    announce();
    if (!m_firstPeriodDone) {
        m_firstPeriodDone = true;
        m_members->setLoading(false);
    }
}
