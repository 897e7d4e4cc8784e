#include <QElapsedTimer>
#include <QJsonArray>
#include <QtTest>

#include "LogCapture.h"

#include "CannedServer.h"
#include "CtlClient.h"
#include "RawTcpServer.h"

// A port nothing listens on: taken from a server that has ended.
static int closedPort()
{
    RawTcpServer server{QByteArray()};
    return server.port();
}

class tst_CtlClient : public QObject
{
    Q_OBJECT

private:
    // Captures for the whole run, so every test can assert its log lines.
    LogCapture m_log;

    static CtlClient clientFor(const QString& api)
    {
        CtlClient client;
        QString error;
        if (!client.setApi(api, &error))
            qFatal("setApi: %s", qPrintable(error));
        return client;
    }

private Q_SLOTS:
    void init() { m_log.clear(); }

    void setApiAcceptsTheUsualForms_data();
    void setApiAcceptsTheUsualForms();
    void setApiRefusesWhatIsNoControlApi_data();
    void setApiRefusesWhatIsNoControlApi();

    void hostAsksTheHostEndpoint();
    void valueSendsThePathAsQueryParameter();
    void setValueSendsTheJsonBody();
    void invokePassesTheBoundOnlyWhenGiven();
    void rowsAndTreeReturnTheAnswer();

    void apiErrorCarriesNameTitleAndMessage();
    void errorOutsideTheApiFormShowsStatusAndBody();
    void gatewayTimeoutIsATimeout();
    void answersOfTheWrongShapeAreBadResponses_data();
    void answersOfTheWrongShapeAreBadResponses();
    void answerOverTheLimitIsRefused();
    void closedPortCannotConnect();
    void silentHostTimesOut();
    void nonHttpAnswerIsAConnectionFailure_data();
    void nonHttpAnswerIsAConnectionFailure();

    void watchDeliversEventsUntilTheCallerStops();
    void watchEndsAtTheDurationWithATimeout();
    void watchReportsTheHostRefusingTheStream();
    void watchRefusesAnAnswerThatIsNoEventStream();
    void watchReportsAStreamTheHostClosed();
    void watchReportsAClosedPort();
};

void tst_CtlClient::setApiAcceptsTheUsualForms_data()
{
    QTest::addColumn<QString>("given");
    QTest::addColumn<QString>("api");
    QTest::newRow("full") << "http://127.0.0.1:8080" << "http://127.0.0.1:8080";
    QTest::newRow("trailing slash") << "http://10.0.0.7:9000/" << "http://10.0.0.7:9000";
    QTest::newRow("no scheme") << "127.0.0.1:8081" << "http://127.0.0.1:8081";
    QTest::newRow("no port") << "http://dev1.local" << "http://dev1.local:80";
    QTest::newRow("upper-case scheme") << "HTTP://host:1" << "http://host:1";
    QTest::newRow("ipv6") << "http://[::1]:9000" << "http://[::1]:9000";
    QTest::newRow("spaces") << "  localhost:8080 " << "http://localhost:8080";
}

void tst_CtlClient::setApiAcceptsTheUsualForms()
{
    QFETCH(QString, given);
    QFETCH(QString, api);
    CtlClient client;
    QString error;
    QVERIFY2(client.setApi(given, &error), qPrintable(error));
    QCOMPARE(client.api(), api);
}

void tst_CtlClient::setApiRefusesWhatIsNoControlApi_data()
{
    QTest::addColumn<QString>("given");
    QTest::addColumn<QString>("error");
    QTest::newRow("empty") << "" << "the API URL is empty";
    QTest::newRow("https") << "https://dev1:8080" << "'https://dev1:8080': only http:// is supported by the control API";
    QTest::newRow("path") << "http://dev1:8080/api/v1"
                          << "'http://dev1:8080/api/v1': give only scheme, host and port, e.g. http://127.0.0.1:8080";
    QTest::newRow("query") << "http://dev1:8080?x=1"
                           << "'http://dev1:8080?x=1': give only scheme, host and port, e.g. http://127.0.0.1:8080";
    QTest::newRow("bad port") << "http://dev1:port" << "";
    QTest::newRow("no host") << "http://:8080" << "";
}

void tst_CtlClient::setApiRefusesWhatIsNoControlApi()
{
    QFETCH(QString, given);
    QFETCH(QString, error);
    CtlClient client;
    QString why;
    QVERIFY(!client.setApi(given, &why));
    QVERIFY(!why.isEmpty());
    if (!error.isEmpty())
        QCOMPARE(why, error);
    QCOMPARE(client.api(), CtlClient::defaultApi()); // unchanged
}

