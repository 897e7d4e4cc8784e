#include <QJsonArray>
#include <QJsonDocument>
#include <QtTest>

#include "LogCapture.h"

#include "CannedServer.h"
#include "CommandRun.h"
#include "CtlCommand.h"
#include "RawTcpServer.h"

namespace {

const QByteArray systemMembers = R"({"path":"/system/members","title":"SystemMembers","rows":[
    {"id":"a","type":0,"title":"dev1","path":"","value":{"systemMember":{"id":"a","name":"dev1","host":"h1","transcoder":true}}},
    {"id":"b","type":0,"title":"dev2","path":"","value":{"systemMember":{"id":"b","name":"dev2","host":"h2","transcoder":true}}}]})";

const QByteArray transcodersList = R"({"path":"/ui/grouping","title":"Transcoders","loading":false,"rows":[
    {"id":"c-3","type":102,"title":"kitchen","path":"/ui/grouping/joinTranscoder/c-3"},
    {"id":"a-1","type":102,"title":"   >   living room","path":"/ui/grouping/leave"},
    {"id":"t1","type":102,"title":"twin","path":"/ui/grouping/joinTranscoder/t1"},
    {"id":"t2","type":102,"title":"twin","path":"/ui/grouping/joinTranscoder/t2"}]})";

// How tarvctl ui prints that list.
const QString transcodersListText = QStringLiteral("Transcoders\n"
                                                   "    kitchen      [c-3]\n"
                                                   "  > living room  [a-1]  following\n"
                                                   "    twin         [t1]\n"
                                                   "    twin         [t2]\n");

// The host of the waiting tests: this device is "me" and follows "a".
const QByteArray meHost = R"({"id":"me","name":"dev3","host":"h3","address":"10.0.0.3","requestPort":41230,"version":"0.1.0"})";
const QByteArray meFollowsA = R"({"path":"/grouping/members","title":"","rows":[
    {"id":"me","type":101,"title":"dev3","value":{"groupingMember":{"follower":{"id":"me","name":"dev3"},"master":{"id":"a","name":"dev1"}}}}]})";

// A rows event of /grouping/members whose new row is `follower`'s and names `master`.
QByteArray ownRowEvent(const char* follower, const char* master)
{
    return QByteArray("event: rows\ndata: {\"path\":\"/grouping/members\",\"new\":{\"id\":\"") + follower
        + "\",\"type\":101,\"value\":{\"groupingMember\":{\"follower\":{\"id\":\"" + follower
        + "\"},\"master\":{\"id\":\"" + master + "\"}}}},\"old\":{}}\n\n";
}

// The answers of device "me" (dev3), which follows a, to the reads a
// waiting command makes, and a request that is taken.
void answerAsDevice3FollowingA(CannedServer& server)
{
    server.answer("GET", "/api/v1/host", 200, meHost);
    server.answer("GET", "/api/v1/rows?path=/system/members", 200, systemMembers);
    server.answer("GET", "/api/v1/rows?path=/grouping/members", 200, meFollowsA);
    server.answer("POST", "/api/v1/invoke", 200, R"({"result":true})");
}

// A value event of the saved-group setting.
QByteArray savedGroupEvent(const char* name, const char* membersJson)
{
    return QByteArray("event: value\ndata: {\"path\":\"/settings/grouping/persistentGroup\",\"value\":"
                      "{\"groupingPersistentGroup\":{\"name\":\"")
        + name + "\",\"members\":" + membersJson + ",\"timestamp\":1700000000000}}}\n\n";
}

const QByteArray completionReply =
    R"({"result":{"xclass":"TarvActionReply","result":{"path":"/ui/grouping"},"events":[{"path":"/ui/grouping","rowsType":1}]}})";

} // namespace

class tst_CtlCommand : public QObject
{
    Q_OBJECT

private:
    LogCapture m_log;

private Q_SLOTS:
    void init() { m_log.clear(); }

    void hostPrintsTheDeviceReadably();
    void jsonPrintsTheAnswerAsJson();
    void getPrintsTheSingleView();
    void setSendsTheValueAndPrintsWhatWasStored_data();
    void setSendsTheValueAndPrintsWhatWasStored();
    void setWithBadJsonSendsNothing();
    void invokeSendsTheValueAndPrintsTheResult();
    void invokeRefusedPrintsTheHostsError();
    void leaveSendsTheLeaveCommand();
    void joinTakesNameAndHostFromTheDeviceList();
    void joinWithNameAndHostAsksNothingElse();
    void joinOfAnUnknownDeviceSendsNothing();
    void joinByNameOrIdWaitsUntilItsOwnRowNamesTheMaster_data();
    void joinByNameOrIdWaitsUntilItsOwnRowNamesTheMaster();
    void joinOfANameTwoDevicesHaveSendsNothing();
    void joinWithoutTheChangeSaysTheDeviceRefused();
    void joinRefusedByTheHostIsNotWaitedFor();
    void leaveWaitsUntilItsOwnRowNamesItself();
    void uiJoinAndUiLeaveWaitForTheChange();
    void statusShowsThisDeviceAndTheLan();
    void hintsNameTarvctlCommands_data();
    void hintsNameTarvctlCommands();
    void uiPrintsTheGroupingList();
    void uiJoinActivatesTheJoinActionOfTheRow_data();
    void uiJoinActivatesTheJoinActionOfTheRow();
    void uiJoinOfTheFollowedTranscoderActivatesNothing();
    void uiJoinThatNamesNoSingleTranscoderActivatesNothing_data();
    void uiJoinThatNamesNoSingleTranscoderActivatesNothing();
    void uiJoinRefusedPrintsTheRefusal();
    void uiLeaveActivatesTheLeaveAction();
    void uiWatchDrawsTheListAndRereadsItOnlyForItsOwnEvents();
    void uiWatchWithTooFewListsTimesOut();
    void saveNamesDevicesByIdOrNameAndSendsTheSavedGroup();
    void saveWithoutDevicesClearsAndAsksNothingElse();
    void saveOfADeviceItCannotNameSendsNothing_data();
    void saveOfADeviceItCannotNameSendsNothing();
    void saveRefusedPrintsTheHostsError();
    void saveWaitsUntilTheSettingHoldsTheGroup_data();
    void saveWaitsUntilTheSettingHoldsTheGroup();
    void saveTheDeviceDidNotKeepIsNoChange();
    void rowsPrintsATable();
    void treePrintsNodesAndValues();
    void watchPrintsEventsUnderThePrefixUpToTheCount();
    void watchJsonPrintsOneObjectPerLine();
    void watchWithTooFewEventsTimesOut();
    void watchForADurationEndsWell();
    void failuresEndWithTheirExitCode_data();
    void failuresEndWithTheirExitCode();
    void badApiUrlIsAUsageError();
    void helpAndVersionNeedNoHost();
    void textFromTheHostCannotDriveTheTerminal();
    void statusWithoutASavedGroupNamesNone();
    void deviceIsFoundByIdThenByNameIgnoringCase_data();
    void deviceIsFoundByIdThenByNameIgnoringCase();
    void deviceThatIsTheHostItselfIsTalkedToDirectly_data();
    void deviceThatIsTheHostItselfIsTalkedToDirectly();
    void deviceThatNamesNoSingleDeviceSendsNothing_data();
    void deviceThatNamesNoSingleDeviceSendsNothing();
    void deviceCommandsSendExactlyTheForwardedRequests_data();
    void deviceCommandsSendExactlyTheForwardedRequests();
    void deviceChangesAreAwaitedByReadingTheDevice_data();
    void deviceChangesAreAwaitedByReadingTheDevice();
    void deviceChangeThatNeverShowsIsNoChange_data();
    void deviceChangeThatNeverShowsIsNoChange();
    void forwardingErrorsEndWithTheirExitCode_data();
    void forwardingErrorsEndWithTheirExitCode();
    void deviceFromTheEnvironmentIsUsedUnlessGiven();
};

void tst_CtlCommand::hostPrintsTheDeviceReadably()
{
    CannedServer server;
    server.answer("GET", "/api/v1/host",
                  200, R"({"id":"a","name":"dev1","host":"h1","address":"10.0.0.1","requestPort":41230,"version":"0.1.0"})");
    const CommandRun result = CommandRun::of({"--api", server.api(), "host"});
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.err, QString());
    QCOMPARE(result.out, QString("id:           a\nname:         dev1\nhost:         h1\naddress:      10.0.0.1\n"
                                 "request port: 41230\nversion:      0.1.0\n"));
    QCOMPARE(m_log.count(log4cplus::DEBUG_LOG_LEVEL, "Running host against " + server.api(), "CtlCommand"), 1);
}

