#include <QDir>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QProcessEnvironment>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

#include "CannedServer.h"
#include "EmulatedProgram.h"
#include "HostProcess.h"
#include "RawTcpServer.h"

// The tarvctl binary as users run it: against canned answers always, and
// against a real tarv-host when the daemon is part of the build.
namespace {

struct Run
{
    int exitCode = -1;
    bool crashed = false;
    QString out;
    QString err;
};

Run ctl(const QStringList& arguments, const QString& api = QString())
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("TARV_API"));
    if (!api.isEmpty())
        environment.insert(QStringLiteral("TARV_API"), api);
    process.setProcessEnvironment(environment);
    EmulatedProgram::start(process, QStringLiteral(TARVCTL_BINARY), arguments);
    Run result;
    if (!process.waitForFinished(15000)) {
        process.kill();
        process.waitForFinished(2000);
        result.err = QStringLiteral("(tarvctl did not finish)");
        return result;
    }
    result.crashed = process.exitStatus() != QProcess::NormalExit;
    result.exitCode = process.exitCode();
    result.out = QString::fromUtf8(process.readAllStandardOutput());
    result.err = QString::fromUtf8(process.readAllStandardError());
    return result;
}

QString describe(const Run& run)
{
    return QStringLiteral("exit %1%2\nstdout: %3\nstderr: %4")
        .arg(run.exitCode)
        .arg(run.crashed ? QStringLiteral(" (crashed)") : QString())
        .arg(run.out, run.err);
}

QJsonObject parseObject(const QString& text)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(text.toUtf8(), &error);
    return error.error == QJsonParseError::NoError ? document.object() : QJsonObject();
}

} // namespace

#define CTL_EXPECT(run, code)                                                                                          \
    do {                                                                                                               \
        QVERIFY2(!(run).crashed && (run).exitCode == (code), qPrintable(describe(run)));                              \
    } while (false)

class tst_tarvctl : public QObject
{
    Q_OBJECT

private:
    void requireHost();

    QTemporaryDir m_work;
    std::unique_ptr<HostProcess> m_host;

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();

    // The binary itself, against canned answers.
    void helpAndVersionExitZero();
    void usageErrorsExitTwoAndSayWhy_data();
    void usageErrorsExitTwoAndSayWhy();
    void cannedFailuresExitWithTheirCode();
    void apiComesFromTheEnvironment();

    // Against a real host.
    void hostShowsTheDevice();
    void getShowsASetting();
    void setIsReadBack();
    void invokeLeaveAnswersTrue();
    void joiningItselfIsNoChange_data();
    void joiningItselfIsNoChange();
    void leavingWithoutAGroupIsNoChange();
    void statusShowsTheDeviceAndTheLan();
    void hintsNameTarvctlCommands();
    void refusedInvokeExitsOneWithTheHandlersText_data();
    void refusedInvokeExitsOneWithTheHandlersText();
    void saveAndGroupAgainstTheHost();
    void rowsShowsTheOwnMembership();
    void treeShowsTheModulesList();
    void watchSeesTheValueEventOfASet();
    void uiShowsJoinsAndLeavesTheGroupingList();
    void jsonOutputParses_data();
    void jsonOutputParses();
    void everyErrorExitCodeAgainstTheHost();
    void setSurvivesARestart();
};

void tst_tarvctl::initTestCase()
{
    QVERIFY(m_work.isValid());
#ifdef TARV_HOST_BINARY
    m_host = std::make_unique<HostProcess>(QStringLiteral(TARV_HOST_BINARY), QStringLiteral(TARV_MODULE), m_work.path());
    QString error;
    QVERIFY2(m_host->start({QStringLiteral("--name"), QStringLiteral("dev1")}, &error), qPrintable(error));
#endif
}

void tst_tarvctl::cleanupTestCase()
{
    if (m_host)
        QVERIFY2(m_host->stop(), qPrintable(m_host->output().right(2000)));
}

void tst_tarvctl::requireHost()
{
    if (!m_host)
        QSKIP("tarv-host is not part of this build");
}