void tst_CtlClient::hostAsksTheHostEndpoint()
{
    CannedServer server;
    server.answer("GET", "/api/v1/host",
                  200, R"({"id":"d-1","name":"dev1","host":"h1","address":"127.0.0.1","requestPort":41230,"version":"0.1.0"})");
    CtlClient client = clientFor(server.api());
    const CtlReply reply = client.host();
    QCOMPARE(reply.kind(), CtlReply::Ok);
    QCOMPARE(reply.exitCode(), CtlExitCode::Ok);
    QCOMPARE(reply.httpStatus(), 200);
    QCOMPARE(reply.body().value("name").toString(), QString("dev1"));
    QCOMPARE(reply.body().value("requestPort").toInt(), 41230);

    const QList<CannedServer::Received> received = server.received();
    QCOMPARE(received.size(), 1);
    QCOMPARE(received.first().method, QString("GET"));
    QCOMPARE(received.first().path, QString("/api/v1/host"));
    QVERIFY(received.first().params.isEmpty());
    // The Host header names the address asked, which the host's rebinding guard accepts.
    QCOMPARE(received.first().host, QString("127.0.0.1:%1").arg(server.port()));

    QCOMPARE(m_log.count(log4cplus::DEBUG_LOG_LEVEL, "Request GET " + server.api() + "/api/v1/host", "CtlClient"), 1);
    QCOMPARE(m_log.countStartingWith(log4cplus::DEBUG_LOG_LEVEL, "Reply 200 ", "CtlClient"), 1);
    QCOMPARE(m_log.messages(log4cplus::WARN_LOG_LEVEL).size(), 0);
}

void tst_CtlClient::valueSendsThePathAsQueryParameter()
{
    CannedServer server;
    server.answer("GET", "/api/v1/value", 200, R"({"path":"/x","value":{"i32_":5000}})");
    CtlClient client = clientFor(server.api());
    const QString path = QString::fromUtf8("/a b/\xc3\xbc&x=1+2#?");
    const CtlReply reply = client.value(path);
    QCOMPARE(reply.kind(), CtlReply::Ok);
    QCOMPARE(reply.body().value("value").toObject().value("i32_").toInt(), 5000);
    QCOMPARE(server.received().size(), 1);
    QCOMPARE(server.received().first().params.value("path"), path);
    QCOMPARE(server.received().first().params.size(), 1);
}

void tst_CtlClient::setValueSendsTheJsonBody()
{
    CannedServer server;
    server.answer("PUT", "/api/v1/value", 200, R"({"path":"/settings/device/name","value":{"string_":"dev2"}})");
    CtlClient client = clientFor(server.api());
    const CtlReply reply = client.setValue("/settings/device/name", QJsonObject{{"string_", "dev2"}});
    QCOMPARE(reply.kind(), CtlReply::Ok);
    const CannedServer::Received received = server.received().value(0);
    QCOMPARE(received.method, QString("PUT"));
    QCOMPARE(received.params.value("path"), QString("/settings/device/name"));
    QCOMPARE(received.body, QByteArray(R"({"string_":"dev2"})"));
    QCOMPARE(received.contentType, QString("application/json"));
}

void tst_CtlClient::invokePassesTheBoundOnlyWhenGiven()
{
    CannedServer server;
    server.answer("POST", "/api/v1/invoke", 200, R"({"result":true})");
    CtlClient client = clientFor(server.api());
    const QJsonObject leave{{"groupingRequest", QJsonObject{{"command", -1}}}};

    CtlReply reply = client.invoke("/grouping/request", leave, 1500);
    QCOMPARE(reply.kind(), CtlReply::Ok);
    QCOMPARE(reply.body().value("result").toBool(), true);
    reply = client.invoke("/grouping/request", leave);
    QCOMPARE(reply.kind(), CtlReply::Ok);

    const QList<CannedServer::Received> received = server.received();
    QCOMPARE(received.size(), 2);
    QCOMPARE(received.at(0).method, QString("POST"));
    QCOMPARE(received.at(0).params.value("path"), QString("/grouping/request"));
    QCOMPARE(received.at(0).params.value("timeout_ms"), QString("1500"));
    QCOMPARE(received.at(0).body, QByteArray(R"({"groupingRequest":{"command":-1}})"));
    QVERIFY(!received.at(1).params.contains("timeout_ms"));
}