void tst_CtlCommand::jsonPrintsTheAnswerAsJson()
{
    CannedServer server;
    const QByteArray body = R"({"path":"/system/member","value":{"systemMember":{"id":"a","name":"dev1"}}})";
    server.answer("GET", "/api/v1/value", 200, body);
    const CommandRun result = CommandRun::of({"get", "/system/member", "--json"}, server.api());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(CommandRun::parseObject(result.out), QJsonDocument::fromJson(body).object());
}

void tst_CtlCommand::getPrintsTheSingleView()
{
    CannedServer server;
    server.answer("GET", "/api/v1/value", 200, R"({"path":"/settings/device/name","value":{"string_":"dev1"}})");
    const CommandRun result = CommandRun::of({"get", "/settings/device/name"}, server.api());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, QString("dev1\n"));
    QCOMPARE(server.received().value(0).params.value("path"), QString("/settings/device/name"));
}

void tst_CtlCommand::setSendsTheValueAndPrintsWhatWasStored_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("sent");
    QTest::newRow("--string") << QStringList{"--string", "kitchen one"} << QByteArray(R"({"string_":"kitchen one"})");
    QTest::newRow("--int") << QStringList{"--int", "-5"} << QByteArray(R"({"i32_":-5})");
    QTest::newRow("--int=") << QStringList{"--int=6000"} << QByteArray(R"({"i32_":6000})");
    QTest::newRow("json") << QStringList{R"({ "i32_" : 7 })"} << QByteArray(R"({"i32_":7})");
    QTest::newRow("json record") << QStringList{R"({"playerData":{"state":1}})"}
                                 << QByteArray(R"({"playerData":{"state":1}})");
}

void tst_CtlCommand::setSendsTheValueAndPrintsWhatWasStored()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, sent);
    CannedServer server;
    server.answer("PUT", "/api/v1/value", 200, R"({"path":"/p","value":)" + sent + "}");
    const CommandRun result = CommandRun::of(QStringList{"set", "/p"} + arguments, server.api());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(server.received().size(), 1);
    QCOMPARE(server.received().first().method, QString("PUT"));
    QCOMPARE(server.received().first().body, sent);
    QVERIFY2(result.out.startsWith("/p = "), qPrintable(result.out));
}

void tst_CtlCommand::setWithBadJsonSendsNothing()
{
    CannedServer server;
    const CommandRun result = CommandRun::of({"set", "/settings/device/name", "kitchen"}, server.api());
    QCOMPARE(result.exitCode, 2);
    QCOMPARE(result.out, QString());
    QCOMPARE(result.err, QString("tarvctl: set: VALUE is not valid JSON (illegal number at character 1): kitchen; "
                                 "for a plain text use --string\n"));
    QVERIFY(server.received().isEmpty());
}

void tst_CtlCommand::invokeSendsTheValueAndPrintsTheResult()
{
    CannedServer server;
    server.answer("POST", "/api/v1/invoke", 200, R"({"result":true})");
    CommandRun result = CommandRun::of({"invoke", "/grouping/request", R"({"groupingRequest":{"command":-1}})", "--timeout-ms", "700"}, server.api());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, QString("true\n"));
    result = CommandRun::of({"invoke", "/x"}, server.api());
    QCOMPARE(result.exitCode, 0);

    const QList<CannedServer::Received> received = server.received();
    QCOMPARE(received.size(), 2);
    QCOMPARE(received.at(0).body, QByteArray(R"({"groupingRequest":{"command":-1}})"));
    QCOMPARE(received.at(0).params.value("timeout_ms"), QString("700"));
    QCOMPARE(received.at(1).body, QByteArray("{}"));
    QVERIFY(!received.at(1).params.contains("timeout_ms"));
}

void tst_CtlCommand::invokeRefusedPrintsTheHostsError()
{
    CannedServer server;
    const QByteArray error = R"({"error":{"name":"Error","title":"Error","message":"valid command "}})";
    server.answer("POST", "/api/v1/invoke", 422, error);
    CommandRun result = CommandRun::of({"invoke", "/grouping/request", R"({"groupingRequest":{"command":2}})"}, server.api());
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.out, QString());
    QCOMPARE(result.err, QString("tarvctl: error (HTTP 422): valid command \n"));

    result = CommandRun::of({"invoke", "/grouping/request", R"({"groupingRequest":{"command":2}})", "--json"}, server.api());
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(CommandRun::parseObject(result.out), QJsonDocument::fromJson(error).object());
    QCOMPARE(result.err, QString("tarvctl: error (HTTP 422): valid command \n"));
}

void tst_CtlCommand::leaveSendsTheLeaveCommand()
{
    CannedServer server;
    server.answer("POST", "/api/v1/invoke", 200, R"({"result":true})");
    const CommandRun result = CommandRun::of({"leave", "--no-wait"}, server.api());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, QString("true\n"));
    QCOMPARE(server.received().size(), 1);
    QCOMPARE(server.received().first().params.value("path"), QString("/grouping/request"));
    QCOMPARE(server.received().first().body, QByteArray(R"({"groupingRequest":{"command":-1}})"));
}

void tst_CtlCommand::joinTakesNameAndHostFromTheDeviceList()
{
    CannedServer server;
    server.answer("GET", "/api/v1/rows", 200, systemMembers);
    server.answer("POST", "/api/v1/invoke", 200, R"({"result":true})");
    const CommandRun result = CommandRun::of({"join", "b", "--timeout-ms", "900", "--no-wait"}, server.api());
    QCOMPARE(result.exitCode, 0);
    const QList<CannedServer::Received> received = server.received();
    QCOMPARE(received.size(), 2);
    QCOMPARE(received.at(0).params.value("path"), QString("/system/members"));
    QCOMPARE(received.at(1).params.value("path"), QString("/grouping/request"));
    QCOMPARE(received.at(1).params.value("timeout_ms"), QString("900"));
    QCOMPARE(QJsonDocument::fromJson(received.at(1).body).object(),
             QJsonDocument::fromJson(R"({"groupingRequest":{"command":1,"master":{"id":"b","name":"dev2","host":"h2"}}})").object());
}

void tst_CtlCommand::joinWithNameAndHostAsksNothingElse()
{
    CannedServer server;
    server.answer("POST", "/api/v1/invoke", 200, R"({"result":true})");
    const CommandRun result = CommandRun::of({"join", "z", "--name", "far", "--host", "10.0.0.9", "--no-wait"}, server.api());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(server.received().size(), 1);
    QCOMPARE(QJsonDocument::fromJson(server.received().first().body).object(),
             QJsonDocument::fromJson(R"({"groupingRequest":{"command":1,"master":{"id":"z","name":"far","host":"10.0.0.9"}}})").object());
}

void tst_CtlCommand::joinOfAnUnknownDeviceSendsNothing()
{
    CannedServer server;
    server.answer("GET", "/api/v1/rows", 200, systemMembers);
    const CommandRun result = CommandRun::of({"join", "nobody"}, server.api());
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.err, QString("tarvctl: join: no device with the id or name 'nobody' in /system/members (tarvctl "
                                 "status lists them); give --name and --host to join it anyway\n"));
    QCOMPARE(server.received().size(), 1); // the lookup only
}

void tst_CtlCommand::joinByNameOrIdWaitsUntilItsOwnRowNamesTheMaster_data()
{
    QTest::addColumn<QString>("target");
    QTest::newRow("by id") << "b";
    QTest::newRow("by name") << "dev2";
}

void tst_CtlCommand::joinByNameOrIdWaitsUntilItsOwnRowNamesTheMaster()
{
    QFETCH(QString, target);
    CannedServer server;
    answerAsDevice3FollowingA(server);
    // First the own row back to itself (the module leaves first), another
    // device's row naming b, then the own row naming b.
    server.stream("/api/v1/events",
                  {": tarv-host events\n\n", ownRowEvent("me", "me"), ownRowEvent("x", "b"), ownRowEvent("me", "b")},
                  true);
    const CommandRun result = CommandRun::of({"join", target, "--timeout-ms", "3000"}, server.api());
    QCOMPARE(result.err, QString());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, QString("joined dev2\n"));
    const QList<CannedServer::Received> received = server.received();
    QCOMPARE(received.size(), 5);
    QCOMPARE(received.at(0).params.value("path"), QString("/system/members"));
    QCOMPARE(received.at(1).path, QString("/api/v1/host"));
    QCOMPARE(received.at(2).params.value("path"), QString("/grouping/members"));
    QCOMPARE(received.at(3).path, QString("/api/v1/events"));
    QCOMPARE(received.at(4).params.value("path"), QString("/grouping/request"));
    QCOMPARE(QJsonDocument::fromJson(received.at(4).body).object(),
             QJsonDocument::fromJson(R"({"groupingRequest":{"command":1,"master":{"id":"b","name":"dev2","host":"h2"}}})").object());
}

