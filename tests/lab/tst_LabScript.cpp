// scripts/lab itself: what `up` builds, what each device command does to the
// device, and that nothing is left behind after `down`, a failed `up`, an
// interrupted `up` or the death of the process that owns the lab.

#include <signal.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QScopedPointer>
#include <QTemporaryDir>
#include <QTest>

#include "Lab.h"
#include "LabApi.h"
#include "LabLog.h"

namespace {

QStringList sorted(QStringList list)
{
    list.sort();
    return list;
}

QString runCommand(const QString& program, const QStringList& args)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, args);
    process.waitForFinished(10000);
    return QString::fromLocal8Bit(process.readAll());
}

bool processAlive(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return false;
    const QByteArray text = stat.readAll();
    const int close = text.lastIndexOf(')');
    const char state = close >= 0 && close + 2 < text.size() ? text.at(close + 2) : 'X';
    return state != 'Z' && state != 'X';
}

// Everything of lab `name` still on this machine: its namespaces, its
// root-side link (when its subnet index is known), processes started with
// its run directory on their command line, and the run directory.
QStringList leftovers(const QString& name, int subnet)
{
    QStringList found;
    const QString prefix = QStringLiteral("tarv-%1-").arg(name);
    for (const QString& line : runCommand(QStringLiteral("ip"), {QStringLiteral("netns"), QStringLiteral("list")}).split('\n')) {
        if (line.startsWith(prefix))
            found.append(QStringLiteral("namespace ") + line.section(' ', 0, 0));
    }
    if (subnet >= 0) {
        const QString link = QStringLiteral("tarvlab%1").arg(subnet);
        if (QFileInfo::exists(QStringLiteral("/sys/class/net/") + link))
            found.append(QStringLiteral("link ") + link);
    }
    const QString runDir = QStringLiteral("/run/tarv-lab/%1").arg(name);
    const QByteArray marker = (runDir + QLatin1Char('/')).toUtf8();
    for (const QString& entry : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        bool isPid = false;
        const qint64 pid = entry.toLongLong(&isPid);
        if (!isPid || pid == QCoreApplication::applicationPid())
            continue;
        QFile cmdline(QStringLiteral("/proc/%1/cmdline").arg(pid));
        if (cmdline.open(QIODevice::ReadOnly) && cmdline.readAll().contains(marker) && processAlive(pid))
            found.append(QStringLiteral("process %1").arg(pid));
    }
    if (QFileInfo::exists(runDir))
        found.append(QStringLiteral("directory ") + runDir);
    return found;
}

int subnetIndex(const QString& text)
{
    const QRegularExpressionMatch match = QRegularExpression(QStringLiteral("10\\.77\\.(\\d+)\\.0/24")).match(text);
    return match.hasMatch() ? match.captured(1).toInt() : -1;
}

QStringList waitNoLeftovers(const QString& name, int subnet, int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    QStringList left = leftovers(name, subnet);
    while (!left.isEmpty() && !deadline.hasExpired()) {
        QTest::qWait(100);
        left = leftovers(name, subnet);
    }
    return left;
}

// The size at which a device's log rolls over in this suite's lab, in KB.
constexpr int kLogMaxKb = 256;

QString labName(const char* tag)
{
    return QStringLiteral("%1%2").arg(QLatin1String(tag)).arg(QCoreApplication::applicationPid() % 1000000);
}

} // namespace

class tst_LabScript : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();

    void refusesWithoutRoot();
    void upBringsDevicesThatSeeEachOther();
    void execRunsInTheDeviceNamespace();
    void unknownDeviceIsAClearError();
    void stopAndContChangeTheProcessState();
    void cutDropsAllTrafficAndHealRestoresIt();
    void lossInstallsARandomDrop();
    void killThenRestartKeepsTheId();
    void logsShowTheHostLog();
    void floodIsBoundedAndTheLogRollsOver();
    void downLeavesNothing();
    void failedUpLeavesNothing();
    void interruptedUpLeavesNothing_data();
    void interruptedUpLeavesNothing();
    void labGoesDownWithItsOwner();

private:
    QScopedPointer<Lab> m_lab;
    int m_subnet = -1;
};

void tst_LabScript::initTestCase()
{
    const QString reason = Lab::unavailableReason();
    if (!reason.isEmpty())
        QSKIP(qPrintable(reason));
    m_lab.reset(new Lab(labName("s")));
    // Small enough that a two-second flood rolls the log over.
    m_lab->setVariable(QStringLiteral("LAB_LOG_MAX_KB"), QString::number(kLogMaxKb));
}