void tst_CtlClient::rowsAndTreeReturnTheAnswer()
{
    CannedServer server;
    server.answer("GET", "/api/v1/rows", 200, R"({"path":"/grouping/members","title":"","rows":[{"id":"a"}]})");
    server.answer("GET", "/api/v1/tree", 200, R"({"nodes":[],"values":[]})");
    CtlClient client = clientFor(server.api());
    const CtlReply rows = client.rows("/grouping/members");
    QCOMPARE(rows.kind(), CtlReply::Ok);
    QCOMPARE(rows.body().value("rows").toArray().size(), 1);
    QCOMPARE(server.received().value(0).params.value("path"), QString("/grouping/members"));
    const CtlReply tree = client.tree();
    QCOMPARE(tree.kind(), CtlReply::Ok);
    QVERIFY(tree.body().contains("nodes"));
}

void tst_CtlClient::apiErrorCarriesNameTitleAndMessage()
{
    CannedServer server;
    server.answer("POST", "/api/v1/invoke", 400,
                  R"({"error":{"name":"Error","title":"Error","message":"valid command "}})");
    CtlClient client = clientFor(server.api());
    const CtlReply reply = client.invoke("/grouping/request", QJsonObject{{"groupingRequest", QJsonObject{{"command", 2}}}});
    QCOMPARE(reply.kind(), CtlReply::ApiError);
    QCOMPARE(reply.exitCode(), CtlExitCode::ApiError);
    QCOMPARE(reply.httpStatus(), 400);
    QCOMPARE(reply.errorName(), QString("Error"));
    QCOMPARE(reply.errorTitle(), QString("Error"));
    QCOMPARE(reply.errorMessage(), QString("valid command "));
    QCOMPARE(reply.describe(), QString("error (HTTP 400): valid command "));
    QCOMPARE(m_log.count(log4cplus::WARN_LOG_LEVEL,
                       "POST " + server.api() + "/api/v1/invoke?path=/grouping/request failed: error (HTTP 400): valid command ",
                       "CtlClient"),
             1);
}

void tst_CtlClient::errorOutsideTheApiFormShowsStatusAndBody()
{
    CannedServer server;
    server.answer("GET", "/api/v1/value", 500, "boom\n", "text/plain");
    CtlClient client = clientFor(server.api());
    const CtlReply reply = client.value("/x");
    QCOMPARE(reply.kind(), CtlReply::ApiError);
    QCOMPARE(reply.describe(), QString("error (HTTP 500): HTTP 500: \"boom\""));
}

void tst_CtlClient::gatewayTimeoutIsATimeout()
{
    CannedServer server;
    server.answer("POST", "/api/v1/invoke", 504,
                  R"({"error":{"name":"Timeout","title":"Timeout","message":"no reply within 100 ms"}})");
    CtlClient client = clientFor(server.api());
    const CtlReply reply = client.invoke("/slow", QJsonObject(), 100);
    QCOMPARE(reply.kind(), CtlReply::Timeout);
    QCOMPARE(reply.exitCode(), CtlExitCode::Timeout);
    QCOMPARE(reply.httpStatus(), 504);
    QCOMPARE(reply.describe(),
             QString("timeout: the host answered 504: no reply came within the bound (no reply within 100 ms)"));
}

void tst_CtlClient::answersOfTheWrongShapeAreBadResponses_data()
{
    QTest::addColumn<QString>("endpoint");
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QString>("detail");
    QTest::newRow("not json") << "/api/v1/value" << 200 << QByteArray("<html>hello</html>")
                              << "is not a JSON object: \"<html>hello</html>\"";
    QTest::newRow("array") << "/api/v1/value" << 200 << QByteArray("[1,2]") << "is not a JSON object: \"[1,2]\"";
    QTest::newRow("empty") << "/api/v1/value" << 200 << QByteArray() << "is not a JSON object: (empty)";
    QTest::newRow("binary") << "/api/v1/value" << 200 << QByteArray("\x01\x02\xff\xfe", 4) << "is not a JSON object: ";
    QTest::newRow("no value") << "/api/v1/value" << 200 << QByteArray(R"({"path":"/x"})") << "has no \"value\"";
    QTest::newRow("rows not a list") << "/api/v1/rows" << 200 << QByteArray(R"({"path":"/x","rows":{}})")
                                     << "\"rows\" is not a list";
    QTest::newRow("no rows") << "/api/v1/rows" << 200 << QByteArray(R"({"path":"/x"})") << "has no \"rows\"";
    QTest::newRow("redirect") << "/api/v1/value" << 302 << QByteArray() << "unexpected HTTP status 302";
}

