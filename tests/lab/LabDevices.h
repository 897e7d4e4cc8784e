#pragma once

#include <memory>
#include <vector>

#include <QJsonArray>
#include <QScopedPointer>
#include <QString>
#include <QStringList>

#include "Lab.h"
#include "LabApi.h"

// The devices a grouping suite works with: a lab of its own (named from a
// prefix and this process's id, so parallel runs never meet), brought up
// with the suite's time options, and one control-API client per device.
class LabDevices
{
public:
    LabDevices();
    ~LabDevices();
    LabDevices(const LabDevices&) = delete;
    LabDevices& operator=(const LabDevices&) = delete;

    // `prefix`: one lower-case letter naming the suite's labs; the hosts get
    // these time settings. False with the reason in `why` when the lab did
    // not come up whole.
    bool up(const QString& prefix, int devices, int resendMs, int timeoutMs, int discoveryMs, QString* why);
    bool isUp() const { return !m_lab.isNull(); }
    bool down(QString* why);

    Lab& lab() { return *m_lab; }
    LabApi& api(int device) { return *m_api.at(device - 1); }
    QString id(int device) const { return m_lab->id(device); }

    // Prints each device's last `lines` log lines as warnings, for a test
    // that failed.
    void printLogTails(int lines) const;

    // The ids of a list's rows, sorted.
    static QStringList rowIds(const QJsonArray& rows);

private:
    QScopedPointer<Lab> m_lab;
    std::vector<std::unique_ptr<LabApi>> m_api;
};