void tst_CtlCommand::joinOfANameTwoDevicesHaveSendsNothing()
{
    CannedServer server;
    server.answer("GET", "/api/v1/rows", 200, R"({"path":"/system/members","rows":[
        {"id":"a","value":{"systemMember":{"id":"a","name":"twin","host":"h1"}}},
        {"id":"b","value":{"systemMember":{"id":"b","name":"twin","host":"h2"}}}]})");
    const CommandRun result = CommandRun::of({"join", "twin"}, server.api());
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.err, QString("tarvctl: join: 2 devices are named 'twin'; give the id: a, b\n"));
    QCOMPARE(server.received().size(), 1);
}

void tst_CtlCommand::joinWithoutTheChangeSaysTheDeviceRefused()
{
    CannedServer server;
    answerAsDevice3FollowingA(server);
    server.stream("/api/v1/events", {": tarv-host events\n\n", ownRowEvent("me", "a")}, true);
    QElapsedTimer elapsed;
    elapsed.start();
    const CommandRun result = CommandRun::of({"join", "b", "--timeout-ms", "400"}, server.api());
    QVERIFY2(elapsed.elapsed() >= 400, qPrintable(QString::number(elapsed.elapsed())));
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.out, QString());
    QCOMPARE(result.err, QString("tarvctl: no change: the device refused (see its log)\n"));
    QCOMPARE(server.received().last().params.value("path"), QString("/grouping/request"));
}

void tst_CtlCommand::joinRefusedByTheHostIsNotWaitedFor()
{
    CannedServer server;
    server.answer("GET", "/api/v1/host", 200, meHost);
    server.answer("GET", "/api/v1/rows?path=/system/members", 200, systemMembers);
    server.answer("GET", "/api/v1/rows?path=/grouping/members", 200, meFollowsA);
    server.answer("POST", "/api/v1/invoke", 422,
                  R"({"error":{"name":"Simple Grouping","title":"Error","message":"Missing grouping master id"}})");
    server.stream("/api/v1/events", {": tarv-host events\n\n"}, true);
    QElapsedTimer elapsed;
    elapsed.start();
    const CommandRun result = CommandRun::of({"join", "b", "--timeout-ms", "5000"}, server.api());
    QVERIFY2(elapsed.elapsed() < 3000, qPrintable(QString::number(elapsed.elapsed())));
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.err, QString("tarvctl: error (HTTP 422): Missing grouping master id\n"));
}

void tst_CtlCommand::leaveWaitsUntilItsOwnRowNamesItself()
{
    CannedServer server;
    server.answer("GET", "/api/v1/host", 200, meHost);
    server.answer("GET", "/api/v1/rows?path=/grouping/members", 200, meFollowsA);
    server.answer("POST", "/api/v1/invoke", 200, R"({"result":true})");
    server.stream("/api/v1/events", {": tarv-host events\n\n", ownRowEvent("me", "a"), ownRowEvent("me", "me")}, true);
    CommandRun result = CommandRun::of({"leave", "--timeout-ms", "3000"}, server.api());
    QCOMPARE(result.err, QString());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, QString("left dev1\n"));
    QCOMPARE(server.received().last().body, QByteArray(R"({"groupingRequest":{"command":-1}})"));

    // --json: the host's answer, once the change came.
    result = CommandRun::of({"leave", "--timeout-ms", "3000", "--json"}, server.api());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(CommandRun::parseObject(result.out), QJsonObject({{"result", true}}));
}

void tst_CtlCommand::uiJoinAndUiLeaveWaitForTheChange()
{
    CannedServer server;
    server.answer("GET", "/api/v1/host", 200, meHost);
    server.answer("GET", "/api/v1/rows?path=/ui/grouping", 200, transcodersList);
    server.answer("GET", "/api/v1/rows?path=/grouping/members", 200, meFollowsA);
    server.answer("POST", "/api/v1/invoke", 200, completionReply);
    server.stream("/api/v1/events", {": tarv-host events\n\n", ownRowEvent("me", "c-3")}, true);
    CommandRun result = CommandRun::of({"ui", "join", "kitchen", "--timeout-ms", "3000"}, server.api());
    QCOMPARE(result.err, QString());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, QString("joined kitchen\n"));
    QCOMPARE(server.received().last().params.value("path"), QString("/ui/grouping/joinTranscoder/c-3"));

    // The same events do not show a leave.
    result = CommandRun::of({"ui", "leave", "--timeout-ms", "300"}, server.api());
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.err, QString("tarvctl: no change: the device refused (see its log)\n"));
    QCOMPARE(server.received().last().params.value("path"), QString("/ui/grouping/leave"));
}

void tst_CtlCommand::statusShowsThisDeviceAndTheLan()
{
    CannedServer server;
    server.answer("GET", "/api/v1/host", 200,
                  R"({"id":"a","name":"dev1","host":"h1","address":"10.0.0.1","requestPort":41230,"version":"0.1.0"})");
    server.answer("GET", "/api/v1/rows?path=/system/members", 200, R"({"path":"/system/members","rows":[
        {"id":"a","value":{"systemMember":{"id":"a","name":"dev1","host":"h1","ipAddress":"10.0.0.1","transcoder":true,
                                           "persistentGroupMembers":["b","gone"]}}},
        {"id":"b","value":{"systemMember":{"id":"b","name":"dev2","host":"h2","ipAddress":"10.0.0.2","transcoder":false}}},
        {"id":"cc","value":{"systemMember":{"id":"cc","name":"cellar","host":"h3","ipAddress":"10.0.0.3","transcoder":true}}}]})");
    server.answer("GET", "/api/v1/rows?path=/grouping/members", 200, R"({"path":"/grouping/members","rows":[
        {"id":"a","value":{"groupingMember":{"follower":{"id":"a","name":"dev1"},"master":{"id":"a","name":"dev1"}}}},
        {"id":"b","value":{"groupingMember":{"follower":{"id":"b","name":"dev2"},"master":{"id":"a","name":"dev1"}}}}]})");
    server.answer("GET", "/api/v1/value?path=/settings/grouping/persistentGroup", 200,
                  R"({"path":"/settings/grouping/persistentGroup","value":{"groupingPersistentGroup":
                      {"name":"Home","members":["a","b","gone"],"timestamp":1700000000000}}})");
    CommandRun result = CommandRun::of({"status"}, server.api());
    QCOMPARE(result.err, QString());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, QString("This device: dev1 [a]\n"
                                 "  role:         transcoder\n"
                                 "  master:       itself\n"
                                 "  followers:    dev2 [b]\n"
                                 "  saved group:  \"Home\": dev2 [b], gone\n"
                                 "Devices on the LAN: 3\n"
                                 "  dev1    [a]   transcoder  this device, saved group: dev2 [b], gone\n"
                                 "  dev2    [b]   receiver\n"
                                 "  cellar  [cc]  transcoder\n"));

    result = CommandRun::of({"status", "--json"}, server.api());
    QCOMPARE(result.exitCode, 0);
    const QJsonObject status = CommandRun::parseObject(result.out);
    QCOMPARE(status.value("id").toString(), QString("a"));
    QCOMPARE(status.value("role").toString(), QString("transcoder"));
    QCOMPARE(status.value("master").toObject(), QJsonObject({{"id", "a"}, {"name", "dev1"}}));
    QCOMPARE(status.value("savedGroupName").toString(), QString("Home"));
    QCOMPARE(status.value("followers").toArray(), QJsonArray({QJsonObject({{"id", "b"}, {"name", "dev2"}})}));
    QCOMPARE(status.value("savedGroup").toArray(),
             QJsonArray({QJsonObject({{"id", "b"}, {"name", "dev2"}}), QJsonObject({{"id", "gone"}, {"name", ""}})}));
    const QJsonArray devices = status.value("devices").toArray();
    QCOMPARE(devices.size(), 3);
    QCOMPARE(devices.at(1).toObject(),
             QJsonObject({{"id", "b"}, {"name", "dev2"}, {"host", "h2"}, {"ipAddress", "10.0.0.2"},
                          {"role", "receiver"}, {"savedGroup", QJsonArray()}}));
}

void tst_CtlCommand::hintsNameTarvctlCommands_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("message");
    QTest::addColumn<QString>("printed");
    QTest::newRow("get of a list")
        << QStringList{"get", "/grouping/members"}
        << "/grouping/members is a list node, not a value; read it with GET /api/v1/rows?path=/grouping/members"
        << "tarvctl: error (HTTP 404): Not found: /grouping/members is a list node, not a value; read it with tarvctl rows "
           "/grouping/members\n";
    QTest::newRow("rows of a value")
        << QStringList{"rows", "/system/member"}
        << "/system/member is a value, not a list; read it with GET /api/v1/value?path=/system/member"
        << "tarvctl: error (HTTP 404): Not found: /system/member is a value, not a list; read it with tarvctl get "
           "/system/member\n";
}

