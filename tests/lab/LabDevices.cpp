#include "LabDevices.h"

#include <QCoreApplication>

#include "LabLog.h"

LabDevices::LabDevices() = default;

LabDevices::~LabDevices() = default;

bool LabDevices::up(const QString& prefix, int devices, int resendMs, int timeoutMs, int discoveryMs, QString* why)
{
    m_lab.reset(new Lab(prefix + QString::number(QCoreApplication::applicationPid() % 10000000)));
    if (!m_lab->up(devices, Lab::timeOptions(resendMs, timeoutMs, discoveryMs))) {
        *why = m_lab->lastOutput();
        return false;
    }
    for (int device = 1; device <= devices; ++device) {
        if (m_lab->id(device).isEmpty()) {
            *why = QStringLiteral("dev%1 has no id in the lab's status").arg(device);
            return false;
        }
        m_api.push_back(std::make_unique<LabApi>(m_lab->api(device)));
    }
    return true;
}

bool LabDevices::down(QString* why)
{
    m_api.clear();
    if (m_lab && !m_lab->down()) {
        *why = m_lab->lastOutput();
        return false;
    }
    return true;
}

void LabDevices::printLogTails(int lines) const
{
    for (int device = 1; device <= int(m_api.size()); ++device)
        LabLog(m_lab->logPath(device)).warnTail(QStringLiteral("dev%1 log").arg(device), lines);
}
