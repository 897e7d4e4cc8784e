#include "HostDaemon.h"

#include <QEventLoop>
#include <QHostInfo>
#include <QTimer>
#include <QUdpSocket>

#include "AnnouncementGate.h"
#include "CMRootWorker.h"
#include "ControlApi.h"
#include "Discovery.h"
#include "HostWorker.h"
#include "HouseList.h"
#include "TarvConnect.h"
#include "TarvLog.h"
#include "TarvPaths.h"

namespace {

log4cplus::Logger logger()
{
    return TarvLog::logger("HostDaemon");
}

} // namespace

HostDaemon::HostDaemon(const HostConfig& config, QObject* parent)
    : QObject(parent), m_config(config), m_store(config.dataDir())
{
}

HostDaemon::~HostDaemon()
{
    stop();
}

bool HostDaemon::start(QString* error)
{
    if (!m_store.open(error))
        return false;
    LOG4CPLUS_INFO(logger(), "Data directory " << m_store.dataDir());

    QString id = m_config.id();
    if (id.isEmpty()) {
        id = m_store.loadOrCreateId(error);
        if (id.isEmpty())
            return false;
    }

    QVariantHash persisted;
    QString report;
    if (m_store.load(&HostWorker::checkPersisted, &persisted, &report) == HostSettingsStore::LoadResult::Failed) {
        *error = report;
        return false;
    }

    // Never deleted: the modules' objects watch its nodes until the process
    // ends (see stop()).
    m_worker = new HostWorker(m_config, id, persisted, &m_store);

    TarvSetRequestPort(m_config.requestPort());
    if (!checkRequestPort(m_config.requestPort(), error))
        return false;
    for (const QString& module : m_config.modules()) {
        if (!m_modules.load(module, m_config.moduleSettings(), CMRoot(), error))
            return false;
    }
    if (!m_config.modules().isEmpty())
        runModuleStartUp();

    Discovery::Options discoveryOptions;
    discoveryOptions.group = m_config.discoveryGroup();
    discoveryOptions.port = m_config.discoveryPort();
    discoveryOptions.interfaceAddress = m_config.address();
    discoveryOptions.periodMs = m_config.discoveryMs();
    m_discovery = new Discovery(m_worker->membersNode(), discoveryOptions, this);
    tarvConnect(m_worker, &HostWorker::recordChanged, m_discovery, &Discovery::setOwnRecord);
    tarvConnect(m_discovery, &Discovery::statsChanged, m_worker, &HostWorker::setDiscoveryStats);
    tarvConnect(m_worker, &HostWorker::ownHouseChanged, m_discovery, &Discovery::setOwnHouse);
    tarvConnect(m_discovery, &Discovery::memberHeard, m_worker->houseList(), &HouseList::setMemberHouse);
    m_discovery->setOwnRecord(m_worker->record());
    m_discovery->setOwnHouse(m_worker->ownHouse());
    m_worker->setDiscoveryStats(m_discovery->stats());
    AnnouncementGate::Options gateOptions;
    gateOptions.modulesLoaded = !m_config.modules().isEmpty();
    m_announcementGate = new AnnouncementGate(gateOptions, this);
    tarvConnect(m_announcementGate, &AnnouncementGate::opened, m_discovery,
                [this] { m_discovery->setAnnouncing(true); });
    m_discovery->setAnnouncing(false);
    QString discoveryError;
    m_discovery->start(&discoveryError);
    m_announcementGate->start();

    ControlApi::Options apiOptions;
    apiOptions.address = m_config.apiAddress();
    apiOptions.port = m_config.apiPort();
    apiOptions.allowedHosts << m_config.hostName() << QHostInfo::localHostName();
    if (!QHostInfo::localDomainName().isEmpty())
        apiOptions.allowedHosts << QHostInfo::localHostName() + QLatin1Char('.') + QHostInfo::localDomainName();
    apiOptions.version = QStringLiteral(TARV_HOST_VERSION);
    apiOptions.deviceId = id;
    m_api = new ControlApi(apiOptions, this);
    if (!m_api->start(error))
        return false;
    // Until now the house information said "not reachable"; this announces
    // the port at once.
    m_worker->setApiListening(m_config.apiAddress(), m_api->port());
    return true;
}

void HostDaemon::runModuleStartUp()
{
    // A module wires itself through its own timers after it is created (the
    // grouping module after 100 ms). Datagrams and requests handled before
    // that are lost to it: a receiver's first "add" would reach a request
    // object not yet connected to its controller, and its later ones only
    // refresh a deadline, so it would never be listed. Until the modules
    // have started, only timers and posted events run; sockets wait. (Qt's
    // GLib dispatcher serves sockets regardless; main() selects Qt's own.)
    QEventLoop startUp;
    QTimer::singleShot(ModuleStartUpMs, Qt::PreciseTimer, &startUp, &QEventLoop::quit);
    startUp.exec(QEventLoop::ExcludeSocketNotifiers);
    LOG4CPLUS_DEBUG(logger(), "Modules started (" << ModuleStartUpMs << " ms)");
}

bool HostDaemon::checkRequestPort(quint16 port, QString* error)
{
    // The module's listener binds the port the same way and stays silent
    // when it cannot: such a host would join others but never be listed,
    // and a device joining it would hear its own datagrams.
    QUdpSocket probe;
    if (probe.bind(QHostAddress::Any, port, QAbstractSocket::DefaultForPlatform))
        return true;
    *error = QStringLiteral("cannot bind the receiver-link port %1 (UDP): %2; it is most likely another tarv-host's: "
                            "run one tarv-host per network namespace (scripts/lab runs several devices on one machine)")
                 .arg(port)
                 .arg(probe.errorString());
    return false;
}

void HostDaemon::stop()
{
    if (m_api)
        m_api->stop();
    if (m_discovery)
        m_discovery->stop();
    if (m_worker && m_worker->hasUnsavedSettings())
        m_worker->saveSettings();
}

QString HostDaemon::apiUrl() const
{
    return m_api ? m_api->url() : QString();
}

QString HostDaemon::id() const
{
    return m_worker ? m_worker->id() : QString();
}
