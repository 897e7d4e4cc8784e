#include "AnnouncementGate.h"

#include "CMRootWorker.h"
#include "TarvConnect.h"
#include "TarvLog.h"
#include "TarvPaths.h"
#include "TarvValue.h"

namespace {

log4cplus::Logger logger()
{
    return TarvLog::logger("AnnouncementGate");
}

} // namespace

AnnouncementGate::AnnouncementGate(const Options& options, QObject* parent)
    : QObject(parent), m_options(options)
{
    m_waitTimer.setSingleShot(true);
    m_waitTimer.setInterval(m_options.deviceStateWaitMs);
    tarvConnect(&m_waitTimer, &QTimer::timeout, this, &AnnouncementGate::on_waitTimer_timeout);
}

void AnnouncementGate::start()
{
    if (!m_options.modulesLoaded) {
        open();
        return;
    }
    CMRoot()->connectValueChange(TarvDeviceStatePath(), this, &AnnouncementGate::on_root_deviceStateChanged);
    m_waitTimer.start();
    openIfReady();
}

bool AnnouncementGate::deviceStateSet() const
{
    const TarvValue value(CMRoot()->getValue(TarvDeviceStatePath()).toHash());
    return value.contains(TarvValue::SystemMemberTranscoderState());
}

void AnnouncementGate::on_root_deviceStateChanged(const CMPath& path, const QVariant& value)
{
    Q_UNUSED(path);
    Q_UNUSED(value);
    openIfReady();
}

void AnnouncementGate::on_waitTimer_timeout()
{
    if (m_open)
        return;
    LOG4CPLUS_WARN(logger(), "No module set " << TarvDeviceStatePath() << " within " << m_options.deviceStateWaitMs
                                              << " ms; announcing this device anyway");
    open();
}

void AnnouncementGate::openIfReady()
{
    if (m_open || !deviceStateSet())
        return;
    LOG4CPLUS_INFO(logger(), TarvDeviceStatePath() << " is set; announcing this device");
    open();
}

void AnnouncementGate::open()
{
    if (m_open)
        return;
    m_open = true;
    m_waitTimer.stop();
    Q_EMIT opened();
}