void tst_CtlClient::answersOfTheWrongShapeAreBadResponses()
{
    QFETCH(QString, endpoint);
    QFETCH(int, status);
    QFETCH(QByteArray, body);
    QFETCH(QString, detail);
    CannedServer server;
    server.answer("GET", endpoint, status, body);
    CtlClient client = clientFor(server.api());
    const CtlReply reply = endpoint.endsWith("rows") ? client.rows("/x") : client.value("/x");
    QCOMPARE(reply.kind(), CtlReply::BadResponse);
    QCOMPARE(reply.exitCode(), CtlExitCode::ApiError);
    QVERIFY2(reply.detail().contains(detail), qPrintable(reply.detail()));
    QVERIFY(reply.describe().startsWith("error: bad answer from the host: "));
}

void tst_CtlClient::answerOverTheLimitIsRefused()
{
    CannedServer server;
    server.answer("GET", "/api/v1/value", 200, R"({"path":"/x","value":{"string_":")" + QByteArray(5000, 'a') + "\"}}");
    CtlClient client = clientFor(server.api());
    client.setMaxAnswerBytes(1000);
    const CtlReply reply = client.value("/x");
    QCOMPARE(reply.kind(), CtlReply::BadResponse);
    QVERIFY2(reply.detail().endsWith("is larger than 1000 bytes"), qPrintable(reply.detail()));
    client.setMaxAnswerBytes(10000);
    QCOMPARE(client.value("/x").kind(), CtlReply::Ok);
}

void tst_CtlClient::closedPortCannotConnect()
{
    const QString api = QString("http://127.0.0.1:%1").arg(closedPort());
    CtlClient client = clientFor(api);
    const CtlReply reply = client.host();
    QCOMPARE(reply.kind(), CtlReply::CannotConnect);
    QCOMPARE(reply.exitCode(), CtlExitCode::CannotConnect);
    QCOMPARE(reply.describe(), "error: cannot connect to " + api + " (is tarv-host running there?)");
    QCOMPARE(m_log.count(log4cplus::WARN_LOG_LEVEL, "GET " + api + "/api/v1/host failed: " + reply.describe(), "CtlClient"),
             1);
}

void tst_CtlClient::silentHostTimesOut()
{
    CannedServer server;
    server.hold("GET", "/api/v1/value");
    CtlClient client = clientFor(server.api());
    client.setTimeoutMs(300);
    QElapsedTimer elapsed;
    elapsed.start();
    const CtlReply reply = client.value("/x");
    QCOMPARE(reply.kind(), CtlReply::Timeout);
    QCOMPARE(reply.exitCode(), CtlExitCode::Timeout);
    QCOMPARE(reply.describe(), "timeout: no answer from " + server.api() + "/api/v1/value?path=/x within 300 ms");
    QVERIFY2(elapsed.elapsed() < 2000, qPrintable(QString::number(elapsed.elapsed())));
}

void tst_CtlClient::nonHttpAnswerIsAConnectionFailure_data()
{
    QTest::addColumn<QByteArray>("answer");
    QTest::newRow("closes at once") << QByteArray();
    QTest::newRow("garbage") << QByteArray("garbage\r\n\r\n");
    QTest::newRow("truncated body") << QByteArray("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{\"a\"");
}

void tst_CtlClient::nonHttpAnswerIsAConnectionFailure()
{
    QFETCH(QByteArray, answer);
    RawTcpServer server(answer);
    CtlClient client = clientFor(server.api());
    const CtlReply reply = client.host();
    QCOMPARE(reply.kind(), CtlReply::CannotConnect);
    QCOMPARE(reply.describe(),
             "error: the connection to " + server.api() + " broke before a complete answer came");
}