void tst_tarvctl::helpAndVersionExitZero()
{
    Run run = ctl({"--help"});
    CTL_EXPECT(run, 0);
    QVERIFY(run.out.startsWith("Usage: tarvctl [options] COMMAND [arguments]\n"));
    QVERIFY(run.out.contains("Exit codes:"));
    QCOMPARE(run.err, QString());
    run = ctl({"--version"});
    CTL_EXPECT(run, 0);
    QCOMPARE(run.out, QString("tarvctl " TARVCTL_VERSION "\n"));
}

void tst_tarvctl::usageErrorsExitTwoAndSayWhy_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("err");
    QTest::newRow("no command") << QStringList{} << "tarvctl: no command given (see tarvctl --help)\n";
    QTest::newRow("unknown command") << QStringList{"reboot"} << "tarvctl: unknown command 'reboot' (see tarvctl --help)\n";
    QTest::newRow("unknown flag") << QStringList{"host", "--force"}
                                  << "tarvctl: unknown option '--force' (see tarvctl --help)\n";
    QTest::newRow("bad json") << QStringList{"set", "/a", "{\"i32_\":"}
                              << "tarvctl: set: VALUE is not valid JSON (unterminated object at character 9): {\"i32_\":; "
                                 "for a plain text use --string\n";
    QTest::newRow("bad url") << QStringList{"--api", "http://h:1/x", "host"}
                             << "tarvctl: bad API URL (from --api): 'http://h:1/x': give only scheme, host and port, "
                                "e.g. http://127.0.0.1:8080\n";
}

void tst_tarvctl::usageErrorsExitTwoAndSayWhy()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, err);
    const Run run = ctl(arguments);
    CTL_EXPECT(run, 2);
    QCOMPARE(run.err, err);
    QCOMPARE(run.out, QString());
}

void tst_tarvctl::cannedFailuresExitWithTheirCode()
{
    CannedServer server;
    server.answer("GET", "/api/v1/value", 404,
                  R"({"error":{"name":"NotFound","title":"Not found","message":"No value at /nope"}})");
    server.answer("GET", "/api/v1/host", 200, "\x01\x02not json");
    server.hold("GET", "/api/v1/rows");

    Run run = ctl({"--api", server.api(), "get", "/nope"});
    CTL_EXPECT(run, 1);
    QCOMPARE(run.err, QString("tarvctl: error (HTTP 404): Not found: No value at /nope\n"));

    run = ctl({"--api", server.api(), "host"});
    CTL_EXPECT(run, 1);
    QVERIFY2(run.err.startsWith("tarvctl: error: bad answer from the host: "), qPrintable(run.err));

    run = ctl({"--api", server.api(), "rows", "/l", "--timeout-ms", "300"});
    CTL_EXPECT(run, 4);
    QCOMPARE(run.err, "tarvctl: timeout: no answer from " + server.api() + "/api/v1/rows?path=/l within 300 ms\n");

    QString closed;
    {
        RawTcpServer gone{QByteArray()};
        closed = gone.api();
    }
    run = ctl({"--api", closed, "host"});
    CTL_EXPECT(run, 3);
    QCOMPARE(run.err, "tarvctl: error: cannot connect to " + closed + " (is tarv-host running there?)\n");
}

void tst_tarvctl::apiComesFromTheEnvironment()
{
    CannedServer server;
    server.answer("GET", "/api/v1/value", 200, R"({"path":"/a","value":{"i32_":42}})");
    const Run run = ctl({"get", "/a"}, server.api());
    CTL_EXPECT(run, 0);
    QCOMPARE(run.out, QString("42\n"));
}

void tst_tarvctl::hostShowsTheDevice()
{
    requireHost();
    const Run run = ctl({"--api", m_host->api(), "host"});
    CTL_EXPECT(run, 0);
    QVERIFY2(run.out.startsWith("id:           " + m_host->id() + "\nname:         dev1\n"), qPrintable(run.out));
    QVERIFY2(run.out.contains(QString("request port: %1\n").arg(m_host->requestPort())), qPrintable(run.out));
    QVERIFY2(run.out.contains("version:      " TARVCTL_VERSION "\n"), qPrintable(run.out));

    // By name, as people type it: the host answers to "localhost" too.
    const QString byName = QString(m_host->api()).replace("127.0.0.1", "localhost");
    const Run named = ctl({"--api", byName, "host"});
    CTL_EXPECT(named, 0);
    QCOMPARE(named.out, run.out);
}

