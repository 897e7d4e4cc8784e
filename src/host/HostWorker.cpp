#include "HostWorker.h"

#include "CMRowsClone.h"
#include "HostConfig.h"
#include "HostSettingsStore.h"
#include "HouseList.h"
#include "HostValidators.h"
#include "TarvConnect.h"
#include "TarvLog.h"
#include "TarvNetwork.h"
#include "TarvPaths.h"
#include "TarvPlayLogicData.h"
#include "TarvValue.h"

namespace {

log4cplus::Logger logger()
{
    return TarvLog::logger("HostWorker");
}

QVariant i32Value(int ms)
{
    return TarvValue().setI32_(ms).toVariant();
}

QVariant stringValue(const QString& text)
{
    return TarvValue().setString_(text).toVariant();
}

} // namespace

HostWorker::HostWorker(const HostConfig& config, const QString& id, const QVariantHash& persisted,
                       HostSettingsStore* store, QObject* parent)
    : CMNodesWorker(QVariantHash(), QStringLiteral("HostWorker")),
      m_id(id),
      m_host(config.hostName()),
      m_ipAddress(config.announcedIpAddress()),
      m_store(store)
{
    setParent(parent);
    m_retryTimer.setSingleShot(true);
    m_retryTimer.setInterval(SaveRetryMs);
    tarvConnect(&m_retryTimer, &QTimer::timeout, this, &HostWorker::on_retryTimer_timeout);

    m_members = CMListRowsNode::create(nodes(), TarvSystemMembersPath());
    m_members->setTitle(TrString("SystemMembers"));
    // Filled by discovery; stays loading until its first full period.
    m_members->setLoading(true);
    m_house = CMListRowsNode::create(nodes(), housePath());
    m_house->setTitle(TrString("House"));
    m_houseList = new HouseList(m_house, m_members, m_id, this);
    m_groupingMembers = new CMRowsClone(this, TarvGroupingMembersPath(), -1);
    tarvConnect(m_groupingMembers, &CMRowsClone::itemChanged, this, &HostWorker::on_groupingMembers_itemChanged);

    // A setting named on the command line wins over the persisted one; a
    // persisted one wins over the config file and the defaults.
    auto initial = [&](const QString& key, const CMPath& path, const QVariant& configured) {
        if (config.origin(key) != HostConfig::Origin::CommandLine && persisted.contains(path.toString()))
            return persisted.value(path.toString());
        return configured;
    };
    define(TarvSystemMemberIdPath(), stringValue(m_id));
    define(TarvDeviceStatePath(), QVariantHash());
    define(TarvRequestStreamingTimeoutPath(),
           initial(QStringLiteral("resend-ms"), TarvRequestStreamingTimeoutPath(), i32Value(config.resendMs())));
    define(TarvStopStreamingTimeoutPath(),
           initial(QStringLiteral("timeout-ms"), TarvStopStreamingTimeoutPath(), i32Value(config.timeoutMs())));
    define(TarvGroupingPersistentGroupSettingsPath(),
           initial(QString(), TarvGroupingPersistentGroupSettingsPath(),
                   TarvValue().setGroupingPersistentGroup(TarvGroupingPersistentGroup()).toVariant()));
    define(TarvDeviceNameSettingsPath(),
           initial(QStringLiteral("name"), TarvDeviceNameSettingsPath(), stringValue(config.name())));
    define(TarvPlayerDataPath(), TarvPlayLogicData().setState(0).toVariant());
    define(discoveryStatsPath(), QVariantHash());
    updateRecord();
    updateHouse();

    for (const CMPath& path : {TarvDeviceStatePath(), TarvDeviceNameSettingsPath(), TarvGroupingPersistentGroupSettingsPath()})
        CMRoot()->connectValueChange(path, this, &HostWorker::on_root_recordSourceChanged);
    for (const CMPath& path : persistedPaths())
        CMRoot()->connectValueChange(path, this, &HostWorker::on_root_settingChanged);

    LOG4CPLUS_INFO(logger(), "Device " << m_id << " \"" << m_record.name() << "\" host " << m_host << " address "
                                       << m_ipAddress);
}