void tst_LabScript::cleanupTestCase()
{
    if (m_lab && m_lab->isUp())
        m_lab->down();
}

void tst_LabScript::refusesWithoutRoot()
{
    // A copy the unprivileged user can read wherever the checkout lives.
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QVERIFY(QDir(dir.path()).mkpath(QStringLiteral("scripts")));
    const QString script = dir.filePath(QStringLiteral("scripts/lab"));
    QVERIFY(QFile::copy(Lab::script(), script));
    const QFileDevice::Permissions readable = QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner
        | QFileDevice::ReadGroup | QFileDevice::ExeGroup | QFileDevice::ReadOther | QFileDevice::ExeOther;
    QVERIFY(QFile::setPermissions(dir.path(), readable));
    QVERIFY(QFile::setPermissions(dir.filePath(QStringLiteral("scripts")), readable));
    QVERIFY(QFile::setPermissions(script, readable));

    QProcess process;
    process.setProcessEnvironment(m_lab->environment());
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral("setpriv"), {QStringLiteral("--reuid=65534"), QStringLiteral("--regid=65534"),
                                              QStringLiteral("--clear-groups"), QStringLiteral("bash"), script,
                                              QStringLiteral("up"), QStringLiteral("2")});
    QVERIFY(process.waitForFinished(10000));
    const QString output = QString::fromLocal8Bit(process.readAll());
    QCOMPARE(process.exitCode(), 1);
    QVERIFY2(output.contains(QStringLiteral("lab: needs root")), qPrintable(output));
    QCOMPARE(leftovers(m_lab->name(), -1), QStringList());
}

void tst_LabScript::upBringsDevicesThatSeeEachOther()
{
    QVERIFY2(m_lab->up(2, {}), qPrintable(m_lab->lastOutput()));
    // The progress line and the final line of `up`.
    QVERIFY2(m_lab->lastOutput().contains(QStringLiteral("discovery: dev1 sees 2/2 dev2 sees 2/2")), qPrintable(m_lab->lastOutput()));
    m_subnet = subnetIndex(m_lab->status().value(QStringLiteral("subnet")).toString());
    QVERIFY(m_subnet >= 0);

    const QJsonObject status = m_lab->status();
    QCOMPARE(status.value(QStringLiteral("devices")).toArray().size(), 2);
    QCOMPARE(status.value(QStringLiteral("resendMs")).toInt(), 1000);
    QCOMPARE(status.value(QStringLiteral("timeoutMs")).toInt(), 5000);
    QVERIFY(m_lab->id(1) != m_lab->id(2));
    for (int device = 1; device <= 2; ++device) {
        QCOMPARE(m_lab->address(device), QStringLiteral("10.77.%1.1%2").arg(m_subnet).arg(device));
        QCOMPARE(m_lab->api(device), QStringLiteral("http://10.77.%1.1%2:8080").arg(m_subnet).arg(device));
        QCOMPARE(m_lab->state(device), QStringLiteral("running"));
        QCOMPARE(m_lab->network(device), QStringLiteral("ok"));
        QCOMPARE(QFileInfo(QStringLiteral("/proc/%1/exe").arg(m_lab->pid(device))).symLinkTarget(),
                 QFileInfo(Lab::buildDir() + QStringLiteral("/src/host/tarv-host")).canonicalFilePath());
        // Each device, asked from this machine's root namespace, lists both.
        LabApi api(m_lab->api(device));
        QCOMPARE(api.host().value(QStringLiteral("id")).toString(), m_lab->id(device));
        QStringList ids;
        for (const QJsonValue& row : api.rows(QStringLiteral("/system/members")))
            ids.append(row.toObject().value(QStringLiteral("id")).toString());
        ids.sort();
        QCOMPARE(ids, sorted({m_lab->id(1), m_lab->id(2)}));
    }
}

void tst_LabScript::execRunsInTheDeviceNamespace()
{
    QString output;
    QCOMPARE(m_lab->run({QStringLiteral("exec"), QStringLiteral("dev2"), QStringLiteral("sh"), QStringLiteral("-c"),
                         QStringLiteral("echo \"api=$TARV_API\"; echo \"ctl=$(command -v tarvctl)\"; ip -4 -o addr show dev eth0; ip route show 224.0.0.0/4")},
                        &output), 0);
    QVERIFY2(output.contains(QStringLiteral("api=") + m_lab->api(2) + QLatin1Char('\n')), qPrintable(output));
    QVERIFY2(output.contains(QStringLiteral("ctl=") + Lab::buildDir() + QStringLiteral("/src/tools/tarvctl\n")), qPrintable(output));
    QVERIFY2(output.contains(QStringLiteral("inet ") + m_lab->address(2) + QStringLiteral("/24")), qPrintable(output));
    QVERIFY2(output.contains(QStringLiteral("224.0.0.0/4 dev eth0")), qPrintable(output));
    // The command's own exit code comes back.
    QCOMPARE(m_lab->run({QStringLiteral("exec"), QStringLiteral("dev1"), QStringLiteral("sh"), QStringLiteral("-c"), QStringLiteral("exit 7")}), 7);
}

