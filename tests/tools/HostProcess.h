#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>

// A real tarv-host on loopback for end-to-end tests: free ports, its data
// directory and its output file under `workDirectory` (a file, because a
// full pipe must never stall it), started and stopped with bounded waits.
// A restart keeps the data directory.
class HostProcess
{
public:
    HostProcess(const QString& binary, const QString& module, const QString& workDirectory);
    ~HostProcess();
    HostProcess(const HostProcess&) = delete;
    HostProcess& operator=(const HostProcess&) = delete;

    // Starts the host and waits for its "tarv-host ready" line; on failure
    // says why, with what the host printed.
    bool start(const QStringList& extraArguments, QString* error, int timeoutMs = 10000);
    // SIGTERM, then waits for the exit; true when it ended cleanly with 0.
    bool stop(int timeoutMs = 5000);

    QString api() const { return m_api; }
    QString id() const { return m_id; }
    int requestPort() const { return m_requestPort; }
    QString output() const;

    static int freeUdpPort();

private:
    QString m_binary;
    QString m_module;
    QString m_dataDirectory;
    QString m_logFile;
    QProcess m_process;
    QString m_api;
    QString m_id;
    int m_requestPort = 0;
};