HostWorker::~HostWorker()
{
    for (const CMPath& path : qAsConst(m_defined))
        CMRoot()->undefineValue(path);
}

CMPath HostWorker::discoveryStatsPath()
{
    return CMPath("/system/discovery/stats");
}

CMPath HostWorker::housePath()
{
    return CMPath("/system/house");
}

QList<CMPath> HostWorker::persistedPaths()
{
    return {TarvDeviceNameSettingsPath(), TarvRequestStreamingTimeoutPath(), TarvStopStreamingTimeoutPath(),
            TarvGroupingPersistentGroupSettingsPath()};
}

QString HostWorker::checkPersisted(const CMPath& path, const QVariant& value)
{
    if (!persistedPaths().contains(path))
        return QStringLiteral("%1 is not a persisted setting").arg(path.toString());
    return validatorFor(path)(value);
}

CMRootWorker::Validator HostWorker::validatorFor(const CMPath& path)
{
    if (path == TarvSystemMemberPath())
        return HostValidators::readOnly(path, QStringLiteral("this device's record follows /system/deviceState, "
                                                             "/settings/device/name and "
                                                             "/settings/grouping/persistentGroup"));
    if (path == TarvSystemMemberIdPath())
        return HostValidators::readOnly(path, QStringLiteral("the device id is set when the host starts (--id)"));
    if (path == discoveryStatsPath())
        return HostValidators::readOnly(path, QStringLiteral("discovery keeps these counters"));
    if (path == TarvDeviceStatePath())
        return HostValidators::deviceState(path);
    if (path == TarvRequestStreamingTimeoutPath() || path == TarvStopStreamingTimeoutPath())
        return HostValidators::milliseconds(path);
    if (path == TarvGroupingPersistentGroupSettingsPath())
        return HostValidators::persistentGroup(path);
    if (path == TarvDeviceNameSettingsPath())
        return HostValidators::deviceName(path);
    if (path == TarvPlayerDataPath())
        return HostValidators::playerData(path);
    return CMRootWorker::Validator();
}

void HostWorker::define(const CMPath& path, const QVariant& value)
{
    CMRoot()->defineValue(path, value, validatorFor(path));
    if (!m_defined.contains(path))
        m_defined.append(path);
}

void HostWorker::publish(const CMPath& path, const QVariant& value)
{
    // Read-only values refuse every write, so the host redefines them.
    if (CMRoot()->hasValue(path) && CMRoot()->getValue(path) == value)
        return;
    define(path, value);
}

void HostWorker::updateRecord()
{
    const TarvValue state(CMRoot()->getValue(TarvDeviceStatePath()).toHash());
    const TarvValue name(CMRoot()->getValue(TarvDeviceNameSettingsPath()).toHash());
    const TarvGroupingPersistentGroup group =
        TarvValue(CMRoot()->getValue(TarvGroupingPersistentGroupSettingsPath()).toHash()).groupingPersistentGroup();

    TarvSystemMember record;
    record.setId(m_id)
        .setName(name.string_())
        .setHost(m_host)
        .setIpAddress(m_ipAddress)
        .setTranscoder(state.systemMemberTranscoderState().type() == TarvTranscoderState::Transcoder)
        .setPersistentGroupMembers(group.members())
        .setPersistentGroupTimestamp(group.timestamp());
    if (record == m_record)
        return;
    m_record = record;
    publish(TarvSystemMemberPath(), TarvValue().setSystemMember(m_record).toVariant());
    LOG4CPLUS_DEBUG(logger(), "Own record " << m_record);
    Q_EMIT recordChanged(m_record);
}

void HostWorker::on_root_recordSourceChanged(const CMPath& path, const QVariant& value)
{
    Q_UNUSED(path);
    Q_UNUSED(value);
    updateRecord();
    updateHouse();
}

