#include "Lab.h"

#include <unistd.h>

#include <QCoreApplication>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>

#ifndef TARV_SOURCE_DIR
#error "TARV_SOURCE_DIR must name the repository"
#endif
#ifndef TARV_BINARY_DIR
#error "TARV_BINARY_DIR must name the build directory"
#endif

Lab::Lab(const QString& name)
    : m_name(name)
{
}

Lab::~Lab()
{
    // Also after a failed or interrupted `up`, whatever it left is removed.
    down();
}

QString Lab::script()
{
    return QStringLiteral(TARV_SOURCE_DIR "/scripts/lab");
}

QString Lab::buildDir()
{
    return QStringLiteral(TARV_BINARY_DIR);
}

QString Lab::unavailableReason()
{
    if (::geteuid() != 0)
        return QStringLiteral("the lab needs root (network namespaces, veth links, iptables); run the lab tests as root");
    // A namespace that cannot be made here means a container or kernel without
    // them; the probe name is unique to this process.
    const QString probe = QStringLiteral("tarv-probe-%1").arg(QCoreApplication::applicationPid());
    QProcess ip;
    ip.setProcessChannelMode(QProcess::MergedChannels);
    ip.start(QStringLiteral("ip"), {QStringLiteral("netns"), QStringLiteral("add"), probe});
    if (!ip.waitForFinished(10000) || ip.exitStatus() != QProcess::NormalExit || ip.exitCode() != 0)
        return QStringLiteral("network namespaces are not available here: ip netns add: %1")
            .arg(QString::fromLocal8Bit(ip.readAll()).trimmed());
    QProcess::execute(QStringLiteral("ip"), {QStringLiteral("netns"), QStringLiteral("del"), probe});
    return QString();
}

QProcessEnvironment Lab::environment() const
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("LAB_NAME"), m_name);
    env.insert(QStringLiteral("BUILD_DIR"), buildDir());
    env.insert(QStringLiteral("LAB_OWNER_PID"), QString::number(QCoreApplication::applicationPid()));
    env.remove(QStringLiteral("LAB_HOST_BIN"));
    env.remove(QStringLiteral("LAB_MODULE"));
    env.remove(QStringLiteral("LAB_LOG_CONFIG"));
    for (const QString& name : m_extra.keys())
        env.insert(name, m_extra.value(name));
    return env;
}

void Lab::setVariable(const QString& name, const QString& value)
{
    m_extra.insert(name, value);
}

int Lab::run(const QStringList& args, QString* output, int timeoutMs) const
{
    QProcess process;
    process.setProcessEnvironment(environment());
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral("bash"), QStringList{script()} + args);
    const bool finished = process.waitForFinished(timeoutMs);
    if (!finished) {
        process.kill();
        process.waitForFinished(5000);
    }
    m_lastOutput = QString::fromLocal8Bit(process.readAll());
    if (output)
        *output = m_lastOutput;
    if (!finished || process.exitStatus() != QProcess::NormalExit)
        return -1;
    return process.exitCode();
}

QStringList Lab::timeOptions(int resendMs, int timeoutMs, int discoveryMs)
{
    return {QStringLiteral("--resend-ms"), QString::number(resendMs), QStringLiteral("--timeout-ms"),
            QString::number(timeoutMs), QStringLiteral("--discovery-ms"), QString::number(discoveryMs)};
}

bool Lab::up(int devices, const QStringList& options)
{
    // A lab of this name left over by a killed run is taken down first.
    run({QStringLiteral("down")});
    // `up` waits longer for more devices (its bounds grow with the count)
    // and for emulated ones.
    const int emulated = static_cast<int>(options.count(QStringLiteral("--emulate")));
    const int code = run(QStringList{QStringLiteral("up"), QString::number(devices)} + options, nullptr,
                         60000 + devices * 2000 + emulated * 60000);
    m_up = code == 0;
    if (m_up)
        status();
    return m_up;
}

bool Lab::down()
{
    const int code = run({QStringLiteral("down")});
    m_up = false;
    return code == 0;
}

QJsonObject Lab::status()
{
    QString out;
    QProcess process;
    process.setProcessEnvironment(environment());
    process.start(QStringLiteral("bash"), {script(), QStringLiteral("status"), QStringLiteral("--json")});
    if (process.waitForFinished(30000) && process.exitCode() == 0) {
        const QJsonDocument doc = QJsonDocument::fromJson(process.readAllStandardOutput());
        if (doc.isObject())
            m_status = doc.object();
    }
    return m_status;
}

QJsonObject Lab::device(int device) const
{
    return m_status.value(QStringLiteral("devices")).toArray().at(device - 1).toObject();
}

QString Lab::api(int device) const { return this->device(device).value(QStringLiteral("api")).toString(); }
QString Lab::address(int device) const { return this->device(device).value(QStringLiteral("address")).toString(); }
QString Lab::id(int device) const { return this->device(device).value(QStringLiteral("id")).toString(); }
qint64 Lab::pid(int device) const { return this->device(device).value(QStringLiteral("pid")).toVariant().toLongLong(); }
QString Lab::state(int device) const { return this->device(device).value(QStringLiteral("state")).toString(); }
QString Lab::network(int device) const { return this->device(device).value(QStringLiteral("network")).toString(); }
QString Lab::runDir() const { return m_status.value(QStringLiteral("runDir")).toString(); }

QString Lab::logPath(int device) const
{
    return QStringLiteral("%1/dev%2/log").arg(runDir()).arg(device);
}
