#include <chrono>
#include <future>
#include <memory>
#include <mutex>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUrl>
#include <QtTest>

#include <httplib.h>

#include "CMActivateNode.h"
#include "CMListRowsNode.h"
#include "CMNodes.h"
#include "CMRootWorker.h"
#include "ControlApi.h"
#include "EventStream.h"
#include "HostWebPage.h"
#include "HostWorker.h"
#include "InProcessApi.h"
#include "LogCapture.h"
#include "TarvPaths.h"
#include "TarvValue.h"

namespace {

using Answer = InProcessApi::Answer;

std::string query(const char* endpoint, const QString& path)
{
    return std::string(endpoint) + "?path=" + QUrl::toPercentEncoding(path).toStdString();
}

QJsonValue parse(const char* json)
{
    return QJsonDocument::fromJson(QByteArray("[") + json + "]").array().first();
}

// A plain TCP connection to 127.0.0.1, for requests httplib's client does
// not send (a body that comes later). Reads wait at most 5 s.
class RawConnection
{
public:
    explicit RawConnection(quint16 port)
        : m_fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (m_fd >= 0 && ::connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            ::close(m_fd);
            m_fd = -1;
        }
        const timeval timeout{5, 0};
        if (m_fd >= 0)
            ::setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    }
    ~RawConnection()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;

    bool isConnected() const { return m_fd >= 0; }
    bool send(const std::string& data)
    {
        return ::send(m_fd, data.data(), data.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(data.size());
    }
    // Everything until the server closes the connection (or the read bound).
    std::string readAll()
    {
        std::string text;
        char buffer[4096];
        ssize_t got = 0;
        while ((got = ::recv(m_fd, buffer, sizeof buffer, 0)) > 0)
            text.append(buffer, static_cast<size_t>(got));
        return text;
    }

private:
    int m_fd;
};

} // namespace

// Serves the test's action nodes.
class Handlers : public QObject
{
    Q_OBJECT

public:
    QList<CMSetDataRequest> held;
    QVariant lastValue;

public Q_SLOTS:
    void echo(const CMSetDataRequest& request)
    {
        lastValue = request.value();
        request.setResult(request.value());
    }
    void refuse(const CMSetDataRequest& request)
    {
        CMError error;
        error.setName(QStringLiteral("TestRefusal")).setTitle(QStringLiteral("Refused")).setMessage(QStringLiteral("The test says no"));
        request.setError(error);
    }
    void hold(const CMSetDataRequest& request) { held.append(request); }
    void answerTrue(const CMSetDataRequest& request) { request.setResult(true); }
};

class tst_ControlApi : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<HostWorker> m_host;
    std::unique_ptr<CMNodes> m_nodes;
    Handlers m_handlers;
    CMListRowsNode* m_list = nullptr;
    std::unique_ptr<ControlApi> m_api;

    Answer call(const std::string& method, const std::string& target, const std::string& body = std::string(),
                const httplib::Headers& headers = {})
    {
        return InProcessApi::request(m_api->port(), method, target, body, headers);
    }