void tst_tarvctl::getShowsASetting()
{
    requireHost();
    const Run run = ctl({"get", "/system/member/id"}, m_host->api());
    CTL_EXPECT(run, 0);
    QCOMPARE(run.out, m_host->id() + "\n");
}

void tst_tarvctl::setIsReadBack()
{
    requireHost();
    Run run = ctl({"set", "/settings/streaming/stopTimeout", "--int", "6500"}, m_host->api());
    CTL_EXPECT(run, 0);
    QCOMPARE(run.out, QString("/settings/streaming/stopTimeout = 6500\n"));
    run = ctl({"get", "/settings/streaming/stopTimeout"}, m_host->api());
    CTL_EXPECT(run, 0);
    QCOMPARE(run.out, QString("6500\n"));

    // A record given as JSON.
    run = ctl({"set", "/player/data", R"({"state": 1})"}, m_host->api());
    CTL_EXPECT(run, 0);
    run = ctl({"get", "/player/data", "--json"}, m_host->api());
    CTL_EXPECT(run, 0);
    QCOMPARE(parseObject(run.out).value("value").toObject(), QJsonDocument::fromJson(R"({"state":1})").object());
    run = ctl({"set", "/player/data", R"({"state": 0})"}, m_host->api());
    CTL_EXPECT(run, 0);
}

void tst_tarvctl::invokeLeaveAnswersTrue()
{
    requireHost();
    Run run = ctl({"invoke", "/grouping/request", R"({"groupingRequest": {"command": -1}})"}, m_host->api());
    CTL_EXPECT(run, 0);
    QCOMPARE(run.out, QString("true\n"));
    run = ctl({"leave", "--no-wait"}, m_host->api());
    CTL_EXPECT(run, 0);
    QCOMPARE(run.out, QString("true\n"));
}

// The module takes the request and refuses it later, only in its log: the
// missing change is what tarvctl reports.
void tst_tarvctl::joiningItselfIsNoChange_data()
{
    QTest::addColumn<bool>("byName");
    QTest::newRow("by id") << false;
    QTest::newRow("by name") << true;
}

void tst_tarvctl::joiningItselfIsNoChange()
{
    requireHost();
    QFETCH(bool, byName);
    const QString target = byName ? QStringLiteral("dev1") : m_host->id();
    const int refusalsBefore = m_host->output().count(QStringLiteral("as it is this device!"));
    QElapsedTimer elapsed;
    elapsed.start();
    Run run = ctl({"join", target, "--timeout-ms", "1500"}, m_host->api());
    CTL_EXPECT(run, 1);
    QVERIFY2(elapsed.elapsed() >= 1500, qPrintable(QString::number(elapsed.elapsed())));
    QCOMPARE(run.out, QString());
    QCOMPARE(run.err, QString("tarvctl: no change: the device refused (see its log)\n"));
    QTRY_COMPARE_WITH_TIMEOUT(m_host->output().count(QStringLiteral("as it is this device!")), refusalsBefore + 1, 5000);
    QVERIFY2(m_host->output().contains(QStringLiteral("ERROR SimpleGroupingCtrl [SimpleGroupingCtrl.cpp:")),
             qPrintable(m_host->output().right(2000)));

    // Without waiting, the answer is only that the request was taken.
    run = ctl({"join", target, "--no-wait"}, m_host->api());
    CTL_EXPECT(run, 0);
    QCOMPARE(run.out, QString("true\n"));
}

void tst_tarvctl::leavingWithoutAGroupIsNoChange()
{
    requireHost();
    const Run run = ctl({"leave", "--timeout-ms", "800"}, m_host->api());
    CTL_EXPECT(run, 1);
    QCOMPARE(run.err, QString("tarvctl: no change: the device refused (see its log)\n"));
}

