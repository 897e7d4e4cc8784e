#include "HostProcess.h"

#include <sys/types.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QHostAddress>
#include <QRegularExpression>
#include <QUdpSocket>
#include <QUrl>

#include "EmulatedProgram.h"

HostProcess::HostProcess(const QString& binary, const QString& module, const QString& workDirectory)
    : m_binary(binary)
    , m_module(module)
    , m_dataDirectory(QDir(workDirectory).filePath(QStringLiteral("data")))
    , m_logFile(QDir(workDirectory).filePath(QStringLiteral("tarv-host.log")))
{
}

HostProcess::~HostProcess()
{
    // A failed test must not leave a host behind.
    if (m_process.state() != QProcess::NotRunning) {
        m_process.kill();
        m_process.waitForFinished(5000);
    }
}

int HostProcess::freeUdpPort()
{
    QUdpSocket socket;
    if (!socket.bind(QHostAddress(QHostAddress::LocalHost), 0))
        return 0;
    return socket.localPort();
}

quint16 HostProcess::apiPort() const
{
    return static_cast<quint16>(QUrl(m_api).port(0));
}

QString HostProcess::output() const
{
    QFile file(m_logFile);
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    return QString::fromUtf8(file.readAll());
}

QStringList HostProcess::arguments(const QStringList& extraArguments)
{
    if (m_requestPort == 0) {
        m_requestPort = m_fixedRequestPort ? m_fixedRequestPort : freeUdpPort();
        m_startDiscoveryPort = m_discoveryPort ? m_discoveryPort : freeUdpPort();
    }
    // Everything on loopback: nothing a test does may reach the LAN (an API
    // set to listen on every address is the test's own choice).
    QStringList arguments{QStringLiteral("--data-dir"), m_dataDirectory,
                          QStringLiteral("--api"), m_apiListen,
                          QStringLiteral("--address"), QStringLiteral("127.0.0.1"),
                          QStringLiteral("--host-name"), m_hostName,
                          QStringLiteral("--request-port"), QString::number(m_requestPort),
                          QStringLiteral("--discovery-group"), QStringLiteral("239.255.77.77:%1").arg(m_startDiscoveryPort)};
    if (!m_module.isEmpty())
        arguments << QStringLiteral("--module") << m_module;
    return arguments + extraArguments;
}

bool HostProcess::start(const QStringList& extraArguments, QString* error, int timeoutMs)
{
    QFile::remove(m_logFile);
    m_api.clear();
    m_id.clear();
    m_requestPort = 0;
    m_process.setStandardOutputFile(m_logFile, QIODevice::Append);
    m_process.setStandardErrorFile(m_logFile, QIODevice::Append);
    EmulatedProgram::start(m_process, m_binary, arguments(extraArguments));
    if (!m_process.waitForStarted(5000)) {
        *error = QStringLiteral("cannot start %1: %2").arg(m_binary, m_process.errorString());
        return false;
    }
    // An emulated host (a cross build's tests under qemu-user) translates
    // its code on first use and starts several times slower.
    timeoutMs = EmulatedProgram::scaled(timeoutMs);
    // The ready line names the API's URL (the port was left to the host) and the id.
    static const QRegularExpression ready(QStringLiteral("tarv-host ready: api (http://\\S+) id (\\S+)"));
    QElapsedTimer elapsed;
    elapsed.start();
    while (elapsed.elapsed() < timeoutMs) {
        const QRegularExpressionMatch match = ready.match(output());
        if (match.hasMatch()) {
            m_api = match.captured(1);
            m_id = match.captured(2);
            return true;
        }
        if (m_process.waitForFinished(20)) {
            *error = QStringLiteral("tarv-host ended (exit %1) before it was ready:\n%2")
                         .arg(m_process.exitCode())
                         .arg(output());
            return false;
        }
    }
    *error = QStringLiteral("tarv-host not ready within %1 ms:\n%2").arg(timeoutMs).arg(output());
    return false;
}

bool HostProcess::stop(int signalNumber, int timeoutMs)
{
    if (m_process.state() == QProcess::NotRunning)
        return false;
    ::kill(static_cast<pid_t>(m_process.processId()), signalNumber);
    if (!m_process.waitForFinished(timeoutMs))
        return false;
    return m_process.exitStatus() == QProcess::NormalExit && m_process.exitCode() == 0;
}