void tst_LabScript::unknownDeviceIsAClearError()
{
    QString output;
    QCOMPARE(m_lab->run({QStringLiteral("kill"), QStringLiteral("dev9")}, &output), 1);
    QVERIFY2(output.contains(QStringLiteral("unknown device 'dev9': this lab has dev1..dev2")), qPrintable(output));
    QCOMPARE(m_lab->run({QStringLiteral("frobnicate")}, &output), 2);
    QVERIFY2(output.contains(QStringLiteral("unknown command 'frobnicate'")), qPrintable(output));
    m_lab->status();
    QCOMPARE(m_lab->state(1), QStringLiteral("running"));
    QCOMPARE(m_lab->state(2), QStringLiteral("running"));
}

void tst_LabScript::stopAndContChangeTheProcessState()
{
    QCOMPARE(m_lab->run({QStringLiteral("stop"), QStringLiteral("dev2")}), 0);
    m_lab->status();
    QCOMPARE(m_lab->state(2), QStringLiteral("stopped"));
    // A stopped host does not answer.
    LabApi api(m_lab->api(2));
    QCOMPARE(api.get(QStringLiteral("host"), QString(), 500).status, 0);
    QCOMPARE(m_lab->run({QStringLiteral("cont"), QStringLiteral("dev2")}), 0);
    m_lab->status();
    QCOMPARE(m_lab->state(2), QStringLiteral("running"));
    QCOMPARE(api.get(QStringLiteral("host"), QString(), 2000).status, 200);
}

void tst_LabScript::cutDropsAllTrafficAndHealRestoresIt()
{
    LabApi api1(m_lab->api(1));
    LabApi api2(m_lab->api(2));
    QCOMPARE(m_lab->run({QStringLiteral("cut"), QStringLiteral("dev2")}), 0);
    m_lab->status();
    QCOMPARE(m_lab->network(2), QStringLiteral("cut"));
    QCOMPARE(m_lab->state(2), QStringLiteral("running"));
    QCOMPARE(api2.get(QStringLiteral("host"), QString(), 500).status, 0);
    QCOMPARE(api1.get(QStringLiteral("host"), QString(), 2000).status, 200);
    // Nothing goes out of dev2 either.
    QString output;
    QVERIFY(m_lab->run({QStringLiteral("exec"), QStringLiteral("dev2"), QStringLiteral("curl"), QStringLiteral("-s"),
                        QStringLiteral("--max-time"), QStringLiteral("0.5"), m_lab->api(1) + QStringLiteral("/api/v1/host")}, &output) != 0);

    QCOMPARE(m_lab->run({QStringLiteral("heal"), QStringLiteral("dev2")}), 0);
    m_lab->status();
    QCOMPARE(m_lab->network(2), QStringLiteral("ok"));
    QCOMPARE(api2.get(QStringLiteral("host"), QString(), 2000).status, 200);
    QCOMPARE(m_lab->run({QStringLiteral("exec"), QStringLiteral("dev2"), QStringLiteral("curl"), QStringLiteral("-s"),
                         QStringLiteral("--max-time"), QStringLiteral("2"), m_lab->api(1) + QStringLiteral("/api/v1/host")}, &output), 0);
    QVERIFY2(output.contains(m_lab->id(1)), qPrintable(output));
}