void tst_CtlCommand::hintsNameTarvctlCommands()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, message);
    QFETCH(QString, printed);
    CannedServer server;
    const QJsonObject error{{"error", QJsonObject{{"name", "NotFound"}, {"title", "Not found"}, {"message", message}}}};
    const QString endpoint = arguments.first() == "get" ? "/api/v1/value" : "/api/v1/rows";
    server.answer("GET", endpoint, 404, QJsonDocument(error).toJson(QJsonDocument::Compact));
    const CommandRun result = CommandRun::of(arguments, server.api());
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.err, printed);
}

void tst_CtlCommand::uiPrintsTheGroupingList()
{
    CannedServer server;
    server.answer("GET", "/api/v1/rows", 200, transcodersList);
    CommandRun result = CommandRun::of({"ui"}, server.api());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, transcodersListText);
    QCOMPARE(server.received().size(), 1);
    QCOMPARE(server.received().first().params.value("path"), QString("/ui/grouping"));

    result = CommandRun::of({"ui", "--json"}, server.api());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(CommandRun::parseObject(result.out), QJsonDocument::fromJson(transcodersList).object());
}

void tst_CtlCommand::uiJoinActivatesTheJoinActionOfTheRow_data()
{
    QTest::addColumn<QString>("target");
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("printed");
    QTest::newRow("by name") << "kitchen" << "/ui/grouping/joinTranscoder/c-3" << "join kitchen [c-3]: done\n";
    QTest::newRow("by id") << "c-3" << "/ui/grouping/joinTranscoder/c-3" << "join kitchen [c-3]: done\n";
    QTest::newRow("twin by id") << "t2" << "/ui/grouping/joinTranscoder/t2" << "join twin [t2]: done\n";
}

void tst_CtlCommand::uiJoinActivatesTheJoinActionOfTheRow()
{
    QFETCH(QString, target);
    QFETCH(QString, path);
    QFETCH(QString, printed);
    CannedServer server;
    server.answer("GET", "/api/v1/rows", 200, transcodersList);
    server.answer("POST", "/api/v1/invoke", 200, completionReply);
    CommandRun result = CommandRun::of({"ui", "join", target, "--timeout-ms", "800", "--no-wait"}, server.api());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, printed);
    QCOMPARE(result.err, QString());
    const QList<CannedServer::Received> received = server.received();
    QCOMPARE(received.size(), 2);
    QCOMPARE(received.at(0).params.value("path"), QString("/ui/grouping"));
    QCOMPARE(received.at(1).method, QString("POST"));
    QCOMPARE(received.at(1).params.value("path"), path);
    QCOMPARE(received.at(1).params.value("timeout_ms"), QString("800"));
    QCOMPARE(received.at(1).body, QByteArray("{}"));

    result = CommandRun::of({"ui", "join", target, "--json", "--no-wait"}, server.api());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(CommandRun::parseObject(result.out), QJsonDocument::fromJson(completionReply).object());
}

void tst_CtlCommand::uiJoinOfTheFollowedTranscoderActivatesNothing()
{
    CannedServer server;
    server.answer("GET", "/api/v1/rows", 200, transcodersList);
    server.answer("POST", "/api/v1/invoke", 200, completionReply);
    // Its row leads to the leave action.
    const CommandRun result = CommandRun::of({"ui", "join", "living room"}, server.api());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, QString("ui join: already following living room [a-1]\n"));
    QCOMPARE(server.received().size(), 1);
}

void tst_CtlCommand::uiJoinThatNamesNoSingleTranscoderActivatesNothing_data()
{
    QTest::addColumn<QByteArray>("list");
    QTest::addColumn<QString>("target");
    QTest::addColumn<QString>("error");
    QTest::newRow("unknown") << transcodersList << "cellar"
                             << "tarvctl: ui join: no transcoder 'cellar' in /ui/grouping (\"Transcoders\"); tarvctl ui "
                                "shows the list\n";
    QTest::newRow("two of that name") << transcodersList << "twin"
                                      << "tarvctl: ui join: 2 transcoders are named 'twin'; give the id: t1, t2\n";
    // While followed, the list offers no transcoder at all.
    QTest::newRow("followers shown")
        << QByteArray(R"({"path":"/ui/grouping","title":"List of followers","rows":[
               {"id":"0-followers-list","type":6,"title":"Can't join playback while having followers!"},
               {"id":"kitchen-follower","type":6,"title":"Follower: kitchen"}]})")
        << "kitchen"
        << "tarvctl: ui join: no transcoder 'kitchen' in /ui/grouping (\"List of followers\"); tarvctl ui shows the "
           "list\n";
}

void tst_CtlCommand::uiJoinThatNamesNoSingleTranscoderActivatesNothing()
{
    QFETCH(QByteArray, list);
    QFETCH(QString, target);
    QFETCH(QString, error);
    CannedServer server;
    server.answer("GET", "/api/v1/rows", 200, list);
    server.answer("POST", "/api/v1/invoke", 200, completionReply);
    const CommandRun result = CommandRun::of({"ui", "join", target}, server.api());
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.out, QString());
    QCOMPARE(result.err, error);
    QCOMPARE(server.received().size(), 1); // the list only
}

void tst_CtlCommand::uiJoinRefusedPrintsTheRefusal()
{
    CannedServer server;
    server.answer("GET", "/api/v1/rows", 200, transcodersList);
    server.answer("POST", "/api/v1/invoke", 422,
                  R"({"error":{"name":"Simple Grouping","title":"Error","message":"Previous grouping request not finished, reject request."}})");
    const CommandRun result = CommandRun::of({"ui", "join", "kitchen", "--no-wait"}, server.api());
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.out, QString());
    QCOMPARE(result.err, QString("tarvctl: error (HTTP 422): Previous grouping request not finished, reject request.\n"));
}

void tst_CtlCommand::uiLeaveActivatesTheLeaveAction()
{
    CannedServer server;
    server.answer("POST", "/api/v1/invoke", 200, completionReply);
    const CommandRun result = CommandRun::of({"ui", "leave", "--no-wait"}, server.api());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, QString("leave: done\n"));
    QCOMPARE(server.received().size(), 1);
    QCOMPARE(server.received().first().params.value("path"), QString("/ui/grouping/leave"));
    QCOMPARE(server.received().first().body, QByteArray("{}"));
}

void tst_CtlCommand::uiWatchDrawsTheListAndRereadsItOnlyForItsOwnEvents()
{
    CannedServer server;
    server.answer("GET", "/api/v1/rows", 200, transcodersList);
    server.stream("/api/v1/events",
                  {"event: rows\ndata: {\"path\":\"/grouping/members\",\"new\":{\"id\":\"x\"},\"old\":{}}\n\n",
                   "event: value\ndata: {\"path\":\"/ui/grouping\",\"value\":{}}\n\n",
                   "event: rows\ndata: {\"path\":\"/ui/grouping/x\",\"new\":{\"id\":\"x\"},\"old\":{}}\n\n",
                   "event: rows\ndata: {\"path\":\"/ui/grouping\",\"new\":{\"id\":\"x\"},\"old\":{}}\n\n"},
                  true);
    const CommandRun result = CommandRun::of({"ui", "--watch", "--timeout-ms", "600"}, server.api());
    QCOMPARE(result.exitCode, 0);
    // The list did not change: drawn once, read again for its one event.
    QCOMPARE(result.out, transcodersListText);
    int listReads = 0;
    for (const CannedServer::Received& request : server.received())
        listReads += request.path == "/api/v1/rows" ? 1 : 0;
    QCOMPARE(listReads, 2);
}

void tst_CtlCommand::uiWatchWithTooFewListsTimesOut()
{
    CannedServer server;
    server.answer("GET", "/api/v1/rows", 200, transcodersList);
    server.stream("/api/v1/events", {": nothing\n\n"}, true);
    CommandRun result = CommandRun::of({"ui", "--watch", "--count", "2", "--timeout-ms", "300"}, server.api());
    QCOMPARE(result.exitCode, 4);
    QCOMPARE(result.err, QString("tarvctl: timeout: 1 of 2 lists within 300 ms\n"));
    QCOMPARE(result.out, transcodersListText);

    // One list asked for: the first drawing ends it.
    result = CommandRun::of({"ui", "--watch", "--count", "1", "--json", "--timeout-ms", "5000"}, server.api());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(CommandRun::parseObject(result.out), QJsonDocument::fromJson(transcodersList).object());
}