private Q_SLOTS:
    void initTestCase()
    {
        QString error;
        m_host = InProcessApi::makeHost(QStringLiteral("dev-1"), &error);
        QVERIFY2(m_host, qPrintable(error));
        m_nodes = std::make_unique<CMNodes>();
        CMActivateNode::create(m_nodes.get(), CMPath("/test/echo"))->setInvoke(&m_handlers, &Handlers::echo);
        CMActivateNode::create(m_nodes.get(), CMPath("/test/refuse"))->setInvoke(&m_handlers, &Handlers::refuse);
        CMActivateNode::create(m_nodes.get(), CMPath("/test/hold"))->setInvoke(&m_handlers, &Handlers::hold);
        CMActivateNode::create(m_nodes.get(), CMPath("/test/unbound"));
        m_list = CMListRowsNode::create(m_nodes.get(), CMPath("/test/list"));
        m_list->setTitle(TrString("Test list"));
        m_list->rowsAppend(TarvRoles().setId(QStringLiteral("r1")).setTitle(QStringLiteral("Row one")).setType(TarvRolesType::Follower));
        m_api = std::make_unique<ControlApi>(InProcessApi::options());
        QVERIFY2(m_api->start(&error), qPrintable(error));
        QVERIFY(m_api->port() != 0);
        QCOMPARE(m_api->url(), QStringLiteral("http://127.0.0.1:%1").arg(m_api->port()));
    }

    void cleanupTestCase()
    {
        m_api->stop();
        m_handlers.held.clear();
    }

    void hostDescribesThisDevice()
    {
        const Answer answer = call("GET", "/api/v1/host");
        QCOMPARE(answer.status, 200);
        QCOMPARE(answer.header("Content-Type"), std::string("application/json; charset=utf-8"));
        QJsonObject expected;
        expected.insert("id", "dev-1");
        expected.insert("name", "Kitchen");
        expected.insert("host", "tarv-test.local");
        expected.insert("address", "127.0.0.1");
        expected.insert("requestPort", TarvRequestPort());
        expected.insert("version", "9.8.7");
        QCOMPARE(answer.json(), expected);
    }

    void aValueIsReadByPath()
    {
        const Answer answer = call("GET", query("/api/v1/value", "/settings//device/name/"));
        QCOMPARE(answer.status, 200);
        QCOMPARE(answer.json(), parse(R"({"path": "/settings/device/name", "value": {"string_": "Kitchen"}})").toObject());
    }

    void badReadsAreExplained_data()
    {
        QTest::addColumn<QString>("target");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("message");
        QTest::newRow("no path") << "/api/v1/value" << 400 << "BadRequest"
                                 << "The query parameter 'path' is missing, e.g. ?path=/settings/device/name";
        QTest::newRow("not a path") << "/api/v1/value?path=settings" << 400 << "BadRequest"
                                    << "'settings' is not a path; paths start with /, e.g. /settings/device/name";
        QTest::newRow("root") << "/api/v1/value?path=/" << 400 << "BadRequest"
                              << "'/' is not a path; paths start with /, e.g. /settings/device/name";
        QTest::newRow("unknown") << "/api/v1/value?path=/no/such" << 404 << "NotFound" << "No value at /no/such";
        QTest::newRow("a list") << "/api/v1/value?path=/test/list" << 404 << "NotFound"
                                << "/test/list is a list node, not a value; read it with GET /api/v1/rows?path=/test/list";
        QTest::newRow("an action") << "/api/v1/value?path=/test/echo" << 404 << "NotFound"
                                   << "/test/echo is a action node, not a value";
    }

    void badReadsAreExplained()
    {
        QFETCH(QString, target);
        QFETCH(int, status);
        QFETCH(QString, name);
        QFETCH(QString, message);
        const Answer answer = call("GET", target.toStdString());
        QCOMPARE(answer.status, status);
        QCOMPARE(answer.error().value("name").toString(), name);
        QVERIFY(!answer.error().value("title").toString().isEmpty());
        QCOMPARE(answer.message(), message);
    }

    void aValueIsWrittenAndReadBack()
    {
        const Answer answer = call("PUT", query("/api/v1/value", "/settings/device/name"), R"({"string_": "Living room"})");
        QCOMPARE(answer.status, 200);
        QCOMPARE(answer.json(), parse(R"({"path": "/settings/device/name", "value": {"string_": "Living room"}})").toObject());
        QCOMPARE(TarvValue(CMRoot()->getValue(TarvDeviceNameSettingsPath()).toHash()).string_(), QStringLiteral("Living room"));
        // The own record follows, and the host endpoint shows the new name.
        QCOMPARE(m_host->record().name(), QStringLiteral("Living room"));
        QCOMPARE(call("GET", "/api/v1/host").json().value("name").toString(), QStringLiteral("Living room"));
        QCOMPARE(call("PUT", query("/api/v1/value", "/settings/device/name"), R"({"string_": "Kitchen"})").status, 200);
    }

    void badWritesAreExplainedAndChangeNothing_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("body");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("message");
        QTest::newRow("malformed")
            << "/settings/device/name" << R"({"string_": )" << 400
            << "The request body is not valid JSON (at byte 12: unterminated object); it must be one JSON object";
        QTest::newRow("bare text") << "/settings/device/name" << R"("Kitchen")" << 400
                                   << "The request body is not valid JSON (at byte 1: illegal value); it must be one JSON object";
        QTest::newRow("array") << "/settings/device/name" << "[1]" << 400
                               << R"(The request body must be one JSON object, e.g. {"string_": "Kitchen"})";
        QTest::newRow("empty") << "/settings/device/name" << "" << 400
                               << "PUT needs the new value as a JSON object in the body";
        QTest::newRow("wrong type")
            << "/settings/streaming/stopTimeout" << R"({"i32_": "soon"})" << 422
            << R"(/settings/streaming/stopTimeout takes {"i32_": <milliseconds from 1 to 3600000>}; got {"i32_":"soon"})";
        QTest::newRow("read-only")
            << "/system/member/id" << R"({"string_": "x"})" << 422
            << "/system/member/id is read-only: the device id is set when the host starts (--id)";
        QTest::newRow("unknown") << "/no/such" << R"({"string_": "x"})" << 404 << "No value at /no/such";
        QTest::newRow("a list") << "/test/list" << R"({"string_": "x"})" << 404 << "/test/list is a list node, not a value";
    }

    void badWritesAreExplainedAndChangeNothing()
    {
        QFETCH(QString, path);
        QFETCH(QString, body);
        QFETCH(int, status);
        QFETCH(QString, message);
        const QVariant before = CMRoot()->getValue(CMPath(path));
        const Answer answer = call("PUT", query("/api/v1/value", path), body.toStdString());
        QCOMPARE(answer.status, status);
        QCOMPARE(answer.message(), message);
        QCOMPARE(CMRoot()->getValue(CMPath(path)), before);
    }

    void anActionAnswersWithItsResult()
    {
        const Answer answer = call("POST", query("/api/v1/invoke", "/test/echo"), R"({"command": 1, "master": {"id": "b"}})");
        QCOMPARE(answer.status, 200);
        QCOMPARE(answer.json(), parse(R"({"result": {"command": 1, "master": {"id": "b"}}})").toObject());
        QCOMPARE(m_handlers.lastValue.toHash().value("master").toHash().value("id").toString(), QStringLiteral("b"));
        // No body is an empty value.
        const Answer empty = call("POST", query("/api/v1/invoke", "/test/echo"));
        QCOMPARE(empty.status, 200);
        QCOMPARE(empty.json(), parse(R"({"result": {}})").toObject());
    }

    void anActionsRefusalCarriesItsError()
    {
        const Answer answer = call("POST", query("/api/v1/invoke", "/test/refuse"), "{}");
        QCOMPARE(answer.status, 422);
        QCOMPARE(answer.json(),
                 parse(R"({"error": {"name": "TestRefusal", "title": "Refused", "message": "The test says no"}})").toObject());
        const Answer unbound = call("POST", query("/api/v1/invoke", "/test/unbound"), "{}");
        QCOMPARE(unbound.status, 422);
        QCOMPARE(unbound.message(), QStringLiteral("No handler for /test/unbound"));
    }

    void anActionThatDoesNotAnswerTimesOut()
    {
        QElapsedTimer clock;
        clock.start();
        const Answer answer = call("POST", query("/api/v1/invoke", "/test/hold") + "&timeout_ms=200", "{}");
        QCOMPARE(answer.status, 504);
        QCOMPARE(answer.error().value("name").toString(), QStringLiteral("Timeout"));
        QCOMPARE(answer.message(), QStringLiteral("The action at /test/hold did not answer within 200 ms"));
        QVERIFY(clock.elapsed() >= 200);
        QVERIFY(clock.elapsed() < 3000);
        QCOMPARE(m_handlers.held.size(), 1);
        m_handlers.held.clear();
    }

    void badInvocationsAreExplained_data()
    {
        QTest::addColumn<QString>("target");
        QTest::addColumn<QString>("body");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("message");
        QTest::newRow("unknown") << "/api/v1/invoke?path=/no/such" << "{}" << 404 << "No action at /no/such";
        QTest::newRow("a value") << "/api/v1/invoke?path=/settings/device/name" << "{}" << 404
                                 << "No action at /settings/device/name";
        QTest::newRow("a list") << "/api/v1/invoke?path=/test/list" << "{}" << 404 << "/test/list is a list node, not an action";
        QTest::newRow("malformed") << "/api/v1/invoke?path=/test/echo" << "{" << 400
                                   << "The request body is not valid JSON (at byte 1: unterminated object); it must be one JSON object";
        QTest::newRow("timeout text") << "/api/v1/invoke?path=/test/echo&timeout_ms=soon" << "{}" << 400
                                      << "timeout_ms must be a whole number of milliseconds from 1 to 60000";
        QTest::newRow("timeout zero") << "/api/v1/invoke?path=/test/echo&timeout_ms=0" << "{}" << 400
                                      << "timeout_ms must be a whole number of milliseconds from 1 to 60000";
        QTest::newRow("timeout huge") << "/api/v1/invoke?path=/test/echo&timeout_ms=60001" << "{}" << 400
                                      << "timeout_ms must be a whole number of milliseconds from 1 to 60000";
        QTest::newRow("no path") << "/api/v1/invoke" << "{}" << 400
                                 << "The query parameter 'path' is missing, e.g. ?path=/settings/device/name";
    }

    void badInvocationsAreExplained()
    {
        QFETCH(QString, target);
        QFETCH(QString, body);
        QFETCH(int, status);
        QFETCH(QString, message);
        const Answer answer = call("POST", target.toStdString(), body.toStdString());
        QCOMPARE(answer.status, status);
        QCOMPARE(answer.message(), message);
    }

    void rowsAreListedWithTheListsTitle()
    {
        const Answer answer = call("GET", query("/api/v1/rows", "/test/list"));
        QCOMPARE(answer.status, 200);
        QCOMPARE(answer.json(), parse(R"({"path": "/test/list", "title": "Test list", "loading": false,
                                          "rows": [{"id": "r1", "title": "Row one", "type": 6}]})")
                                    .toObject());
        const Answer members = call("GET", query("/api/v1/rows", "/system/members"));
        QCOMPARE(members.status, 200);
        QCOMPARE(members.json().value("loading").toBool(), true);
        QCOMPARE(members.json().value("title").toString(), QStringLiteral("SystemMembers"));
        // The house list, through the same endpoint: loading like the
        // members list, the own row from the start.
        const Answer house = call("GET", query("/api/v1/rows", "/system/house"));
        QCOMPARE(house.status, 200);
        QCOMPARE(house.json().value("loading").toBool(), true);
        QCOMPARE(house.json().value("title").toString(), QStringLiteral("House"));
        const QJsonArray rows = house.json().value("rows").toArray();
        QCOMPARE(rows.size(), 1);
        QCOMPARE(rows.at(0).toObject().value("id").toString(), QStringLiteral("dev-1"));
        QCOMPARE(rows.at(0).toObject().value("value").toObject().value("houseMember").toObject().value("api"),
                 QJsonValue(QJsonValue::Null));
    }

    void badRowRequestsAreExplained_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("message");
        QTest::newRow("unknown") << "/no/such" << "No list at /no/such";
        QTest::newRow("a value") << "/settings/device/name"
                                 << "/settings/device/name is a value, not a list; read it with GET "
                                    "/api/v1/value?path=/settings/device/name";
        QTest::newRow("an action") << "/test/echo" << "/test/echo is a action node, not a list";
    }

    void badRowRequestsAreExplained()
    {
        QFETCH(QString, path);
        QFETCH(QString, message);
        const Answer answer = call("GET", query("/api/v1/rows", path));
        QCOMPARE(answer.status, 404);
        QCOMPARE(answer.message(), message);
    }

    void theTreeListsEveryNodeAndValue()
    {
        const Answer answer = call("GET", "/api/v1/tree");
        QCOMPARE(answer.status, 200);
        const QJsonArray nodes = answer.json().value("nodes").toArray();
        QStringList paths;
        for (const QJsonValue& node : nodes)
            paths << node.toObject().value("path").toString();
        QCOMPARE(paths, QStringList({"/system/house", "/system/members", "/test/echo", "/test/hold", "/test/list",
                                     "/test/refuse", "/test/unbound"}));
        QCOMPARE(nodes.at(2).toObject(), parse(R"({"path": "/test/echo", "kind": "action", "title": ""})").toObject());
        QCOMPARE(nodes.at(4).toObject(),
                 parse(R"({"path": "/test/list", "kind": "list", "title": "Test list", "loading": false,
                           "rows": [{"id": "r1", "title": "Row one", "type": 6}]})")
                     .toObject());
        const QJsonArray values = answer.json().value("values").toArray();
        QStringList valuePaths;
        for (const QJsonValue& value : values)
            valuePaths << value.toString();
        QCOMPARE(valuePaths, QStringList({"/player/data", "/settings/device/name", "/settings/grouping/persistentGroup",
                                          "/settings/streaming/requestTimeout", "/settings/streaming/stopTimeout",
                                          "/system/deviceState", "/system/discovery/stats", "/system/member",
                                          "/system/member/id"}));
    }

    void theEventStreamCarriesValueAndRowChanges()
    {
        struct Received
        {
            std::mutex mutex;
            std::string text;
            bool stop = false;
        };
        auto received = std::make_shared<Received>();
        const quint16 port = m_api->port();
        auto stream = std::async(std::launch::async, [port, received] {
            httplib::Client client("127.0.0.1", port);
            client.set_read_timeout(15);
            auto result = client.Get("/api/v1/events", [received](const char* data, size_t length) {
                std::lock_guard<std::mutex> locker(received->mutex);
                received->text.append(data, length);
                return !received->stop;
            });
            return result ? result->get_header_value("Content-Type") : std::string("failed");
        });
        const auto text = [received] {
            std::lock_guard<std::mutex> locker(received->mutex);
            return QString::fromStdString(received->text);
        };
        QTRY_VERIFY_WITH_TIMEOUT(text().startsWith(": tarv-host events\n\n"), 5000);

        QCOMPARE(call("PUT", query("/api/v1/value", "/player/data"), R"({"state": 7})").status, 200);
        QTRY_VERIFY_WITH_TIMEOUT(text().contains("event: value\ndata: {\"path\":\"/player/data\",\"value\":{\"state\":7}}\n\n"), 5000);

        m_list->rowsSetById(TarvRoles().setId(QStringLiteral("r2")).setTitle(QStringLiteral("Row two")));
        QTRY_VERIFY_WITH_TIMEOUT(text().contains("event: rows\ndata: "), 5000);
        const QString rows = text().mid(text().indexOf("event: rows\ndata: ") + 18).section('\n', 0, 0);
        QCOMPARE(QJsonDocument::fromJson(rows.toUtf8()).object(),
                 parse(R"({"path": "/test/list", "new": {"id": "r2", "title": "Row two"}, "old": {}})").toObject());
        m_list->rowsRemoveById(QStringLiteral("r2"));

        {
            std::lock_guard<std::mutex> locker(received->mutex);
            received->stop = true;
        }
        // Any further event ends the client's stream.
        QCOMPARE(call("PUT", query("/api/v1/value", "/player/data"), R"({"state": 0})").status, 200);
        QVERIFY(stream.wait_for(std::chrono::seconds(5)) == std::future_status::ready);
    }

    void wrongMethodsAreRefused_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QString>("target");
        QTest::addColumn<QString>("allowed");
        QTest::newRow("delete value") << "DELETE" << "/api/v1/value?path=/player/data" << "GET, PUT";
        QTest::newRow("post value") << "POST" << "/api/v1/value?path=/player/data" << "GET, PUT";
        QTest::newRow("post host") << "POST" << "/api/v1/host" << "GET";
        QTest::newRow("get invoke") << "GET" << "/api/v1/invoke?path=/test/echo" << "POST";
        QTest::newRow("put tree") << "PUT" << "/api/v1/tree" << "GET";
        QTest::newRow("patch rows") << "PATCH" << "/api/v1/rows?path=/test/list" << "GET";
    }

    void wrongMethodsAreRefused()
    {
        QFETCH(QString, method);
        QFETCH(QString, target);
        QFETCH(QString, allowed);
        const Answer answer = call(method.toStdString(), target.toStdString(), "{}");
        QCOMPARE(answer.status, 405);
        QCOMPARE(QString::fromStdString(answer.header("Allow")), allowed);
        QCOMPARE(answer.message(), QStringLiteral("%1 does not take %2; use %3")
                                       .arg(target.section('?', 0, 0), method, allowed));
    }

    void anUnknownEndpointIsExplained()
    {
        const Answer answer = call("GET", "/api/v2/host");
        QCOMPARE(answer.status, 404);
        QCOMPARE(answer.message(), QStringLiteral("No such endpoint: GET /api/v2/host. The API is /api/v1/host, value, "
                                                  "invoke, rows, tree and events"));
    }

    void aBodyOverTheLimitIsRefused()
    {
        const std::string big = "{\"string_\": \"" + std::string(ControlApi::MaxBodyBytes, 'x') + "\"}";
        const Answer answer = call("PUT", query("/api/v1/value", "/settings/device/name"), big);
        QCOMPARE(answer.status, 413);
        QCOMPARE(answer.message(), QStringLiteral("The request body is larger than 65536 bytes"));
        QCOMPARE(TarvValue(CMRoot()->getValue(TarvDeviceNameSettingsPath()).toHash()).string_(), QStringLiteral("Kitchen"));
    }

    void theHostHeaderMustNameThisHost_data()
    {
        QTest::addColumn<QString>("host");
        QTest::addColumn<int>("status");
        QTest::newRow("api address") << "127.0.0.1:%1" << 200;
        QTest::newRow("localhost") << "localhost:%1" << 200;
        QTest::newRow("host name") << "tarv-test.local" << 200;
        QTest::newRow("host name upper case") << "TARV-TEST.LOCAL:80" << 200;
        QTest::newRow("host name with dot") << "tarv-test.local." << 200;
        QTest::newRow("ipv6 loopback") << "[::1]:%1" << 200;
        QTest::newRow("foreign name") << "evil.example" << 403;
        QTest::newRow("foreign name with port") << "evil.example:%1" << 403;
        QTest::newRow("lookalike") << "127.0.0.1.evil.example" << 403;
        QTest::newRow("own name as a subdomain") << "tarv-test.local.evil.example" << 403;
        QTest::newRow("more after the port") << "127.0.0.1:80@evil.example" << 403;
        QTest::newRow("port not a number") << "localhost:http" << 403;
        QTest::newRow("empty port") << "127.0.0.1:" << 403;
        QTest::newRow("ipv6 with junk port") << "[::1]:1x" << 403;
    }

    void theHostHeaderMustNameThisHost()
    {
        QFETCH(QString, host);
        QFETCH(int, status);
        LogCapture log;
        const std::string header = host.contains("%1") ? host.arg(m_api->port()).toStdString() : host.toStdString();
        const Answer answer = call("GET", "/api/v1/host", std::string(), {{"Host", header}});
        QCOMPARE(answer.status, status);
        if (status == 403) {
            QCOMPARE(answer.message(), QStringLiteral("This host does not answer to the name '%1' (Host header); use its "
                                                      "address or host name")
                                           .arg(QString::fromStdString(header)));
            QCOMPARE(log.countStartingWith(log4cplus::WARN_LOG_LEVEL,
                                           QStringLiteral("Refused a request for foreign host ") + QString::fromStdString(header),
                                           QStringLiteral("ControlApi")),
                     1);
        }
    }

    void pagesOfOtherOriginsAreRefused_data()
    {
        QTest::addColumn<QString>("host");
        QTest::addColumn<QString>("origin");
        QTest::addColumn<int>("status");
        QTest::newRow("own page") << "127.0.0.1:%1" << "http://127.0.0.1:%1" << 200;
        QTest::newRow("own page by name") << "tarv-test.local:%1" << "http://TARV-TEST.local:%1" << 200;
        QTest::newRow("own page on port 80") << "tarv-test.local" << "http://tarv-test.local:80" << 200;
        QTest::newRow("foreign page") << "127.0.0.1:%1" << "http://evil.example" << 403;
        QTest::newRow("foreign page on this host name") << "127.0.0.1:%1" << "http://evil.example:%1" << 403;
        QTest::newRow("another port of this host") << "127.0.0.1:%1" << "http://127.0.0.1:1" << 403;
        QTest::newRow("another name of this host") << "127.0.0.1:%1" << "http://localhost:%1" << 403;
        QTest::newRow("https page of this host name") << "tarv-test.local" << "https://tarv-test.local" << 403;
        QTest::newRow("opaque") << "127.0.0.1:%1" << "null" << 403;
        QTest::newRow("local file") << "127.0.0.1:%1" << "file://" << 403;
        QTest::newRow("garbage") << "127.0.0.1:%1" << "http://[zz" << 403;
    }

    void pagesOfOtherOriginsAreRefused()
    {
        QFETCH(QString, host);
        QFETCH(QString, origin);
        QFETCH(int, status);
        const QString port = QString::number(m_api->port());
        const std::string hostHeader = QString(host).replace(QLatin1String("%1"), port).toStdString();
        const std::string originHeader = QString(origin).replace(QLatin1String("%1"), port).toStdString();
        LogCapture log;
        m_handlers.lastValue = QVariant();
        // A web page's POST needs no permission from the server first, so
        // the refusal must come before the action runs.
        const Answer answer = call("POST", query("/api/v1/invoke", "/test/echo"), R"({"from": "page"})",
                                   {{"Host", hostHeader}, {"Origin", originHeader}});
        QCOMPARE(answer.status, status);
        if (status == 200) {
            QCOMPARE(m_handlers.lastValue.toHash().value("from").toString(), QStringLiteral("page"));
            return;
        }
        QVERIFY(!m_handlers.lastValue.isValid());
        QCOMPARE(answer.message(), QStringLiteral("Requests from the web page at '%1' are refused; only this host's own "
                                                  "page may use the API from a browser")
                                       .arg(QString::fromStdString(originHeader)));
        QCOMPARE(log.count(log4cplus::WARN_LOG_LEVEL,
                           QStringLiteral("Refused a request from the web page at %1 from 127.0.0.1")
                               .arg(QString::fromStdString(originHeader)),
                           QStringLiteral("ControlApi")),
                 1);
    }

    void anOverlongRequestLineIsExplained()
    {
        const Answer answer = call("GET", query("/api/v1/value", QLatin1Char('/') + QString(20000, QLatin1Char('a'))));
        QCOMPARE(answer.status, 414);
        QCOMPARE(answer.error().value("name").toString(), QStringLiteral("UriTooLong"));
        QCOMPARE(answer.message(), QStringLiteral("The request line is longer than 8192 bytes"));
    }

    void aRequestWithoutHostIsRefused()
    {
        const Answer answer = call("GET", "/api/v1/host", std::string(), {{"Host", ""}});
        QCOMPARE(answer.status, 400);
        QCOMPARE(answer.message(), QStringLiteral("The request has no Host header"));
    }

    void theWebPagesFilesAreServed_data()
    {
        QTest::addColumn<QString>("target");
        QTest::addColumn<QString>("contentType");
        QTest::newRow("page") << "/" << "text/html; charset=utf-8";
        QTest::newRow("style") << "/web/app.css" << "text/css; charset=utf-8";
        QTest::newRow("script") << "/web/app.js" << "text/javascript; charset=utf-8";
        QTest::newRow("module") << "/web/houseView.js" << "text/javascript; charset=utf-8";
    }

    void theWebPagesFilesAreServed()
    {
        QFETCH(QString, target);
        QFETCH(QString, contentType);
        const Answer answer = call("GET", target.toStdString());
        QCOMPARE(answer.status, 200);
        QCOMPARE(QString::fromStdString(answer.header("Content-Type")), contentType);
        HostWebPage::File file;
        QVERIFY(HostWebPage::find(target.toStdString(), &file));
        QVERIFY(answer.body == file.body);
        QCOMPARE(answer.header("Content-Security-Policy"), std::string(HostWebPage::contentSecurityPolicy()));
        QCOMPARE(answer.header("X-Content-Type-Options"), std::string("nosniff"));
    }

    void aFileThePageDoesNotHaveIsNotFound()
    {
        const Answer answer = call("GET", "/web/missing.js");
        QCOMPARE(answer.status, 404);
        QCOMPARE(answer.message(), QStringLiteral("The web page has no file /web/missing.js"));
        QCOMPARE(call("POST", "/web/app.js", "{}").status, 405);
    }

    void stoppingAnswersWaitingRequestsAtOnce()
    {
        ControlApi api(InProcessApi::options());
        QString error;
        QVERIFY2(api.start(&error), qPrintable(error));
        const quint16 port = api.port();
        auto waiting = std::async(std::launch::async, [port] {
            httplib::Client client("127.0.0.1", port);
            client.set_read_timeout(15);
            auto result = client.Post(query("/api/v1/invoke", "/test/hold") + "&timeout_ms=60000", "{}", "application/json");
            return result ? std::make_pair(result->status, result->body) : std::make_pair(-1, std::string());
        });
        QTRY_COMPARE_WITH_TIMEOUT(m_handlers.held.size(), 1, 5000);
        QElapsedTimer clock;
        clock.start();
        api.stop();
        QVERIFY(waiting.wait_for(std::chrono::seconds(5)) == std::future_status::ready);
        QVERIFY(clock.elapsed() < 3000);
        const auto answer = waiting.get();
        QCOMPARE(answer.first, 503);
        QCOMPARE(QJsonDocument::fromJson(QByteArray::fromStdString(answer.second)).object().value("error").toObject().value("message").toString(),
                 QStringLiteral("The host is shutting down"));
        m_handlers.held.clear();
    }

    void aRequestThatSlipsInWhileStoppingIsAnsweredAtOnce()
    {
        ControlApi api(InProcessApi::options());
        QString error;
        QVERIFY2(api.start(&error), qPrintable(error));
        const quint16 port = api.port();
        LogCapture log;
        RawConnection connection(port);
        QVERIFY(connection.isConnected());
        // The headers pass the door; the body comes only once stop() runs.
        // It is chunked: a body of known length would wait for the rest
        // before the request reaches a worker.
        QVERIFY(connection.send(query("/api/v1/invoke", "/test/hold").insert(0, "POST ")
                                + "&timeout_ms=60000 HTTP/1.1\r\nHost: 127.0.0.1\r\nTransfer-Encoding: chunked\r\n"
                                  "Connection: close\r\n\r\n"));
        QTRY_COMPARE_WITH_TIMEOUT(log.count(log4cplus::DEBUG_LOG_LEVEL,
                                            QStringLiteral("Request POST /api/v1/invoke from 127.0.0.1"),
                                            QStringLiteral("ControlApi")),
                                  1, 5000);
        // stop() waits for this connection's thread; the loop is not turned
        // while it does, as in the daemon, where stop() follows the loop.
        auto stopped = std::async(std::launch::async, [&api] { api.stop(); });
        QTRY_VERIFY_WITH_TIMEOUT(!RawConnection(port).isConnected(), 5000);
        QVERIFY(connection.send("2\r\n{}\r\n0\r\n\r\n"));
        QElapsedTimer clock;
        clock.start();
        const QString answer = QString::fromStdString(connection.readAll());
        QVERIFY2(answer.startsWith(QLatin1String("HTTP/1.1 503 ")), qPrintable(answer));
        QVERIFY2(answer.endsWith(QLatin1String(
                     R"({"error":{"message":"The host is shutting down","name":"Unavailable","title":"Shutting down"}})")),
                 qPrintable(answer));
        QVERIFY(clock.elapsed() < 3000);
        QVERIFY(stopped.wait_for(std::chrono::seconds(5)) == std::future_status::ready);
        QCOMPARE(m_handlers.held.size(), 0);
    }

    void stopRightAfterStartReturns()
    {
        // The accept loop may not have started yet when stop() comes; stop()
        // must still end it (a hang here would run into the test's limit).
        for (int round = 0; round < 50; ++round) {
            ControlApi api(InProcessApi::options());
            QString error;
            QVERIFY2(api.start(&error), qPrintable(error));
            auto stopped = std::async(std::launch::async, [&api] { api.stop(); });
            QVERIFY2(stopped.wait_for(std::chrono::seconds(5)) == std::future_status::ready,
                     qPrintable(QStringLiteral("stop() hung in round %1").arg(round)));
        }
    }

    void tooManyEventStreamsAreRefused()
    {
        ControlApi api(InProcessApi::options());
        QString error;
        QVERIFY2(api.start(&error), qPrintable(error));
        const quint16 port = api.port();
        std::vector<std::future<int>> streams;
        auto opened = std::make_shared<std::atomic<int>>(0);
        for (int i = 0; i < EventStream::MaxSubscribers; ++i) {
            streams.push_back(std::async(std::launch::async, [port, opened] {
                httplib::Client client("127.0.0.1", port);
                client.set_read_timeout(15);
                bool counted = false;
                auto result = client.Get("/api/v1/events", [&](const char*, size_t) {
                    if (!counted)
                        ++*opened;
                    counted = true;
                    return true;
                });
                return result ? result->status : -1;
            }));
        }
        QTRY_COMPARE_WITH_TIMEOUT(opened->load(), EventStream::MaxSubscribers, 5000);
        const Answer refused = InProcessApi::request(port, "GET", "/api/v1/events");
        QCOMPARE(refused.status, 503);
        QCOMPARE(refused.message(), QStringLiteral("At most 16 event streams may be open at once"));
        // Stopping ends every open stream.
        api.stop();
        for (auto& stream : streams) {
            QVERIFY(stream.wait_for(std::chrono::seconds(5)) == std::future_status::ready);
            QCOMPARE(stream.get(), 200);
        }
    }
};

QTEST_GUILESS_MAIN(tst_ControlApi)
#include "tst_ControlApi.moc"