void tst_LabScript::lossInstallsARandomDrop()
{
    QCOMPARE(m_lab->run({QStringLiteral("loss"), QStringLiteral("dev2"), QStringLiteral("25")}), 0);
    m_lab->status();
    QCOMPARE(m_lab->network(2), QStringLiteral("loss 25%"));
    QString rules;
    QCOMPARE(m_lab->run({QStringLiteral("exec"), QStringLiteral("dev2"), QStringLiteral("iptables"), QStringLiteral("-S")}, &rules), 0);
    QCOMPARE(rules.count(QStringLiteral("-m statistic --mode random --probability 0.25")), 2);
    QCOMPARE(rules.count(QStringLiteral("-j DROP")), 2);
    QVERIFY(rules.contains(QStringLiteral("-A INPUT -i eth0")));
    QVERIFY(rules.contains(QStringLiteral("-A OUTPUT -o eth0")));

    QString output;
    QCOMPARE(m_lab->run({QStringLiteral("loss"), QStringLiteral("dev2"), QStringLiteral("101")}, &output), 1);
    QVERIFY2(output.contains(QStringLiteral("usage: scripts/lab loss DEV PCT (0..100)")), qPrintable(output));

    QCOMPARE(m_lab->run({QStringLiteral("loss"), QStringLiteral("dev2"), QStringLiteral("0")}), 0);
    m_lab->status();
    QCOMPARE(m_lab->network(2), QStringLiteral("ok"));
    QCOMPARE(m_lab->run({QStringLiteral("exec"), QStringLiteral("dev2"), QStringLiteral("iptables"), QStringLiteral("-S")}, &rules), 0);
    QCOMPARE(rules.count(QStringLiteral("DROP")), 0);
}

void tst_LabScript::killThenRestartKeepsTheId()
{
    const qint64 pid = m_lab->pid(2);
    const QString id = m_lab->id(2);
    QCOMPARE(m_lab->run({QStringLiteral("kill"), QStringLiteral("dev2")}), 0);
    QVERIFY(!processAlive(pid));
    m_lab->status();
    QCOMPARE(m_lab->state(2), QStringLiteral("dead"));

    QString output;
    QCOMPARE(m_lab->run({QStringLiteral("restart"), QStringLiteral("dev2")}, &output), 0);
    m_lab->status();
    QCOMPARE(m_lab->state(2), QStringLiteral("running"));
    QVERIFY(m_lab->pid(2) != pid);
    QCOMPARE(m_lab->id(2), id);
    QCOMPARE(LabApi(m_lab->api(2)).host().value(QStringLiteral("id")).toString(), id);
    // restart waits until the device and the others see each other again.
    QVERIFY2(output.contains(QStringLiteral("discovery: dev1 sees 2/2 dev2 sees 2/2")), qPrintable(output));
}

void tst_LabScript::logsShowTheHostLog()
{
    QString output;
    QCOMPARE(m_lab->run({QStringLiteral("logs"), QStringLiteral("dev2")}, &output), 0);
    // Two starts (up and restart), each followed by its host's ready line.
    const QStringList starts = output.split(QRegularExpression(QStringLiteral("=== [0-9: .-]+ lab: starting dev2\n")));
    QCOMPARE(starts.size(), 3);
    for (int i = 1; i < starts.size(); ++i)
        QVERIFY2(starts.at(i).contains(QStringLiteral("tarv-host ready: api ") + m_lab->api(2) + QStringLiteral(" id ") + m_lab->id(2)),
                 qPrintable(starts.at(i)));
}

// A flood writes two lines per garbage datagram (the listener's TRACE line
// and "Dropping garbage packet"); the device's log rolls over into log.1 and
// never holds much more than twice the bound, and the host carries on.
void tst_LabScript::floodIsBoundedAndTheLogRollsOver()
{
    QString output;
    QCOMPARE(m_lab->run({QStringLiteral("flood"), QStringLiteral("dev1"), QStringLiteral("300000"), QStringLiteral("1")},
                        &output),
             2);
    QVERIFY2(output.contains(QStringLiteral("usage: lab_flood")), qPrintable(output));

    QCOMPARE(m_lab->run({QStringLiteral("flood"), QStringLiteral("dev1"), QStringLiteral("10000"), QStringLiteral("2"),
                         QStringLiteral("garbage")},
                        &output),
             0);
    QVERIFY2(output.contains(QStringLiteral("lab_flood: sent 20000 datagrams (0 failed)")), qPrintable(output));
    const QString log = m_lab->logPath(1);
    QCOMPARE(LabApi(m_lab->api(1)).host().value(QStringLiteral("id")).toString(), m_lab->id(1));
    QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(log + QStringLiteral(".1")), 5000);
    const qint64 bound = qint64(kLogMaxKb) * 1024 + 4096;
    QVERIFY2(QFileInfo(log).size() <= bound, qPrintable(QString::number(QFileInfo(log).size())));
    QVERIFY2(QFileInfo(log + QStringLiteral(".1")).size() <= bound,
             qPrintable(QString::number(QFileInfo(log + QStringLiteral(".1")).size())));
    QVERIFY(!QFileInfo::exists(log + QStringLiteral(".2")));
    LabLog entries(log);
    QVERIFY(entries.waitForCount(QStringLiteral("INFO"), QStringLiteral("SimpleGroupingSocket"),
                                 QStringLiteral("Dropping garbage packet"), 1, 2000));
}