void tst_CtlCommand::saveNamesDevicesByIdOrNameAndSendsTheSavedGroup()
{
    CannedServer server;
    server.answer("GET", "/api/v1/rows", 200, systemMembers);
    server.answer("POST", "/api/v1/invoke", 200, R"({"result":true})");
    const CommandRun result = CommandRun::of({"save", "Home", "dev2", "a", "--timeout-ms", "900", "--no-wait"}, server.api());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, QString("true\n"));
    const QList<CannedServer::Received> received = server.received();
    QCOMPARE(received.size(), 2);
    QCOMPARE(received.at(0).params.value("path"), QString("/system/members"));
    QCOMPARE(received.at(1).params.value("path"), QString("/grouping/persistentGroup/save"));
    QCOMPARE(received.at(1).params.value("timeout_ms"), QString("900"));
    QCOMPARE(QJsonDocument::fromJson(received.at(1).body).object(),
             QJsonDocument::fromJson(R"({"groupingPersistentGroup":{"name":"Home","members":["b","a"]}})").object());
}

void tst_CtlCommand::saveWithoutDevicesClearsAndAsksNothingElse()
{
    CannedServer server;
    server.answer("POST", "/api/v1/invoke", 200, R"({"result":true})");
    const CommandRun result = CommandRun::of({"save", "", "--no-wait"}, server.api());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(server.received().size(), 1);
    QCOMPARE(QJsonDocument::fromJson(server.received().first().body).object(),
             QJsonDocument::fromJson(R"({"groupingPersistentGroup":{"name":"","members":[]}})").object());
}

void tst_CtlCommand::saveOfADeviceItCannotNameSendsNothing_data()
{
    QTest::addColumn<QByteArray>("members");
    QTest::addColumn<QString>("device");
    QTest::addColumn<QString>("error");
    QTest::newRow("unknown") << systemMembers << "kitchen"
                             << "tarvctl: save: no device with id or name 'kitchen' in /system/members\n";
    const QByteArray twins = R"({"path":"/system/members","title":"SystemMembers","rows":[
        {"id":"a","type":0,"title":"twin","value":{"systemMember":{"id":"a","name":"twin"}}},
        {"id":"b","type":0,"title":"twin","value":{"systemMember":{"id":"b","name":"twin"}}}]})";
    QTest::newRow("a shared name") << twins << "twin"
                                   << "tarvctl: save: 2 devices are named 'twin' (a, b); give the id\n";
}

void tst_CtlCommand::saveOfADeviceItCannotNameSendsNothing()
{
    QFETCH(QByteArray, members);
    QFETCH(QString, device);
    QFETCH(QString, error);
    CannedServer server;
    server.answer("GET", "/api/v1/rows", 200, members);
    server.answer("POST", "/api/v1/invoke", 200, R"({"result":true})");
    const CommandRun result = CommandRun::of({"save", "Home", "a", device}, server.api());
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.err, error);
    QCOMPARE(server.received().size(), 1); // the lookup only
}

void tst_CtlCommand::saveRefusedPrintsTheHostsError()
{
    CannedServer server;
    server.answer("GET", "/api/v1/rows", 200, systemMembers);
    server.answer("POST", "/api/v1/invoke", 422,
                  R"({"error":{"name":"Error","title":"Error","message":"Missing name in save request"}})");
    server.answer("GET", "/api/v1/host", 200, meHost);
    server.answer("GET", "/api/v1/rows?path=/grouping/members", 200, meFollowsA);
    server.stream("/api/v1/events", {": tarv-host events\n\n"}, true);
    QElapsedTimer elapsed;
    elapsed.start();
    const CommandRun result = CommandRun::of({"save", "", "dev2", "--timeout-ms", "5000"}, server.api());
    QVERIFY2(elapsed.elapsed() < 3000, qPrintable(QString::number(elapsed.elapsed())));
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.err, QString("tarvctl: error (HTTP 422): Missing name in save request\n"));
}

// The save is answered once written; the run ends when the setting holds
// the group (its name, the named devices and this one), ignoring other
// values of the setting on the way.
void tst_CtlCommand::saveWaitsUntilTheSettingHoldsTheGroup_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("event");
    QTest::addColumn<QString>("printed");
    QTest::newRow("a group") << QStringList{"save", "Home", "dev2"} << savedGroupEvent("Home", R"(["b","me"])")
                             << "saved Home\n";
    QTest::newRow("nobody clears") << QStringList{"save", "Home"} << savedGroupEvent("", "[]")
                                   << "cleared the saved group\n";
}

void tst_CtlCommand::saveWaitsUntilTheSettingHoldsTheGroup()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, event);
    QFETCH(QString, printed);
    CannedServer server;
    answerAsDevice3FollowingA(server);
    server.stream("/api/v1/events",
                  {": tarv-host events\n\n", savedGroupEvent("Home", R"(["me"])"), savedGroupEvent("Other", R"(["b","me"])"),
                   event},
                  true);
    const CommandRun result = CommandRun::of(arguments + QStringList{"--timeout-ms", "3000"}, server.api());
    QCOMPARE(result.err, QString());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, printed);
}

void tst_CtlCommand::saveTheDeviceDidNotKeepIsNoChange()
{
    CannedServer server;
    answerAsDevice3FollowingA(server);
    server.stream("/api/v1/events", {": tarv-host events\n\n", savedGroupEvent("Home", R"(["me"])")}, true);
    const CommandRun result = CommandRun::of({"save", "Home", "dev2", "--timeout-ms", "500"}, server.api());
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.out, QString());
    QCOMPARE(result.err, QString("tarvctl: no change: the device refused (see its log)\n"));
}

void tst_CtlCommand::rowsPrintsATable()
{
    CannedServer server;
    server.answer("GET", "/api/v1/rows", 200, systemMembers);
    const CommandRun result = CommandRun::of({"rows", "/system/members"}, server.api());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, QString("/system/members \"SystemMembers\": 2 rows\n"
                                 "ID  TYPE  TITLE  VALUE\n"
                                 "a   0     dev1   dev1 on h1, transcoder\n"
                                 "b   0     dev2   dev2 on h2, transcoder\n"));
}

void tst_CtlCommand::treePrintsNodesAndValues()
{
    CannedServer server;
    server.answer("GET", "/api/v1/tree", 200,
                  R"({"nodes":[{"path":"/modules/simpleGrouping","kind":"list","title":"VopGrouping","loading":false,"rows":[]}],"values":["/system/member"]})");
    const CommandRun result = CommandRun::of({"tree"}, server.api());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, QString("nodes (1):\n  /modules/simpleGrouping  [list]  \"VopGrouping\"  0 rows\n"
                                 "values (1):\n  /system/member\n"));
}

void tst_CtlCommand::watchPrintsEventsUnderThePrefixUpToTheCount()
{
    CannedServer server;
    server.stream("/api/v1/events",
                  {": tarv-host events\n\n",
                   "event: value\ndata: {\"path\":\"/system/member\",\"value\":{}}\n\n",
                   "event: value\ndata: {\"path\":\"/settingsX\",\"value\":{\"i32_\":0}}\n\n",
                   "event: value\ndata: not json\n\n",
                   "event: value\ndata: {\"path\":\"/settings/a\",\"value\":{\"i32_\":1}}\n\n",
                   "event: rows\ndata: {\"path\":\"/settings/l\",\"new\":{\"id\":\"r\",\"value\":{\"string_\":\"s\"}},\"old\":{}}\n\n",
                   "event: value\ndata: {\"path\":\"/settings/b\",\"value\":{\"i32_\":3}}\n\n"},
                  true);
    const CommandRun result = CommandRun::of({"watch", "/settings", "--count", "2", "--timeout-ms", "5000"}, server.api());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, QString("value /settings/a = 1\nrows /settings/l added r: s\n"));
    QCOMPARE(result.err, QString("tarvctl: ignored an event with malformed data: value (malformed data: not json)\n"));
}

void tst_CtlCommand::watchJsonPrintsOneObjectPerLine()
{
    CannedServer server;
    server.stream("/api/v1/events",
                  {"event: value\ndata: {\"path\":\"/a\",\"value\":{\"i32_\":1}}\n\n",
                   "event: rows\ndata: {\"path\":\"/l\",\"new\":{},\"old\":{\"id\":\"x\"}}\n\n"},
                  true);
    const CommandRun result = CommandRun::of({"watch", "--json", "--count", "2", "--timeout-ms", "5000"}, server.api());
    QCOMPARE(result.exitCode, 0);
    const QStringList lines = result.out.split('\n', Qt::SkipEmptyParts);
    QCOMPARE(lines.size(), 2);
    QCOMPARE(CommandRun::parseObject(lines.at(0)),
             QJsonDocument::fromJson(R"({"event":"value","data":{"path":"/a","value":{"i32_":1}}})").object());
    QCOMPARE(CommandRun::parseObject(lines.at(1)),
             QJsonDocument::fromJson(R"({"event":"rows","data":{"path":"/l","new":{},"old":{"id":"x"}}})").object());
}