void tst_CtlClient::watchDeliversEventsUntilTheCallerStops()
{
    CannedServer server;
    // Events split across chunks anywhere, with a comment between them; the
    // stream stays open, so only the caller can end the watch.
    server.stream("/api/v1/events",
                  {": hello\n\nevent: val", "ue\ndata: {\"path\":\"/a\",\"value\":{\"i32_\":1}}\n", "\n",
                   "event: rows\ndata: {\"path\":\"/b\",\"new\":{},\"old\":{}}\n\nevent: value\ndata: {\"path\":\"/c\"}\n\n"},
                  true, 20);
    CtlClient client = clientFor(server.api());
    QList<CtlEvent> events;
    QElapsedTimer elapsed;
    elapsed.start();
    const CtlReply reply = client.watch(
        [&events](const CtlEvent& event) {
            events.append(event);
            return events.size() < 2;
        },
        5000);
    QCOMPARE(reply.kind(), CtlReply::Ok);
    QCOMPARE(events.size(), 2);
    QCOMPARE(events.at(0).name, QString("value"));
    QCOMPARE(events.at(0).data, QByteArray(R"({"path":"/a","value":{"i32_":1}})"));
    QCOMPARE(events.at(1).name, QString("rows"));
    QVERIFY2(elapsed.elapsed() < 3000, qPrintable(QString::number(elapsed.elapsed())));
    QCOMPARE(m_log.count(log4cplus::DEBUG_LOG_LEVEL, "Event stream open", "CtlClient"), 1);
    QCOMPARE(server.received().value(0).path, QString("/api/v1/events"));
}

void tst_CtlClient::watchEndsAtTheDurationWithATimeout()
{
    CannedServer server;
    server.stream("/api/v1/events", {"event: value\ndata: {\"path\":\"/a\",\"value\":{}}\n\n"}, true);
    CtlClient client = clientFor(server.api());
    int seen = 0;
    QElapsedTimer elapsed;
    elapsed.start();
    const CtlReply reply = client.watch(
        [&seen](const CtlEvent&) {
            ++seen;
            return true;
        },
        400);
    QCOMPARE(reply.kind(), CtlReply::Timeout);
    QCOMPARE(reply.httpStatus(), 0);
    QCOMPARE(seen, 1);
    QVERIFY2(elapsed.elapsed() >= 390 && elapsed.elapsed() < 2500, qPrintable(QString::number(elapsed.elapsed())));
}

void tst_CtlClient::watchReportsTheHostRefusingTheStream()
{
    CannedServer server;
    server.answer("GET", "/api/v1/events", 403,
                  R"({"error":{"name":"Forbidden","title":"Forbidden","message":"Host header not accepted"}})");
    CtlClient client = clientFor(server.api());
    const CtlReply reply = client.watch([](const CtlEvent&) { return true; }, 2000);
    QCOMPARE(m_log.count(log4cplus::DEBUG_LOG_LEVEL, "Event stream open", "CtlClient"), 0);
    QCOMPARE(reply.kind(), CtlReply::ApiError);
    QCOMPARE(reply.describe(), QString("error (HTTP 403): Forbidden: Host header not accepted"));
}

void tst_CtlClient::watchRefusesAnAnswerThatIsNoEventStream()
{
    CannedServer server;
    server.answer("GET", "/api/v1/events", 200, R"({"hello":1})");
    CtlClient client = clientFor(server.api());
    const CtlReply reply = client.watch([](const CtlEvent&) { return true; }, 2000);
    QCOMPARE(reply.kind(), CtlReply::BadResponse);
    QCOMPARE(reply.detail(),
             server.api() + "/api/v1/events answered with content type 'application/json', not an event stream");
}

void tst_CtlClient::watchReportsAStreamTheHostClosed()
{
    CannedServer server;
    server.stream("/api/v1/events", {"event: value\ndata: {\"path\":\"/a\",\"value\":{}}\n\n"}, false);
    CtlClient client = clientFor(server.api());
    int seen = 0;
    const CtlReply reply = client.watch(
        [&seen](const CtlEvent&) {
            ++seen;
            return true;
        },
        3000);
    QCOMPARE(seen, 1);
    QCOMPARE(reply.kind(), CtlReply::CannotConnect);
    QCOMPARE(reply.describe(), "error: the host at " + server.api() + " closed the event stream");
}

void tst_CtlClient::watchReportsAClosedPort()
{
    const QString api = QString("http://127.0.0.1:%1").arg(closedPort());
    CtlClient client = clientFor(api);
    const CtlReply reply = client.watch([](const CtlEvent&) { return true; }, 2000);
    QCOMPARE(reply.kind(), CtlReply::CannotConnect);
    QCOMPARE(reply.describe(), "error: cannot connect to " + api + " (is tarv-host running there?)");
}

QTEST_GUILESS_MAIN(tst_CtlClient)
#include "tst_CtlClient.moc"