void tst_tarvctl::statusShowsTheDeviceAndTheLan()
{
    requireHost();
    const QString expected = QStringLiteral("This device: dev1 [%1]\n"
                                            "  role:         transcoder\n"
                                            "  master:       itself\n"
                                            "  followers:    none\n"
                                            "  saved group:  none\n"
                                            "Devices on the LAN: 1\n"
                                            "  dev1  [%1]  transcoder  this device\n")
                                 .arg(m_host->id());
    // The module writes its own row and state shortly after the start.
    Run run;
    QElapsedTimer elapsed;
    elapsed.start();
    do {
        run = ctl({"status"}, m_host->api());
    } while (run.out != expected && elapsed.elapsed() < 5000);
    CTL_EXPECT(run, 0);
    QCOMPARE(run.out, expected);

    run = ctl({"status", "--json"}, m_host->api());
    CTL_EXPECT(run, 0);
    const QJsonObject status = parseObject(run.out);
    QCOMPARE(status.value("id").toString(), m_host->id());
    QCOMPARE(status.value("role").toString(), QString("transcoder"));
    QCOMPARE(status.value("master").toObject().value("id").toString(), m_host->id());
    QCOMPARE(status.value("devices").toArray().size(), 1);
    QCOMPARE(status.value("devices").toArray().first().toObject().value("host").toString(), QString("127.0.0.1"));
}

void tst_tarvctl::hintsNameTarvctlCommands()
{
    requireHost();
    const Run run = ctl({"get", "/grouping/members"}, m_host->api());
    CTL_EXPECT(run, 1);
    QCOMPARE(run.err, QString("tarvctl: error (HTTP 404): Not found: /grouping/members is a list node, not a value; "
                              "read it with tarvctl rows /grouping/members\n"));
}

void tst_tarvctl::refusedInvokeExitsOneWithTheHandlersText_data()
{
    QTest::addColumn<QString>("value");
    QTest::addColumn<QString>("message");
    QTest::newRow("empty") << "{}" << "Empty grouping request";
    QTest::newRow("command 2") << R"({"groupingRequest":{"command":2}})" << "valid command ";
    QTest::newRow("join without master") << R"({"groupingRequest":{"command":1}})"
                                         << "Missing grouping master in request";
    QTest::newRow("join without id") << R"({"groupingRequest":{"command":1,"master":{"name":"x"}}})"
                                     << "Missing grouping master id";
    QTest::newRow("union without record") << R"({"groupingRequest":"join"})" << "Invalid command ";
    // The record itself, without the union's key, holds no request.
    QTest::newRow("bare record, leave") << R"({"command":-1})" << "Invalid command ";
    QTest::newRow("bare record, join without id") << R"({"command":1,"master":{"name":"x"}})" << "Invalid command ";
}

void tst_tarvctl::refusedInvokeExitsOneWithTheHandlersText()
{
    requireHost();
    QFETCH(QString, value);
    QFETCH(QString, message);
    const Run run = ctl({"invoke", "/grouping/request", value}, m_host->api());
    CTL_EXPECT(run, 1);
    QCOMPARE(run.out, QString());
    QVERIFY2(run.err.startsWith("tarvctl: error (HTTP 4"), qPrintable(run.err));
    QVERIFY2(run.err.endsWith("): " + message + "\n"), qPrintable(run.err));
}

void tst_tarvctl::saveAndGroupAgainstTheHost()
{
    requireHost();
    // Only this device, by its name: the saved group is cleared.
    Run run = ctl({"save", "Solo", "dev1"}, m_host->api());
    CTL_EXPECT(run, 0);
    QCOMPARE(run.out, QString("cleared the saved group\n"));
    // Without waiting, the module's answer.
    run = ctl({"save", "Solo", "--no-wait"}, m_host->api());
    CTL_EXPECT(run, 0);
    QCOMPARE(run.out, QString("true\n"));
    run = ctl({"group"}, m_host->api());
    CTL_EXPECT(run, 0);
    QVERIFY2(run.out.startsWith("saved group: none (cleared "), qPrintable(run.out));
    QVERIFY2(run.out.endsWith("follows: nobody, this device is its own master\n"), qPrintable(run.out));

    // A group with another member, written as the setting a device keeps.
    run = ctl({"set", "/settings/grouping/persistentGroup",
               QStringLiteral(R"({"groupingPersistentGroup": {"name": "Home", "members": ["%1", "far-away"], "timestamp": 1700000000123}})")
                   .arg(m_host->id())},
              m_host->api());
    CTL_EXPECT(run, 0);
    run = ctl({"group"}, m_host->api());
    CTL_EXPECT(run, 0);
    QCOMPARE(run.out, QStringLiteral("saved group: Home, saved 2023-11-14T22:13:20.123Z\n"
                                     "  %1  dev1 (this device)\n"
                                     "  far-away  (not online)\n"
                                     "follows: nobody, this device is its own master\n")
                          .arg(m_host->id()));
    run = ctl({"group", "--json"}, m_host->api());
    CTL_EXPECT(run, 0);
    const QJsonObject answer = parseObject(run.out);
    QCOMPARE(answer.value("self").toString(), m_host->id());
    QCOMPARE(answer.value("savedGroup").toObject().value("name").toString(), QString("Home"));
    QCOMPARE(answer.value("members").toArray().size(), 2);
    QCOMPARE(answer.value("master").toObject().value("id").toString(), m_host->id());

    // A device that is not online cannot be named; nothing is sent.
    run = ctl({"save", "Nobody", "nobody-here"}, m_host->api());
    CTL_EXPECT(run, 1);
    QCOMPARE(run.err, QString("tarvctl: save: no device with id or name 'nobody-here' in /system/members\n"));
    // No device at all clears it.
    run = ctl({"save", "Home"}, m_host->api());
    CTL_EXPECT(run, 0);
    QCOMPARE(run.out, QString("cleared the saved group\n"));
    run = ctl({"group"}, m_host->api());
    QVERIFY2(run.out.startsWith("saved group: none (cleared "), qPrintable(run.out));
}