void tst_CtlCommand::watchWithTooFewEventsTimesOut()
{
    CannedServer server;
    server.stream("/api/v1/events", {"event: value\ndata: {\"path\":\"/a\",\"value\":{}}\n\n"}, true);
    QElapsedTimer elapsed;
    elapsed.start();
    const CommandRun result = CommandRun::of({"watch", "--count", "3", "--timeout-ms", "300"}, server.api());
    QCOMPARE(result.exitCode, 4);
    QCOMPARE(result.out, QString("value /a = \n"));
    QCOMPARE(result.err, QString("tarvctl: timeout: 1 of 3 events within 300 ms\n"));
    QVERIFY2(elapsed.elapsed() < 2500, qPrintable(QString::number(elapsed.elapsed())));
}

void tst_CtlCommand::watchForADurationEndsWell()
{
    CannedServer server;
    server.stream("/api/v1/events", {"event: value\ndata: {\"path\":\"/a\",\"value\":{\"i32_\":2}}\n\n"}, true);
    const CommandRun result = CommandRun::of({"watch", "--timeout-ms", "300"}, server.api());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, QString("value /a = 2\n"));
    QCOMPARE(result.err, QString());
}

void tst_CtlCommand::failuresEndWithTheirExitCode_data()
{
    QTest::addColumn<QString>("setup");
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("err");
    QTest::newRow("api error") << "404" << QStringList{"get", "/nope"} << 1
                               << "tarvctl: error (HTTP 404): Not found: no such endpoint\n";
    QTest::newRow("bad answer") << "garbage" << QStringList{"host"} << 1
                                << "tarvctl: error: bad answer from the host: the answer to GET API/api/v1/host is not a JSON object: \"hello\"\n";
    QTest::newRow("cannot connect") << "closed" << QStringList{"host"} << 3
                                    << "tarvctl: error: cannot connect to API (is tarv-host running there?)\n";
    QTest::newRow("no answer") << "hold" << QStringList{"get", "/x", "--timeout-ms", "300"} << 4
                               << "tarvctl: timeout: no answer from API/api/v1/value?path=/x within 300 ms\n";
    QTest::newRow("gateway timeout") << "504" << QStringList{"invoke", "/x", "--timeout-ms", "100"} << 4
                                     << "tarvctl: timeout: the host answered 504: no reply came within the bound (no reply)\n";
    QTest::newRow("unknown command") << "404" << QStringList{"frob"} << 2
                                     << "tarvctl: unknown command 'frob' (see tarvctl --help)\n";
    QTest::newRow("unknown flag") << "404" << QStringList{"host", "--fast"} << 2
                                  << "tarvctl: unknown option '--fast' (see tarvctl --help)\n";
    QTest::newRow("bad invoke json") << "404" << QStringList{"invoke", "/x", "{"} << 2
                                     << "tarvctl: invoke: VALUE is not valid JSON (unterminated object at character 2): {\n";
}

void tst_CtlCommand::failuresEndWithTheirExitCode()
{
    QFETCH(QString, setup);
    QFETCH(QStringList, arguments);
    QFETCH(int, exitCode);
    QFETCH(QString, err);
    CannedServer server;
    QString api = server.api();
    if (setup == "garbage") {
        server.answer("GET", "/api/v1/host", 200, "hello", "text/plain");
    } else if (setup == "closed") {
        RawTcpServer gone{QByteArray()};
        api = gone.api();
    } else if (setup == "hold") {
        server.hold("GET", "/api/v1/value");
    } else if (setup == "504") {
        server.answer("POST", "/api/v1/invoke", 504, R"({"error":{"name":"Timeout","title":"No answer","message":"no reply"}})");
    }
    const CommandRun result = CommandRun::of(QStringList{"--api", api} + arguments);
    QCOMPARE(result.exitCode, exitCode);
    QCOMPARE(result.err, QString(err).replace("API", api));
    if (exitCode == 2)
        QVERIFY(server.received().isEmpty());
}

void tst_CtlCommand::badApiUrlIsAUsageError()
{
    CommandRun result = CommandRun::of({"--api", "https://dev1", "host"});
    QCOMPARE(result.exitCode, 2);
    QCOMPARE(result.err, QString("tarvctl: bad API URL (from --api): 'https://dev1': only http:// is supported by the "
                                 "control API\n"));
    result = CommandRun::of({"host"}, "ftp://dev1");
    QCOMPARE(result.exitCode, 2);
    QCOMPARE(result.err,
             QString("tarvctl: bad API URL (from TARV_API): 'ftp://dev1': only http:// is supported by the control API\n"));
}

void tst_CtlCommand::helpAndVersionNeedNoHost()
{
    CommandRun result = CommandRun::of({"--help"}, "http://127.0.0.1:1");
    QCOMPARE(result.exitCode, 0);
    QVERIFY(result.out.startsWith("Usage: tarvctl [options] COMMAND [arguments]\n"));
    QCOMPARE(result.err, QString());
    result = CommandRun::of({"--version"});
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, "tarvctl " + CtlCommand::version() + "\n");
    QVERIFY(!CtlCommand::version().isEmpty() && CtlCommand::version() != "unknown");
}

void tst_CtlCommand::textFromTheHostCannotDriveTheTerminal()
{
    // Names come from other devices on the LAN; an escape sequence in one
    // must reach the screen as text.
    CannedServer server;
    server.answer("GET", "/api/v1/rows", 200,
                  R"({"path":"/system/members","title":"SystemMembers","rows":[
                      {"id":"a","type":0,"title":"\u001b]0;owned\u0007","value":{"string_":"x\u001b[2J"}}]})");
    server.answer("GET", "/api/v1/value", 404, R"({"error":{"name":"NotFound","title":"Not found","message":"No \u009b2J"}})");
    server.stream("/api/v1/events", {"event: value\ndata: {\"path\":\"/a\",\"value\":{\"string_\":\"\\u001b[31mred\"}}\n\n"},
                  true);

    CommandRun result = CommandRun::of({"rows", "/system/members"}, server.api());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, QString("/system/members \"SystemMembers\": 1 row\n"
                                 "ID  TYPE  TITLE                 VALUE\n"
                                 "a   0     \\u001b]0;owned\\u0007  x\\u001b[2J\n"));
    result = CommandRun::of({"get", "/a"}, server.api());
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.err, QString("tarvctl: error (HTTP 404): Not found: No \\u009b2J\n"));
    result = CommandRun::of({"watch", "--count", "1", "--timeout-ms", "5000"}, server.api());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, QString("value /a = \\u001b[31mred\n"));
}

namespace {

// The house as host "me" (dev3) sees it: d2 is "Cellar", two devices
// share the name "twin" (in two cases), and "me" is itself.
const QByteArray houseRows = R"({"path":"/system/house","rows":[
    {"id":"me","value":{"houseMember":{"id":"me","name":"dev3","transcoder":false,"master":"a","api":null}}},
    {"id":"a","value":{"houseMember":{"id":"a","name":"dev1","transcoder":true,"master":"a","api":{"address":"10.0.0.1","port":8080}}}},
    {"id":"d2","value":{"houseMember":{"id":"d2","name":"Cellar","transcoder":false,"master":"a","api":{"address":"10.0.0.2","port":8080}}}},
    {"id":"t1","value":{"houseMember":{"id":"t1","name":"twin","transcoder":false,"master":"t1","api":{"address":"10.0.0.5","port":8080}}}},
    {"id":"t2","value":{"houseMember":{"id":"t2","name":"Twin","transcoder":false,"master":"t2","api":{"address":"10.0.0.6","port":8080}}}}]})";

void answerAsHostOfTheHouse(CannedServer& server)
{
    server.answer("GET", "/api/v1/host", 200, meHost);
    server.answer("GET", "/api/v1/rows?path=/system/house", 200, houseRows);
}

QStringList requestsOf(const CannedServer& server)
{
    QStringList requests;
    for (const CannedServer::Received& received : server.received()) {
        QString line = received.method + ' ' + received.path;
        for (auto it = received.params.constBegin(); it != received.params.constEnd(); ++it)
            line += ' ' + it.key() + '=' + it.value();
        requests.append(line);
    }
    return requests;
}