void HostWorker::on_groupingMembers_itemChanged(const TarvRoles& newRow, const TarvRoles& oldRow)
{
    if (newRow.id() == m_id || oldRow.id() == m_id)
        updateHouse();
}

void HostWorker::setApiListening(const QHostAddress& address, quint16 port)
{
    const bool any = address == QHostAddress(QHostAddress::Any) || address == QHostAddress(QHostAddress::AnyIPv4)
        || address == QHostAddress(QHostAddress::AnyIPv6);
    // Loopback is this machine only; no other device gets there. An API on
    // every address is reached where the device is announced to be (hosts
    // sharing one loopback reach each other at 127.0.0.1).
    const QString reached = any ? m_ipAddress : tarvQHostAddressToIp(address);
    const bool reachable = port != 0 && !address.isNull() && !address.isLoopback() && !reached.isEmpty();
    m_apiAddress = reachable ? reached : QString();
    m_apiPort = reachable ? port : 0;
    LOG4CPLUS_INFO(logger(), "Control API " << (reachable ? QStringLiteral("reachable from other devices at ")
                                                                + m_apiAddress + QLatin1Char(':') + QString::number(port)
                                                          : QStringLiteral("not reachable from other devices")));
    updateHouse();
}

void HostWorker::updateHouse()
{
    Discovery::House house;
    const TarvRoles own = m_groupingMembers->rowById(m_id);
    house.master = own.value().groupingMember().master().id();
    // Others drop an announcement with a name they could not show; such a
    // name (the setting takes any text) is not announced at all.
    const QString groupName =
        TarvValue(CMRoot()->getValue(TarvGroupingPersistentGroupSettingsPath()).toHash()).groupingPersistentGroup().name();
    const QString unfit = groupName.isEmpty() ? QString() : HostValidators::checkDeviceName(groupName);
    if (unfit.isEmpty()) {
        house.savedGroupName = groupName;
        m_unfitGroupName.clear();
    } else if (groupName != m_unfitGroupName) {
        m_unfitGroupName = groupName;
        LOG4CPLUS_WARN(logger(), "The saved group's name " << HostValidators::describe(groupName)
                                                           << " is not announced: " << unfit);
    }
    house.apiPort = m_apiPort;
    m_houseList->setOwn(m_record, house, m_apiAddress);
    if (house == m_ownHouse)
        return;
    m_ownHouse = house;
    LOG4CPLUS_DEBUG(logger(), "Own house: master \"" << house.master << "\" saved group \"" << house.savedGroupName
                                                     << "\" API port " << house.apiPort);
    Q_EMIT ownHouseChanged(m_ownHouse);
}

void HostWorker::on_root_settingChanged(const CMPath& path, const QVariant& value)
{
    LOG4CPLUS_INFO(logger(), "Setting " << path << " = " << HostValidators::describe(value));
    saveSettings();
}

bool HostWorker::saveSettings()
{
    if (!m_store)
        return true;
    QVariantHash values;
    for (const CMPath& path : persistedPaths())
        values.insert(path.toString(), CMRoot()->getValue(path));
    QString error;
    if (!m_store->save(values, &error)) {
        m_unsaved = true;
        LOG4CPLUS_ERROR(logger(), "Cannot save settings: " << error << "; they are kept in memory and saving is retried in "
                                                           << m_retryTimer.interval() << " ms");
        m_retryTimer.start();
        return false;
    }
    if (m_unsaved)
        LOG4CPLUS_INFO(logger(), "Settings saved to " << m_store->settingsFile() << " after an earlier failure");
    m_unsaved = false;
    m_retryTimer.stop();
    return true;
}

void HostWorker::on_retryTimer_timeout()
{
    if (m_unsaved)
        saveSettings();
}

void HostWorker::setDiscoveryStats(const QVariantHash& stats)
{
    publish(discoveryStatsPath(), stats);
}