void tst_tarvctl::rowsShowsTheOwnMembership()
{
    requireHost();
    // The module writes its own row once the device's record is known.
    Run run;
    QElapsedTimer elapsed;
    elapsed.start();
    do {
        run = ctl({"rows", "/grouping/members"}, m_host->api());
    } while (!run.out.contains("follower dev1 -> master dev1") && elapsed.elapsed() < 5000);
    CTL_EXPECT(run, 0);
    QVERIFY2(run.out.startsWith("/grouping/members"), qPrintable(run.out));
    QVERIFY2(run.out.contains("\nID "), qPrintable(run.out));
    QVERIFY2(run.out.contains(m_host->id() + "  101 member  dev1"), qPrintable(run.out));
    QVERIFY2(run.out.contains("follower dev1 -> master dev1"), qPrintable(run.out));
}

void tst_tarvctl::treeShowsTheModulesList()
{
    requireHost();
    const Run run = ctl({"tree"}, m_host->api());
    CTL_EXPECT(run, 0);
    QVERIFY2(run.out.contains("[list]  \"VopGrouping\""), qPrintable(run.out));
    QVERIFY2(run.out.contains("  /grouping/request  [action]"), qPrintable(run.out));
    QVERIFY2(run.out.contains("\nvalues ("), qPrintable(run.out));
    QVERIFY2(run.out.contains("\n  /settings/device/name\n"), qPrintable(run.out));
}

void tst_tarvctl::watchSeesTheValueEventOfASet()
{
    requireHost();
    QProcess watch;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("TARV_API", m_host->api());
    watch.setProcessEnvironment(environment);
    EmulatedProgram::start(watch, TARVCTL_BINARY, {"--verbose", "watch", "/settings/streaming/requestTimeout", "--count", "1",
                                 "--timeout-ms", "8000"});
    QVERIFY(watch.waitForStarted(5000));
    watch.setReadChannel(QProcess::StandardError);
    // With --verbose the client says when the host has subscribed it; a set
    // after that cannot be missed.
    QByteArray err;
    QElapsedTimer elapsed;
    elapsed.start();
    while (!err.contains("Event stream open") && elapsed.elapsed() < 5000) {
        if (watch.waitForReadyRead(100))
            err += watch.readAllStandardError();
        if (watch.state() == QProcess::NotRunning)
            break;
    }
    QVERIFY2(err.contains("Event stream open"), err.constData());

    const Run set = ctl({"set", "/settings/streaming/requestTimeout", "--int", "1300"}, m_host->api());
    CTL_EXPECT(set, 0);
    QVERIFY(watch.waitForFinished(8000));
    QCOMPARE(watch.exitStatus(), QProcess::NormalExit);
    QCOMPARE(watch.exitCode(), 0);
    QCOMPARE(QString::fromUtf8(watch.readAllStandardOutput()), QString("value /settings/streaming/requestTimeout = 1300\n"));
}