void tst_LabScript::downLeavesNothing()
{
    const QList<qint64> pids{m_lab->pid(1), m_lab->pid(2)};
    QString output;
    QVERIFY(m_lab->down());
    for (qint64 pid : pids)
        QVERIFY(!processAlive(pid));
    QCOMPARE(leftovers(m_lab->name(), m_subnet), QStringList());
    // A second down is harmless.
    QCOMPARE(m_lab->run({QStringLiteral("down")}, &output), 0);
    QVERIFY2(output.contains(QStringLiteral("nothing to remove")), qPrintable(output));
    QCOMPARE(m_lab->run({QStringLiteral("status")}, &output), 1);
    QVERIFY2(output.contains(QStringLiteral("no lab is up")), qPrintable(output));
}

void tst_LabScript::failedUpLeavesNothing()
{
    Lab lab(labName("f"));
    lab.setVariable(QStringLiteral("LAB_HOST_BIN"), QStringLiteral("/bin/false"));
    QString output;
    QCOMPARE(lab.run({QStringLiteral("up"), QStringLiteral("2")}, &output), 1);
    QVERIFY2(output.contains(QStringLiteral("dev1: tarv-host exited before it was ready")), qPrintable(output));
    QVERIFY2(output.contains(QStringLiteral("up failed or was interrupted; removing everything it created")), qPrintable(output));
    QCOMPARE(leftovers(lab.name(), subnetIndex(output)), QStringList());
}

void tst_LabScript::interruptedUpLeavesNothing_data()
{
    QTest::addColumn<int>("signal");
    QTest::addColumn<int>("exitCode");
    QTest::newRow("SIGINT") << int(SIGINT) << 130;
    QTest::newRow("SIGTERM") << int(SIGTERM) << 143;
}

void tst_LabScript::interruptedUpLeavesNothing()
{
    QFETCH(int, signal);
    QFETCH(int, exitCode);
    Lab lab(labName(signal == SIGINT ? "i" : "t"));
    QProcess up;
    up.setProcessEnvironment(lab.environment());
    up.setProcessChannelMode(QProcess::MergedChannels);
    up.start(QStringLiteral("bash"), {Lab::script(), QStringLiteral("up"), QStringLiteral("3")});
    QVERIFY(up.waitForStarted());
    // Interrupt it half-way: the network exists and the hosts are starting.
    QString output;
    const QDeadlineTimer deadline(20000);
    while (!output.contains(QStringLiteral("dev1 ready")) && !deadline.hasExpired() && up.state() == QProcess::Running) {
        up.waitForReadyRead(100);
        output += QString::fromLocal8Bit(up.readAll());
    }
    QVERIFY2(output.contains(QStringLiteral("dev1 ready")), qPrintable(output));
    const int subnet = subnetIndex(output);
    QVERIFY(subnet >= 0);
    QVERIFY(!leftovers(lab.name(), subnet).isEmpty());
    ::kill(pid_t(up.processId()), signal);
    QVERIFY(up.waitForFinished(20000));
    output += QString::fromLocal8Bit(up.readAll());
    QCOMPARE(up.exitCode(), exitCode);
    QVERIFY2(output.contains(QStringLiteral("up failed or was interrupted; removing everything it created")), qPrintable(output));
    QCOMPARE(leftovers(lab.name(), subnet), QStringList());
}

void tst_LabScript::labGoesDownWithItsOwner()
{
    QProcess owner;
    owner.start(QStringLiteral("sleep"), {QStringLiteral("60")});
    QVERIFY(owner.waitForStarted());
    Lab lab(labName("o"));
    lab.setVariable(QStringLiteral("LAB_OWNER_PID"), QString::number(owner.processId()));
    QString output;
    QCOMPARE(lab.run({QStringLiteral("up"), QStringLiteral("2")}, &output), 0);
    const int subnet = subnetIndex(output);
    QVERIFY(!leftovers(lab.name(), subnet).isEmpty());
    owner.kill();
    QVERIFY(owner.waitForFinished(5000));
    // The watcher polls its owner twice a second, then takes the lab down.
    QCOMPARE(waitNoLeftovers(lab.name(), subnet, 10000), QStringList());
}

QTEST_GUILESS_MAIN(tst_LabScript)
#include "tst_LabScript.moc"
