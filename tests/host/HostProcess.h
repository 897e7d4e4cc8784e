#pragma once

#include <csignal>

#include <QProcess>
#include <QString>
#include <QStringList>

// A real tarv-host on loopback for end-to-end tests: free ports, announcing
// and discovering on 127.0.0.1 only, its data directory and its output file
// under `workDirectory` (a file, because a full pipe must never stall it),
// started and stopped with bounded waits. A restart keeps the data
// directory and picks new ports.
class HostProcess
{
public:
    // `module` may be empty: a host without modules.
    HostProcess(const QString& binary, const QString& module, const QString& workDirectory);
    ~HostProcess();
    HostProcess(const HostProcess&) = delete;
    HostProcess& operator=(const HostProcess&) = delete;

    // Another data directory (two hosts may be given the same one).
    void setDataDirectory(const QString& directory) { m_dataDirectory = directory; }
    const QString& dataDirectory() const { return m_dataDirectory; }
    // Hosts that should find each other share a discovery port; 0 (the
    // default) picks a free one at every start.
    void setDiscoveryPort(int port) { m_discoveryPort = port; }
    // The receiver link's port; 0 (the default) picks a free one at every
    // start. A port that is taken keeps the host from starting.
    void setRequestPort(int port) { m_fixedRequestPort = port; }
    // How other devices reach this one (default 127.0.0.1). A name that
    // does not resolve keeps the devices that join it from sending to it:
    // on one loopback they would reach their own listeners.
    void setHostName(const QString& hostName) { m_hostName = hostName; }

    // Where the control API listens, ADDRESS:PORT (default 127.0.0.1:0:
    // loopback, a free port).
    void setApiListen(const QString& listen) { m_apiListen = listen; }

    // The whole command line start() runs, for running the binary in other
    // ways; the ports are those of the last start(), or new ones before it.
    QStringList arguments(const QStringList& extraArguments = QStringList());

    // Starts the host and waits for its "tarv-host ready" line (scaled by
    // EmulatedProgram::slowdown() for an emulated one); on failure says why, with what the host
    // printed.
    bool start(const QStringList& extraArguments, QString* error, int timeoutMs = 10000);
    // Sends `signalNumber`, then waits for the exit; true when it ended
    // cleanly with 0.
    bool stop(int signalNumber = SIGTERM, int timeoutMs = 5000);

    QString api() const { return m_api; }
    quint16 apiPort() const;
    QString id() const { return m_id; }
    int requestPort() const { return m_requestPort; }
    qint64 processId() const { return m_process.processId(); }
    // What the host printed since its last start.
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
    int m_discoveryPort = 0;
    int m_fixedRequestPort = 0;
    int m_startDiscoveryPort = 0;
    QString m_hostName = QStringLiteral("127.0.0.1");
    QString m_apiListen = QStringLiteral("127.0.0.1:0");
};