// Two hosts that find each other on loopback: the grouping list of one
// offers the other, and tarvctl ui works it as a user would.
void tst_tarvctl::uiShowsJoinsAndLeavesTheGroupingList()
{
    requireHost();
#ifdef TARV_HOST_BINARY
    QDir work(m_work.path());
    QVERIFY(work.mkpath("ui-kitchen") && work.mkpath("ui-cellar"));
    HostProcess kitchen(QStringLiteral(TARV_HOST_BINARY), QStringLiteral(TARV_MODULE), work.filePath("ui-kitchen"));
    HostProcess cellar(QStringLiteral(TARV_HOST_BINARY), QStringLiteral(TARV_MODULE), work.filePath("ui-cellar"));
    const int discoveryPort = HostProcess::freeUdpPort();
    kitchen.setDiscoveryPort(discoveryPort);
    cellar.setDiscoveryPort(discoveryPort);
    // Both run on this machine: kitchen's announcements to cellar at
    // 127.0.0.1 would reach kitchen's own listener (the request port is
    // the sender's), which would act on its own goodbye. Under a name that
    // does not resolve cellar is still listed and joined, and kitchen sends
    // nothing.
    cellar.setHostName(QStringLiteral("cellar.invalid"));
    QString error;
    QVERIFY2(kitchen.start({"--name", "kitchen", "--discovery-ms", "300"}, &error), qPrintable(error));
    QVERIFY2(cellar.start({"--name", "cellar", "--discovery-ms", "300"}, &error), qPrintable(error));
    const QString offered = QStringLiteral("Transcoders\n    cellar  [%1]\n").arg(cellar.id());
    const QString followed = QStringLiteral("Transcoders\n  > cellar  [%1]  following\n").arg(cellar.id());

    Run run;
    QElapsedTimer elapsed;
    elapsed.start();
    do {
        run = ctl({"ui"}, kitchen.api());
    } while (run.out != offered && elapsed.elapsed() < 10000);
    CTL_EXPECT(run, 0);
    QCOMPARE(run.out, offered);

    // A watcher subscribed before the join draws the list, then the list
    // with cellar followed.
    QProcess watch;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("TARV_API", kitchen.api());
    watch.setProcessEnvironment(environment);
    EmulatedProgram::start(watch, TARVCTL_BINARY, {"--verbose", "ui", "--watch", "--count", "2", "--timeout-ms", "10000"});
    QVERIFY(watch.waitForStarted(5000));
    QByteArray err;
    elapsed.restart();
    while (!err.contains("Event stream open") && elapsed.elapsed() < 5000 && watch.state() != QProcess::NotRunning) {
        if (watch.waitForReadyRead(100))
            err += watch.readAllStandardError();
    }
    QVERIFY2(err.contains("Event stream open"), err.constData());

    run = ctl({"ui", "join", "cellar"}, kitchen.api());
    CTL_EXPECT(run, 0);
    QCOMPARE(run.out, QStringLiteral("joined cellar\n"));
    QVERIFY(watch.waitForFinished(10000));
    QCOMPARE(watch.exitStatus(), QProcess::NormalExit);
    QCOMPARE(watch.exitCode(), 0);
    QCOMPARE(QString::fromUtf8(watch.readAllStandardOutput()), offered + "\n" + followed);

    run = ctl({"ui"}, kitchen.api());
    CTL_EXPECT(run, 0);
    QCOMPARE(run.out, followed);
    // Joining the followed one again would mean leaving it: nothing is done.
    run = ctl({"ui", "join", cellar.id()}, kitchen.api());
    CTL_EXPECT(run, 0);
    QCOMPARE(run.out, QStringLiteral("ui join: already following cellar [%1]\n").arg(cellar.id()));

    run = ctl({"ui", "leave"}, kitchen.api());
    CTL_EXPECT(run, 0);
    QCOMPARE(run.out, QString("left cellar\n"));
    elapsed.restart();
    do {
        run = ctl({"ui"}, kitchen.api());
    } while (run.out != offered && elapsed.elapsed() < 5000);
    QCOMPARE(run.out, offered);

    // The same through the grouping request, naming cellar by its name.
    run = ctl({"join", "cellar"}, kitchen.api());
    CTL_EXPECT(run, 0);
    QCOMPARE(run.out, QString("joined cellar\n"));
    run = ctl({"status"}, kitchen.api());
    CTL_EXPECT(run, 0);
    QVERIFY2(run.out.contains(QStringLiteral("  role:         receiver\n  master:       cellar [%1]\n").arg(cellar.id())),
             qPrintable(run.out));
    run = ctl({"leave"}, kitchen.api());
    CTL_EXPECT(run, 0);
    QCOMPARE(run.out, QString("left cellar\n"));
    QVERIFY2(!kitchen.output().contains("as it is this device!"), qPrintable(kitchen.output().right(2000)));

    QVERIFY2(kitchen.stop(), qPrintable(kitchen.output().right(2000)));
    QVERIFY2(cellar.stop(), qPrintable(cellar.output().right(2000)));
#endif
}