// Device d2's own row of /grouping/members, following `master`.
QByteArray d2Follows(const char* master)
{
    return QByteArray(R"({"path":"/grouping/members","rows":[
        {"id":"a","value":{"groupingMember":{"follower":{"id":"a"},"master":{"id":"a"}}}},
        {"id":"d2","value":{"groupingMember":{"follower":{"id":"d2","name":"Cellar"},"master":{"id":")")
        + master + R"(","name":"dev1"}}}}]})";
}

// The host of the house answering for device d2 ("Cellar"), which follows
// `master` and takes every request forwarded to it. An answer given later
// for one of these reads replaces this one.
void answerAsCellarFollowing(CannedServer& server, const char* master)
{
    answerAsHostOfTheHouse(server);
    server.answer("GET", "/api/v1/devices/d2/host", 200, R"({"id":"d2","name":"Cellar"})");
    server.answer("GET", "/api/v1/devices/d2/rows?path=/system/members", 200, systemMembers);
    server.answer("GET", "/api/v1/devices/d2/rows?path=/grouping/members", 200, d2Follows(master));
    server.answer("POST", "/api/v1/devices/d2/invoke", 200, R"({"result":true})");
}

QByteArray savedGroup(const char* name, const char* members, qint64 timestamp)
{
    return QByteArray(R"({"path":"/settings/grouping/persistentGroup","value":{"groupingPersistentGroup":{"name":")")
        + name + R"(","members":)" + members + R"(,"timestamp":)" + QByteArray::number(timestamp) + "}}}";
}

} // namespace

void tst_CtlCommand::statusWithoutASavedGroupNamesNone()
{
    CannedServer server;
    server.answer("GET", "/api/v1/host", 200, R"({"id":"a","name":"dev1"})");
    server.answer("GET", "/api/v1/rows?path=/system/members", 200, R"({"path":"/system/members","rows":[
        {"id":"a","value":{"systemMember":{"id":"a","name":"dev1","transcoder":true}}}]})");
    server.answer("GET", "/api/v1/rows?path=/grouping/members", 200, R"({"path":"/grouping/members","rows":[]})");
    server.answer("GET", "/api/v1/value?path=/settings/grouping/persistentGroup", 200,
                  savedGroup("", "[]", 1700000000000));
    const CommandRun result = CommandRun::of({"status"}, server.api());
    QCOMPARE(result.exitCode, 0);
    QVERIFY2(result.out.contains("\n  saved group:  none\n"), qPrintable(result.out));
}

void tst_CtlCommand::deviceIsFoundByIdThenByNameIgnoringCase_data()
{
    QTest::addColumn<QString>("device");
    QTest::addColumn<QString>("id");
    QTest::newRow("id") << "d2" << "d2";
    QTest::newRow("name") << "Cellar" << "d2";
    QTest::newRow("name in other case") << "cELLAR" << "d2";
    QTest::newRow("id of one of two twins") << "t2" << "t2";
}

void tst_CtlCommand::deviceIsFoundByIdThenByNameIgnoringCase()
{
    QFETCH(QString, device);
    QFETCH(QString, id);
    CannedServer server;
    answerAsHostOfTheHouse(server);
    server.answer("GET", "/api/v1/devices/" + id + "/value", 200, R"({"path":"/settings/device/name","value":{"string_":"far"}})");
    const CommandRun result = CommandRun::of({"--device", device, "get", "/settings/device/name"}, server.api());
    QCOMPARE(result.err, QString());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, QString("far\n"));
    QCOMPARE(requestsOf(server), QStringList({"GET /api/v1/host", "GET /api/v1/rows path=/system/house",
                                              "GET /api/v1/devices/" + id + "/value path=/settings/device/name"}));
    QCOMPARE(m_log.count(log4cplus::DEBUG_LOG_LEVEL, "Aiming at device " + id + " through " + server.api(),
                         "CtlCommand"),
             1);
}

void tst_CtlCommand::deviceThatIsTheHostItselfIsTalkedToDirectly_data()
{
    QTest::addColumn<QString>("device");
    QTest::addColumn<QStringList>("requests");
    QTest::newRow("own id") << "me"
                            << QStringList{"GET /api/v1/host", "GET /api/v1/value path=/settings/device/name"};
    QTest::newRow("own name") << "DEV3"
                              << QStringList{"GET /api/v1/host", "GET /api/v1/rows path=/system/house",
                                             "GET /api/v1/value path=/settings/device/name"};
}

void tst_CtlCommand::deviceThatIsTheHostItselfIsTalkedToDirectly()
{
    QFETCH(QString, device);
    QFETCH(QStringList, requests);
    CannedServer server;
    answerAsHostOfTheHouse(server);
    server.answer("GET", "/api/v1/value", 200, R"({"path":"/settings/device/name","value":{"string_":"dev3"}})");
    const CommandRun result = CommandRun::of({"get", "/settings/device/name", "--device", device}, server.api());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, QString("dev3\n"));
    QCOMPARE(requestsOf(server), requests);
    QCOMPARE(m_log.count(log4cplus::DEBUG_LOG_LEVEL, "Device " + device + " is the host itself", "CtlCommand"), 1);
}

void tst_CtlCommand::deviceThatNamesNoSingleDeviceSendsNothing_data()
{
    QTest::addColumn<QString>("device");
    QTest::addColumn<QString>("error");
    QTest::newRow("unknown") << "attic"
                             << "tarvctl: --device: no device with the id or name 'attic' in /system/house; "
                                "known: Cellar, dev1, dev3, Twin, twin\n";
    QTest::newRow("id in other case") << "D2"
                                      << "tarvctl: --device: no device with the id or name 'D2' in /system/house; "
                                         "known: Cellar, dev1, dev3, Twin, twin\n";
    QTest::newRow("shared name") << "TWIN" << "tarvctl: --device: 2 devices are named 'TWIN'; give the id: t1, t2\n";
}

void tst_CtlCommand::deviceThatNamesNoSingleDeviceSendsNothing()
{
    QFETCH(QString, device);
    QFETCH(QString, error);
    CannedServer server;
    answerAsHostOfTheHouse(server);
    server.answer("POST", "/api/v1/invoke", 200, R"({"result":true})");
    const CommandRun result = CommandRun::of({"--device", device, "leave"}, server.api());
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.err, error);
    QCOMPARE(result.out, QString());
    QCOMPARE(requestsOf(server), QStringList({"GET /api/v1/host", "GET /api/v1/rows path=/system/house"}));
}

void tst_CtlCommand::deviceCommandsSendExactlyTheForwardedRequests_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("request");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QByteArray>("answer");
    QTest::newRow("host") << QStringList{"host"} << "GET /api/v1/devices/d2/host" << QByteArray()
                          << QByteArray(R"({"id":"d2","name":"Cellar"})");
    QTest::newRow("set") << QStringList{"set", "/settings/device/name", "--string", "cellar two"}
                         << "PUT /api/v1/devices/d2/value path=/settings/device/name"
                         << QByteArray(R"({"string_":"cellar two"})")
                         << QByteArray(R"({"path":"/settings/device/name","value":{"string_":"cellar two"}})");
    QTest::newRow("invoke") << QStringList{"invoke", "/grouping/request", R"({"groupingRequest":{"command":-1}})",
                                           "--timeout-ms", "700"}
                            << "POST /api/v1/devices/d2/invoke path=/grouping/request timeout_ms=700"
                            << QByteArray(R"({"groupingRequest":{"command":-1}})") << QByteArray(R"({"result":true})");
    QTest::newRow("rows") << QStringList{"rows", "/ui/grouping"} << "GET /api/v1/devices/d2/rows path=/ui/grouping"
                          << QByteArray() << QByteArray(R"({"path":"/ui/grouping","rows":[]})");
    QTest::newRow("ui leave, no wait") << QStringList{"ui", "leave", "--no-wait"}
                                       << "POST /api/v1/devices/d2/invoke path=/ui/grouping/leave"
                                       << QByteArray("{}") << QByteArray(R"({"result":true})");
}

void tst_CtlCommand::deviceCommandsSendExactlyTheForwardedRequests()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, request);
    QFETCH(QByteArray, body);
    QFETCH(QByteArray, answer);
    CannedServer server;
    answerAsHostOfTheHouse(server);
    const QStringList parts = request.split(' ');
    server.answer(parts.at(0), parts.at(1), 200, answer);
    const CommandRun result = CommandRun::of(QStringList{"--device", "Cellar"} + arguments, server.api());
    QCOMPARE(result.err, QString());
    QCOMPARE(result.exitCode, 0);
    const QStringList requests = requestsOf(server);
    QCOMPARE(requests, QStringList({"GET /api/v1/host", "GET /api/v1/rows path=/system/house", request}));
    if (!body.isEmpty())
        QCOMPARE(QJsonDocument::fromJson(server.received().last().body), QJsonDocument::fromJson(body));
}

