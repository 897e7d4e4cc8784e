#include "LabDevices.h"

#include <QCoreApplication>
#include <QJsonObject>

#include "LabLog.h"

LabDevices::LabDevices() = default;

LabDevices::~LabDevices() = default;

bool LabDevices::up(const QString& prefix, int devices, int resendMs, int timeoutMs, int discoveryMs, QString* why)
{
    m_lab.reset(new Lab(prefix + QString::number(QCoreApplication::applicationPid() % 10000000)));
    if (!m_lab->up(devices, {QStringLiteral("--resend-ms"), QString::number(resendMs), QStringLiteral("--timeout-ms"),
                             QString::number(timeoutMs), QStringLiteral("--discovery-ms"),
                             QString::number(discoveryMs)})) {
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
    for (int device = 1; device <= int(m_api.size()); ++device) {
        LabLog tail(m_lab->logPath(device));
        tail.refresh();
        const QList<LabLog::Entry>& entries = tail.entries();
        qWarning("--- dev%d log, last lines ---", device);
        for (int i = qMax(0, entries.size() - lines); i < entries.size(); ++i)
            qWarning("%s %s %s", qPrintable(entries.at(i).level), qPrintable(entries.at(i).logger),
                     qPrintable(entries.at(i).message.left(300)));
    }
}

QStringList LabDevices::rowIds(const QJsonArray& rows)
{
    QStringList ids;
    for (const QJsonValue& row : rows)
        ids.append(row.toObject().value(QStringLiteral("id")).toString());
    ids.sort();
    return ids;
}