void tst_tarvctl::jsonOutputParses_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("key");
    QTest::newRow("host") << QStringList{"host"} << "id";
    QTest::newRow("get") << QStringList{"get", "/system/member"} << "value";
    QTest::newRow("set") << QStringList{"set", "/settings/streaming/stopTimeout", "--int", "5000"} << "value";
    QTest::newRow("invoke") << QStringList{"invoke", "/grouping/request", R"({"groupingRequest":{"command":-1}})"} << "result";
    QTest::newRow("rows") << QStringList{"rows", "/system/members"} << "rows";
    QTest::newRow("tree") << QStringList{"tree"} << "nodes";
    QTest::newRow("error") << QStringList{"get", "/nope"} << "error";
}

void tst_tarvctl::jsonOutputParses()
{
    requireHost();
    QFETCH(QStringList, arguments);
    QFETCH(QString, key);
    const Run run = ctl(QStringList{"--json"} + arguments, m_host->api());
    CTL_EXPECT(run, key == "error" ? 1 : 0);
    const QJsonObject object = parseObject(run.out);
    QVERIFY2(object.contains(key), qPrintable(run.out));
    if (key == "id")
        QCOMPARE(object.value("id").toString(), m_host->id());
}

void tst_tarvctl::everyErrorExitCodeAgainstTheHost()
{
    requireHost();
    Run run = ctl({"get", "/nope"}, m_host->api());
    CTL_EXPECT(run, 1);
    QCOMPARE(run.err, QString("tarvctl: error (HTTP 404): Not found: No value at /nope\n"));

    run = ctl({"rows", "/system/member"}, m_host->api());
    CTL_EXPECT(run, 1);
    QVERIFY2(run.err.contains("/system/member is a value, not a list"), qPrintable(run.err));

    run = ctl({"set", "/settings/device/name", "kitchen"}, m_host->api());
    CTL_EXPECT(run, 2);

    const QString closed = QString("http://127.0.0.1:%1").arg(HostProcess::freeUdpPort());
    run = ctl({"host"}, closed);
    CTL_EXPECT(run, 3);
    QCOMPARE(run.err, "tarvctl: error: cannot connect to " + closed + " (is tarv-host running there?)\n");

    run = ctl({"watch", "/nothing/here", "--count", "1", "--timeout-ms", "300"}, m_host->api());
    CTL_EXPECT(run, 4);
    QCOMPARE(run.err, QString("tarvctl: timeout: 0 of 1 events within 300 ms\n"));
}

void tst_tarvctl::setSurvivesARestart()
{
    requireHost();
    Run run = ctl({"set", "/settings/device/name", "--string", "kitchen"}, m_host->api());
    CTL_EXPECT(run, 0);
    QCOMPARE(run.out, QString("/settings/device/name = kitchen\n"));
    QVERIFY2(m_host->stop(), qPrintable(m_host->output().right(2000)));

    // Without --name, which would win over the kept setting.
    QString error;
    QVERIFY2(m_host->start({}, &error), qPrintable(error));
    run = ctl({"get", "/settings/device/name"}, m_host->api());
    CTL_EXPECT(run, 0);
    QCOMPARE(run.out, QString("kitchen\n"));
    run = ctl({"host"}, m_host->api());
    QVERIFY2(run.out.contains("name:         kitchen\n"), qPrintable(run.out));
}

QTEST_GUILESS_MAIN(tst_tarvctl)
#include "tst_tarvctl.moc"