void tst_CtlCommand::deviceChangesAreAwaitedByReadingTheDevice_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("read");
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QByteArray>("after");
    QTest::addColumn<QString>("out");
    QTest::newRow("join") << QStringList{"join", "a"} << "/api/v1/devices/d2/rows?path=/grouping/members"
                          << d2Follows("d2") << d2Follows("a") << "joined dev1\n";
    QTest::newRow("leave") << QStringList{"leave"} << "/api/v1/devices/d2/rows?path=/grouping/members"
                           << d2Follows("a") << d2Follows("d2") << "left dev1\n";
    QTest::newRow("save") << QStringList{"save", "Home", "dev1"}
                          << "/api/v1/devices/d2/value?path=/settings/grouping/persistentGroup"
                          << savedGroup("", "[]", 0) << savedGroup("Home", R"(["d2","a"])", 1700000000000)
                          << "saved Home\n";
    // Saving the same group again shows as a new time.
    QTest::newRow("save again") << QStringList{"save", "Home", "a"}
                                << "/api/v1/devices/d2/value?path=/settings/grouping/persistentGroup"
                                << savedGroup("Home", R"(["d2","a"])", 1600000000000)
                                << savedGroup("Home", R"(["d2","a"])", 1700000000000) << "saved Home\n";
}

void tst_CtlCommand::deviceChangesAreAwaitedByReadingTheDevice()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, read);
    QFETCH(QByteArray, before);
    QFETCH(QByteArray, after);
    QFETCH(QString, out);
    CannedServer server;
    answerAsCellarFollowing(server, "a");
    server.answer("GET", read, 200, before);
    // The device changes only once it was asked to.
    server.answerAfter("POST /api/v1/devices/d2/invoke", "GET", read, 200, after);
    QElapsedTimer elapsed;
    elapsed.start();
    const CommandRun result = CommandRun::of(QStringList{"--device", "d2"} + arguments + QStringList{"--timeout-ms", "3000"}, server.api());
    QCOMPARE(result.err, QString());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, out);
    QVERIFY(elapsed.elapsed() < 2000);
    const QStringList requests = requestsOf(server);
    const int invoke = requests.indexOf(QRegularExpression("POST /api/v1/devices/d2/invoke .*"));
    QVERIFY(invoke > 0);
    // One read before the request, one after it that saw the change; no
    // events, nothing that is not forwarded.
    const QString readLine = "GET " + read.section('?', 0, 0) + " path=" + read.section('=', 1);
    QCOMPARE(requests.mid(invoke - 1), QStringList({readLine, requests.at(invoke), readLine}));
    for (const QString& request : requests)
        QVERIFY2(request.startsWith("GET /api/v1/host") || request.startsWith("GET /api/v1/rows path=/system/house")
                     || request.contains("/api/v1/devices/d2/"),
                 qPrintable(request));
}

void tst_CtlCommand::deviceChangeThatNeverShowsIsNoChange_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::newRow("join") << QStringList{"join", "a"};
    // Following nobody, there is nothing to leave.
    QTest::newRow("leave") << QStringList{"leave"};
    QTest::newRow("ui leave") << QStringList{"ui", "leave"};
    QTest::newRow("save") << QStringList{"save", "Home", "dev1"};
}

void tst_CtlCommand::deviceChangeThatNeverShowsIsNoChange()
{
    QFETCH(QStringList, arguments);
    CannedServer server;
    answerAsCellarFollowing(server, "d2");
    server.answer("GET", "/api/v1/devices/d2/value?path=/settings/grouping/persistentGroup", 200,
                  savedGroup("", "[]", 0));
    QElapsedTimer elapsed;
    elapsed.start();
    const CommandRun result = CommandRun::of(QStringList{"--device", "Cellar"} + arguments + QStringList{"--timeout-ms", "400"}, server.api());
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.err, QString("tarvctl: no change: the device refused (see its log)\n"));
    QCOMPARE(result.out, QString());
    QVERIFY(elapsed.elapsed() >= 400);
    QVERIFY(elapsed.elapsed() < 2500);
    // Read again and again at a short interval, within the bound.
    const int reads = requestsOf(server).filter(QRegularExpression("^GET /api/v1/devices/d2/(rows path=/grouping/members|value)")).size();
    QVERIFY2(reads >= 3 && reads <= 7, qPrintable(QString::number(reads)));
    QCOMPARE(m_log.count(log4cplus::DEBUG_LOG_LEVEL, "No change within 400 ms", "CtlChangeRequest"), 1);
}

void tst_CtlCommand::forwardingErrorsEndWithTheirExitCode_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("error");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("err");
    QTest::newRow("404 unknown device")
        << 404 << QByteArray(R"({"error":{"name":"UnknownDevice","title":"Unknown device","message":"No device with the id 'd2' on this LAN"}})")
        << 1 << "tarvctl: error (HTTP 404): Unknown device: No device with the id 'd2' on this LAN\n";
    QTest::newRow("502 unreachable")
        << 502 << QByteArray(R"({"error":{"name":"DeviceUnreachable","title":"Device unreachable","message":"Device 'Cellar' at 10.0.0.2:8080 is unreachable: connection refused"}})")
        << 3 << "tarvctl: error: Device 'Cellar' at 10.0.0.2:8080 is unreachable: connection refused\n";
    QTest::newRow("504 device timeout")
        << 504 << QByteArray(R"({"error":{"name":"DeviceTimeout","title":"Device timeout","message":"Device 'Cellar' did not answer within 6000 ms"}})")
        << 4 << "tarvctl: timeout: the host answered 504: no reply came within the bound (Device 'Cellar' did not answer within 6000 ms)\n";
    QTest::newRow("508 loop")
        << 508 << QByteArray(R"({"error":{"name":"ForwardingLoop","title":"Forwarding loop","message":"This request was already forwarded by device 'x'"}})")
        << 1 << "tarvctl: error (HTTP 508): Forwarding loop: This request was already forwarded by device 'x'\n";
    QTest::newRow("503 too many")
        << 503 << QByteArray(R"({"error":{"name":"TooManyForwards","title":"Too many forwards","message":"Too many requests to other devices at once (at most 8, 4 per device); try again"}})")
        << 1 << "tarvctl: error (HTTP 503): Too many forwards: Too many requests to other devices at once (at most 8, 4 per device); try again\n";
    // What the device itself answers comes through unchanged.
    QTest::newRow("the device's own refusal")
        << 404 << QByteArray(R"({"error":{"name":"NotFound","title":"Not found","message":"No node at /nope"}})")
        << 1 << "tarvctl: error (HTTP 404): Not found: No node at /nope\n";
}

void tst_CtlCommand::forwardingErrorsEndWithTheirExitCode()
{
    QFETCH(int, status);
    QFETCH(QByteArray, error);
    QFETCH(int, exitCode);
    QFETCH(QString, err);
    CannedServer server;
    answerAsHostOfTheHouse(server);
    server.answer("GET", "/api/v1/devices/d2/value", status, error);
    CommandRun result = CommandRun::of({"--device", "d2", "get", "/nope"}, server.api());
    QCOMPARE(result.exitCode, exitCode);
    QCOMPARE(result.err, err);
    // Scripts asking for JSON get the error object, whoever sent it.
    result = CommandRun::of({"--device", "d2", "get", "/nope", "--json"}, server.api());
    QCOMPARE(result.exitCode, exitCode);
    QCOMPARE(CommandRun::parseObject(result.out), QJsonDocument::fromJson(error).object());
}

void tst_CtlCommand::deviceFromTheEnvironmentIsUsedUnlessGiven()
{
    CannedServer server;
    answerAsHostOfTheHouse(server);
    server.answer("GET", "/api/v1/devices/d2/host", 200, R"({"id":"d2","name":"Cellar"})");
    server.answer("GET", "/api/v1/devices/t1/host", 200, R"({"id":"t1","name":"twin"})");
    CommandRun result = CommandRun::of({"host"}, server.api(), "cellar");
    QCOMPARE(result.exitCode, 0);
    QVERIFY2(result.out.startsWith("id:           d2\n"), qPrintable(result.out));
    result = CommandRun::of({"host", "--device", "t1"}, server.api(), "cellar");
    QCOMPARE(result.exitCode, 0);
    QVERIFY2(result.out.startsWith("id:           t1\n"), qPrintable(result.out));
    result = CommandRun::of({"host"}, server.api(), "attic");
    QCOMPARE(result.exitCode, 1);
    QVERIFY2(result.err.startsWith("tarvctl: TARV_DEVICE: no device with the id or name 'attic'"), qPrintable(result.err));
}

QTEST_GUILESS_MAIN(tst_CtlCommand)
#include "tst_CtlCommand.moc"
