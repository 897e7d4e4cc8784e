#include <chrono>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QDeadlineTimer>
#include <QElapsedTimer>
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
#include "DeviceForwarder.h"
#include "HostWorker.h"
#include "InProcessApi.h"
#include "LogCapture.h"
#include "TarvPaths.h"
#include "TarvValue.h"

namespace {

using Params = std::multimap<std::string, std::string>;

using Answer = InProcessApi::Answer;

// A request as a fake device's host received it.
struct Received
{
    std::string method;
    std::string target;
    std::string path;
    Params params;
    httplib::Headers headers;
    std::string body;

    std::string header(const char* name) const
    {
        const auto it = headers.find(name);
        return it == headers.end() ? std::string() : it->second;
    }
};

// Another device's host, as small as the forwarder needs: an httplib
// server on 127.0.0.1 that records every request and answers each with a
// fixed status and body, or holds it until release() (at most 20 s).
class FakeDevice
{
public:
    explicit FakeDevice(bool hold = false)
        : m_hold(hold)
    {
        const auto handler = [this](const httplib::Request& request, httplib::Response& response) {
            std::unique_lock<std::mutex> locker(m_mutex);
            m_received.push_back(Received{request.method, request.target, request.path, request.params,
                                          request.headers, request.body});
            if (m_hold)
                m_released.wait_for(locker, std::chrono::seconds(20), [this] { return !m_hold; });
            response.status = 201;
            response.set_content(R"({"fake": true})", "application/json");
        };
        m_server.Get(".*", handler);
        m_server.Put(".*", handler);
        m_server.Post(".*", handler);
        m_port = static_cast<quint16>(m_server.bind_to_any_port("127.0.0.1"));
        m_thread = std::thread([this] { m_server.listen_after_bind(); });
        const QDeadlineTimer deadline(5000);
        while (!m_server.is_running() && !deadline.hasExpired())
            std::this_thread::yield();
    }
    ~FakeDevice()
    {
        release();
        m_server.stop();
        m_thread.join();
    }
    FakeDevice(const FakeDevice&) = delete;
    FakeDevice& operator=(const FakeDevice&) = delete;

    quint16 port() const { return m_port; }
    void release()
    {
        std::lock_guard<std::mutex> locker(m_mutex);
        m_hold = false;
        m_released.notify_all();
    }
    int count()
    {
        std::lock_guard<std::mutex> locker(m_mutex);
        return static_cast<int>(m_received.size());
    }
    std::vector<Received> received()
    {
        std::lock_guard<std::mutex> locker(m_mutex);
        return m_received;
    }

private:
    httplib::Server m_server;
    std::thread m_thread;
    quint16 m_port = 0;
    std::mutex m_mutex;
    std::condition_variable m_released;
    bool m_hold;
    std::vector<Received> m_received;
};

// A port on 127.0.0.1 with nothing listening: bound, then closed.
quint16 closedPort()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

QVariant apiAt(quint16 port)
{
    QVariantHash api;
    api.insert(QStringLiteral("address"), QStringLiteral("127.0.0.1"));
    api.insert(QStringLiteral("port"), port);
    return api;
}

} // namespace

// Serves the test's action node.
class Handlers : public QObject
{
    Q_OBJECT

public Q_SLOTS:
    void echo(const CMSetDataRequest& request) { request.setResult(request.value()); }
};

class tst_DeviceForwarder : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<HostWorker> m_host;
    std::unique_ptr<CMNodes> m_nodes;
    Handlers m_handlers;
    CMListRowsNode* m_members = nullptr;
    CMListRowsNode* m_house = nullptr;
    // The host the tests talk to ("dev-1"), and a second one standing in
    // for another device ("dev-2"); both serve this process's data model.
    std::unique_ptr<ControlApi> m_front;
    std::unique_ptr<ControlApi> m_back;

    static std::unique_ptr<ControlApi> startApi(const QString& id)
    {
        auto api = std::make_unique<ControlApi>(InProcessApi::options(id));
        QString error;
        if (!api->start(&error))
            qFatal("cannot start the control API: %s", qPrintable(error));
        return api;
    }

    // Lists a device in /system/members and /system/house as discovery
    // would; a null `api` is a device whose API listens on loopback only.
    void addDevice(const QString& id, const QString& name, const QVariant& api, bool withHouseRow = true)
    {
        TarvSystemMember record;
        record.setId(id).setName(name).setHost(id + QStringLiteral(".local")).setIpAddress(QStringLiteral("127.0.0.1"));
        m_members->rowsSetById(TarvRoles().setId(id).setType(TarvRolesType::Unknown).setTitle(name).setValue(
            TarvValue().setSystemMember(record)));
        if (!withHouseRow) {
            m_house->rowsRemoveById(id);
            return;
        }
        QVariantHash member;
        member.insert(QStringLiteral("id"), id);
        member.insert(QStringLiteral("name"), name);
        member.insert(QStringLiteral("host"), record.host());
        member.insert(QStringLiteral("ipAddress"), record.ipAddress());
        member.insert(QStringLiteral("transcoder"), false);
        member.insert(QStringLiteral("master"), QString());
        member.insert(QStringLiteral("savedGroup"), QVariantHash());
        member.insert(QStringLiteral("api"), api);
        QVariantHash value;
        value.insert(QStringLiteral("houseMember"), member);
        m_house->rowsSetById(TarvRoles().setId(id).setType(TarvRolesType::Unknown).setTitle(name).setValue(TarvValue(value)));
    }

    void removeDevice(const QString& id)
    {
        m_members->rowsRemoveById(id);
        m_house->rowsRemoveById(id);
    }

    Answer call(const std::string& method, const std::string& target, const std::string& body = std::string(),
                const httplib::Headers& headers = {})
    {
        return InProcessApi::request(m_front->port(), method, target, body, headers);
    }

private Q_SLOTS:
    void initTestCase()
    {
        QString error;
        m_host = InProcessApi::makeHost(QStringLiteral("dev-1"), &error);
        QVERIFY2(m_host, qPrintable(error));
        m_members = m_host->membersNode();
        m_nodes = std::make_unique<CMNodes>();
        m_house = qobject_cast<CMListRowsNode*>(CMRoot()->findNode(CMPath("/system/house")));
        if (!m_house)
            m_house = CMListRowsNode::create(m_nodes.get(), CMPath("/system/house"));
        CMActivateNode::create(m_nodes.get(), CMPath("/test/echo"))->setInvoke(&m_handlers, &Handlers::echo);
        m_front = startApi(QStringLiteral("dev-1"));
        m_back = startApi(QStringLiteral("dev-2"));
        addDevice(QStringLiteral("dev-2"), QStringLiteral("Bedroom"), apiAt(m_back->port()));
    }

    void cleanupTestCase()
    {
        m_front->stop();
        m_back->stop();
    }

    // -- The table and the request built from it.

    void theTableNamesEachEndpointsMethods_data()
    {
        QTest::addColumn<QString>("endpoint");
        QTest::addColumn<QString>("allowed");
        QTest::newRow("host") << "host" << "GET";
        QTest::newRow("value") << "value" << "GET, PUT";
        QTest::newRow("invoke") << "invoke" << "POST";
        QTest::newRow("rows") << "rows" << "GET";
        QTest::newRow("events") << "events" << "";
        QTest::newRow("tree") << "tree" << "";
    }

    void theTableNamesEachEndpointsMethods()
    {
        QFETCH(QString, endpoint);
        QFETCH(QString, allowed);
        QCOMPARE(DeviceForwarder::allowedMethods(endpoint.toStdString()), allowed);
        for (const char* method : {"GET", "PUT", "POST", "DELETE", "PATCH", "HEAD"}) {
            const DeviceForwarder::Route* route = DeviceForwarder::route(method, endpoint.toStdString());
            QCOMPARE(route != nullptr, allowed.split(", ").contains(QLatin1String(method)));
            if (route)
                QCOMPARE(QString::fromLatin1(route->targetPath), QStringLiteral("/api/v1/") + endpoint);
        }
        QVERIFY(DeviceForwarder::route("PUT", "value")->sendsBody);
        QVERIFY(DeviceForwarder::route("POST", "invoke")->sendsBody);
        QVERIFY(!DeviceForwarder::route("GET", "value")->sendsBody);
    }

    void theQueryKeepsOnlyPathAndTimeout_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QString>("endpoint");
        QTest::addColumn<QStringList>("params"); // key, value, key, value...
        QTest::addColumn<QString>("query");
        QTest::newRow("path") << "GET" << "value" << QStringList{"path", "/a/b"} << "path=%2Fa%2Fb";
        QTest::newRow("other keys dropped")
            << "GET" << "rows" << QStringList{"x", "1", "path", "/a", "timeout_ms", "5"} << "path=%2Fa";
        QTest::newRow("first path only") << "GET" << "value" << QStringList{"path", "/a", "path", "/b"} << "path=%2Fa";
        QTest::newRow("reserved characters re-encoded")
            << "PUT" << "value" << QStringList{"path", "/a b&c=d?e#f"} << "path=%2Fa%20b%26c%3Dd%3Fe%23f";
        QTest::newRow("invoke keeps timeout")
            << "POST" << "invoke" << QStringList{"timeout_ms", "250", "path", "/x", "y", "z"} << "path=%2Fx&timeout_ms=250";
        QTest::newRow("host takes none") << "GET" << "host" << QStringList{"path", "/x"} << "";
        QTest::newRow("nothing") << "GET" << "host" << QStringList{} << "";
    }

    void theQueryKeepsOnlyPathAndTimeout()
    {
        QFETCH(QString, method);
        QFETCH(QString, endpoint);
        QFETCH(QStringList, params);
        QFETCH(QString, query);
        Params map;
        for (int i = 0; i + 1 < params.size(); i += 2)
            map.emplace(params.at(i).toStdString(), params.at(i + 1).toStdString());
        const DeviceForwarder::Route* route = DeviceForwarder::route(method.toStdString(), endpoint.toStdString());
        QVERIFY(route);
        QCOMPARE(QString::fromStdString(DeviceForwarder::targetQuery(*route, map)), query);
    }

    void theAnswerBoundFollowsTheAction_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QString>("endpoint");
        QTest::addColumn<QString>("timeout");
        QTest::addColumn<int>("bound");
        QTest::newRow("value") << "GET" << "value" << "" << 6000;
        QTest::newRow("value ignores timeout") << "PUT" << "value" << "100" << 6000;
        QTest::newRow("invoke default") << "POST" << "invoke" << "" << 6000;
        QTest::newRow("invoke short") << "POST" << "invoke" << "200" << 1200;
        QTest::newRow("invoke longest") << "POST" << "invoke" << "60000" << 61000;
        QTest::newRow("invoke over the longest") << "POST" << "invoke" << "600000" << 61000;
        QTest::newRow("invoke bad timeout") << "POST" << "invoke" << "soon" << 6000;
        QTest::newRow("invoke zero") << "POST" << "invoke" << "0" << 6000;
    }

    void theAnswerBoundFollowsTheAction()
    {
        QFETCH(QString, method);
        QFETCH(QString, endpoint);
        QFETCH(QString, timeout);
        QFETCH(int, bound);
        Params params{{"path", "/x"}};
        if (!timeout.isEmpty())
            params.emplace("timeout_ms", timeout.toStdString());
        const DeviceForwarder::Route* route = DeviceForwarder::route(method.toStdString(), endpoint.toStdString());
        QVERIFY(route);
        QCOMPARE(DeviceForwarder::answerBoundMs(*route, params), bound);
    }

    void theHostHeaderNamesAddressAndPort()
    {
        QCOMPARE(DeviceForwarder::hostHeader(QStringLiteral("10.77.0.2"), 8080), std::string("10.77.0.2:8080"));
        QCOMPARE(DeviceForwarder::hostHeader(QStringLiteral("fd00::2"), 8080), std::string("[fd00::2]:8080"));
    }

    // -- Forwarding to a real host.

    void aForwardedRequestIsAnsweredAsTheDeviceAnswers_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QString>("endpoint");
        QTest::addColumn<QString>("query");
        QTest::addColumn<QString>("body");
        QTest::addColumn<int>("status");
        QTest::newRow("host") << "GET" << "host" << "" << "" << 200;
        QTest::newRow("value read") << "GET" << "value" << "?path=/settings/device/name" << "" << 200;
        QTest::newRow("unknown value") << "GET" << "value" << "?path=/no/such" << "" << 404;
        QTest::newRow("value without path") << "GET" << "value" << "" << "" << 400;
        QTest::newRow("value written")
            << "PUT" << "value" << "?path=/settings/device/name" << R"({"string_": "Kitchen"})" << 200;
        QTest::newRow("value refused")
            << "PUT" << "value" << "?path=/settings/streaming/stopTimeout" << R"({"i32_": "soon"})" << 422;
        QTest::newRow("read-only value refused")
            << "PUT" << "value" << "?path=/system/member/id" << R"({"string_": "x"})" << 422;
        QTest::newRow("invoke") << "POST" << "invoke" << "?path=/test/echo&timeout_ms=2000" << R"({"a": [1, "b"]})" << 200;
        QTest::newRow("invoke bad timeout") << "POST" << "invoke" << "?path=/test/echo&timeout_ms=0" << "{}" << 400;
        QTest::newRow("rows") << "GET" << "rows" << "?path=/system/house" << "" << 200;
        QTest::newRow("rows of a value") << "GET" << "rows" << "?path=/settings/device/name" << "" << 404;
    }

    void aForwardedRequestIsAnsweredAsTheDeviceAnswers()
    {
        QFETCH(QString, method);
        QFETCH(QString, endpoint);
        QFETCH(QString, query);
        QFETCH(QString, body);
        QFETCH(int, status);
        const Answer direct = InProcessApi::request(m_back->port(), method.toStdString(),
                                      ("/api/v1/" + endpoint + query).toStdString(), body.toStdString());
        const Answer forwarded =
            call(method.toStdString(), ("/api/v1/devices/dev-2/" + endpoint + query).toStdString(), body.toStdString());
        QCOMPARE(direct.status, status);
        QCOMPARE(forwarded.status, status);
        QCOMPARE(forwarded.body, direct.body);
        QCOMPARE(forwarded.header("Content-Type"), direct.header("Content-Type"));
        QCOMPARE(forwarded.header("X-Tarv-Device"), std::string("dev-2"));
        QVERIFY(direct.header("X-Tarv-Device").empty());
    }

    void theTargetReceivesOnlyWhatTheTableSays_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QString>("target");
        QTest::addColumn<QString>("body");
        QTest::addColumn<QString>("sentTarget");
        QTest::addColumn<QString>("sentBody");
        QTest::newRow("host") << "GET" << "/api/v1/devices/dev-f/host?path=/x&debug=1" << "" << "/api/v1/host"
                              << "";
        QTest::newRow("value read, extra keys")
            << "GET" << "/api/v1/devices/dev-f/value?path=%2Fa%2Fb&x=1&path=/c&timeout_ms=5" << "{\"ignored\": 1}"
            << "/api/v1/value?path=%2Fa%2Fb" << "";
        QTest::newRow("value write") << "PUT" << "/api/v1/devices/dev-f/value?path=/a&token=t" << R"({"string_": "n"})"
                                     << "/api/v1/value?path=%2Fa" << R"({"string_": "n"})";
        QTest::newRow("invoke") << "POST" << "/api/v1/devices/dev-f/invoke?timeout_ms=300&path=/a%20b&x=y"
                                << R"({"v": 1})" << "/api/v1/invoke?path=%2Fa%20b&timeout_ms=300" << R"({"v": 1})";
        QTest::newRow("rows") << "GET" << "/api/v1/devices/dev-f/rows?path=/system/house" << ""
                              << "/api/v1/rows?path=%2Fsystem%2Fhouse" << "";
    }

    void theTargetReceivesOnlyWhatTheTableSays()
    {
        QFETCH(QString, method);
        QFETCH(QString, target);
        QFETCH(QString, body);
        QFETCH(QString, sentTarget);
        QFETCH(QString, sentBody);
        FakeDevice fake;
        addDevice(QStringLiteral("dev-f"), QStringLiteral("Fake"), apiAt(fake.port()));
        const Answer answer = call(method.toStdString(), target.toStdString(), body.toStdString(),
                                   {{"Cookie", "session=secret"}, {"X-Custom", "1"}, {"Authorization", "Basic eDp5"}});
        removeDevice(QStringLiteral("dev-f"));
        // The fake's own answer comes back as it is.
        QCOMPARE(answer.status, 201);
        QCOMPARE(answer.body, std::string(R"({"fake": true})"));
        QCOMPARE(answer.header("X-Tarv-Device"), std::string("dev-f"));
        const std::vector<Received> received = fake.received();
        QCOMPARE(received.size(), size_t(1));
        const Received& sent = received.front();
        QCOMPARE(QString::fromStdString(sent.method), method);
        QCOMPARE(QString::fromStdString(sent.target), sentTarget);
        QCOMPARE(QString::fromStdString(sent.body), sentBody);
        QCOMPARE(sent.header("Host"), "127.0.0.1:" + std::to_string(fake.port()));
        QCOMPARE(sent.header("X-Tarv-Forwarded-By"), std::string("dev-1"));
        QCOMPARE(sent.header("Content-Type"), std::string(sentBody.isEmpty() ? "" : "application/json"));
        for (const char* foreign : {"Cookie", "X-Custom", "Authorization", "Origin"})
            QVERIFY2(sent.header(foreign).empty(), foreign);
    }

    // -- Refusals of the forwarding host.

    void thisDeviceIsRefusedWith400()
    {
        const Answer answer = call("GET", "/api/v1/devices/dev-1/value?path=/settings/device/name");
        QCOMPARE(answer.status, 400);
        QCOMPARE(answer.name(), QStringLiteral("BadRequest"));
        QCOMPARE(answer.message(), QStringLiteral("Device 'dev-1' is this device; use /api/v1/value directly"));
    }

    void anUnknownDeviceIsRefusedWith404()
    {
        const Answer answer = call("GET", "/api/v1/devices/dev-9/host");
        QCOMPARE(answer.status, 404);
        QCOMPARE(answer.name(), QStringLiteral("UnknownDevice"));
        QCOMPARE(answer.error().value("title").toString(), QStringLiteral("Unknown device"));
        QCOMPARE(answer.message(), QStringLiteral("No device with the id 'dev-9' on this LAN"));
        // A house row alone does not make a device: discovery lists it first.
        m_house->rowsSetById(m_house->rowsGetById(QStringLiteral("dev-2")).setId(QStringLiteral("dev-h")));
        const Answer houseOnly = call("GET", "/api/v1/devices/dev-h/host");
        m_house->rowsRemoveById(QStringLiteral("dev-h"));
        QCOMPARE(houseOnly.status, 404);
        QCOMPARE(houseOnly.message(), QStringLiteral("No device with the id 'dev-h' on this LAN"));
    }

    void aDeviceThatLeftIsRefusedWith404()
    {
        FakeDevice fake;
        addDevice(QStringLiteral("dev-f"), QStringLiteral("Fake"), apiAt(fake.port()));
        QCOMPARE(call("GET", "/api/v1/devices/dev-f/host").status, 201);
        removeDevice(QStringLiteral("dev-f"));
        const Answer answer = call("GET", "/api/v1/devices/dev-f/host");
        QCOMPARE(answer.status, 404);
        QCOMPARE(answer.message(), QStringLiteral("No device with the id 'dev-f' on this LAN"));
        QCOMPARE(fake.count(), 1);
    }

    void aDeviceWithItsApiOnLoopbackIsRefusedWith502_data()
    {
        QTest::addColumn<QVariant>("api");
        QTest::addColumn<bool>("houseRow");
        QTest::newRow("api null") << QVariant() << true;
        QTest::newRow("no house row") << QVariant() << false;
        QVariantHash noPort;
        noPort.insert(QStringLiteral("address"), QStringLiteral("127.0.0.1"));
        noPort.insert(QStringLiteral("port"), 0);
        QTest::newRow("port 0") << QVariant(noPort) << true;
    }

    void aDeviceWithItsApiOnLoopbackIsRefusedWith502()
    {
        QFETCH(QVariant, api);
        QFETCH(bool, houseRow);
        addDevice(QStringLiteral("dev-l"), QStringLiteral("Attic"), api, houseRow);
        const Answer answer = call("GET", "/api/v1/devices/dev-l/rows?path=/ui/grouping");
        removeDevice(QStringLiteral("dev-l"));
        QCOMPARE(answer.status, 502);
        QCOMPARE(answer.name(), QStringLiteral("DeviceUnreachable"));
        QCOMPARE(answer.message(), QStringLiteral("Device 'Attic' cannot be reached from other devices: its control "
                                                  "API listens only on its own loopback"));
    }

    void anUnreachableDeviceIsRefusedWith502()
    {
        const quint16 port = closedPort();
        addDevice(QStringLiteral("dev-u"), QStringLiteral("Garage"), apiAt(port));
        LogCapture log;
        const Answer answer = call("POST", "/api/v1/devices/dev-u/invoke?path=/ui/grouping/leave", "{}");
        removeDevice(QStringLiteral("dev-u"));
        QCOMPARE(answer.status, 502);
        QCOMPARE(answer.name(), QStringLiteral("DeviceUnreachable"));
        const QString message =
            QStringLiteral("Device 'Garage' at 127.0.0.1:%1 is unreachable: connection refused").arg(port);
        QCOMPARE(answer.message(), message);
        QCOMPARE(log.countStartingWith(log4cplus::WARN_LOG_LEVEL,
                                       QStringLiteral("Forwarding POST /api/v1/devices/dev-u/invoke failed after "),
                                       QStringLiteral("DeviceForwarder")),
                 1);
        QCOMPARE(log.countContaining(log4cplus::WARN_LOG_LEVEL, QStringLiteral(" ms: ") + message), 1);
    }

    void aSlowDeviceTimesOutWithinTheBound_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QString>("target");
        QTest::addColumn<int>("bound");
        QTest::newRow("invoke") << "POST" << "/api/v1/devices/dev-s/invoke?path=/a&timeout_ms=300" << 1300;
        QTest::newRow("value") << "GET" << "/api/v1/devices/dev-s/value?path=/a" << 6000;
    }

    void aSlowDeviceTimesOutWithinTheBound()
    {
        QFETCH(QString, method);
        QFETCH(QString, target);
        QFETCH(int, bound);
        FakeDevice fake(true);
        addDevice(QStringLiteral("dev-s"), QStringLiteral("Slow"), apiAt(fake.port()));
        QElapsedTimer timer;
        timer.start();
        const Answer answer = call(method.toStdString(), target.toStdString(), "{}");
        const qint64 elapsed = timer.elapsed();
        removeDevice(QStringLiteral("dev-s"));
        QCOMPARE(answer.status, 504);
        QCOMPARE(answer.name(), QStringLiteral("DeviceTimeout"));
        QCOMPARE(answer.message(), QStringLiteral("Device 'Slow' did not answer within %1 ms").arg(bound));
        QCOMPARE(fake.count(), 1);
        QVERIFY2(elapsed >= bound && elapsed < bound + 1000, qPrintable(QString::number(elapsed)));
    }

    void aForwardedRequestIsNotForwardedAgain()
    {
        FakeDevice fake;
        addDevice(QStringLiteral("dev-f"), QStringLiteral("Fake"), apiAt(fake.port()));
        LogCapture log;
        const Answer answer = call("GET", "/api/v1/devices/dev-f/host", std::string(), {{"X-Tarv-Forwarded-By", "dev-7"}});
        // Even to this device itself, or to one that does not exist.
        const Answer toSelf = call("GET", "/api/v1/devices/dev-1/host", std::string(), {{"X-Tarv-Forwarded-By", "dev-7"}});
        const Answer toNobody = call("GET", "/api/v1/devices/dev-9/host", std::string(), {{"X-Tarv-Forwarded-By", "dev-8"}});
        removeDevice(QStringLiteral("dev-f"));
        QCOMPARE(answer.status, 508);
        QCOMPARE(answer.name(), QStringLiteral("ForwardingLoop"));
        QCOMPARE(answer.message(), QStringLiteral("This request was already forwarded by device 'dev-7'; a host "
                                                  "forwards only its own clients' requests"));
        QCOMPARE(toSelf.status, 508);
        QCOMPARE(toNobody.status, 508);
        QCOMPARE(fake.count(), 0);
        QCOMPARE(log.count(log4cplus::WARN_LOG_LEVEL,
                           QStringLiteral("Refused a request for device dev-f already forwarded by device dev-7 from "
                                          "127.0.0.1"),
                           QStringLiteral("DeviceForwarder")),
                 1);
    }

    void pathsOutsideTheTableAreNotFound_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QString>("target");
        QTest::newRow("events") << "GET" << "/api/v1/devices/dev-f/events";
        QTest::newRow("tree") << "GET" << "/api/v1/devices/dev-f/tree";
        QTest::newRow("dot dot") << "GET" << "/api/v1/devices/dev-f/../host";
        QTest::newRow("encoded slash") << "GET" << "/api/v1/devices/dev-f%2F..%2Fhost/host";
        QTest::newRow("deeper") << "GET" << "/api/v1/devices/dev-f/host/more";
        QTest::newRow("trailing slash") << "GET" << "/api/v1/devices/dev-f/host/";
        QTest::newRow("nested device") << "GET" << "/api/v1/devices/dev-f/devices/dev-2/host";
        QTest::newRow("no endpoint") << "GET" << "/api/v1/devices/dev-f";
        QTest::newRow("no device") << "GET" << "/api/v1/devices//host";
        QTest::newRow("list") << "GET" << "/api/v1/devices";
        QTest::newRow("upper case") << "GET" << "/api/v1/devices/dev-f/HOST";
        QTest::newRow("post events") << "POST" << "/api/v1/devices/dev-f/events";
    }

    void pathsOutsideTheTableAreNotFound()
    {
        QFETCH(QString, method);
        QFETCH(QString, target);
        // As the server decoded it.
        const QString expectedPath = QUrl::fromPercentEncoding(target.toUtf8());
        FakeDevice fake;
        addDevice(QStringLiteral("dev-f"), QStringLiteral("Fake"), apiAt(fake.port()));
        const Answer answer = call(method.toStdString(), target.toStdString());
        removeDevice(QStringLiteral("dev-f"));
        QCOMPARE(answer.status, 404);
        QCOMPARE(answer.name(), QStringLiteral("NotFound"));
        QCOMPARE(answer.message(), QStringLiteral("No such endpoint: %1 %2. Another device's host answers through "
                                                  "/api/v1/devices/ID/host, value, invoke and rows only")
                                       .arg(method, expectedPath));
        QCOMPARE(fake.count(), 0);
    }

    void aPathThatOnlyStartsLikeDevicesKeepsTheGeneralNotFound()
    {
        const Answer answer = call("GET", "/api/v1/devicesx/dev-f/host");
        QCOMPARE(answer.status, 404);
        QCOMPARE(answer.message(), QStringLiteral("No such endpoint: GET /api/v1/devicesx/dev-f/host. The API is "
                                                  "/api/v1/host, value, invoke, rows, tree and events"));
    }

    void wrongMethodsAreRefusedWith405_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QString>("target");
        QTest::addColumn<QString>("allowed");
        QTest::newRow("delete host") << "DELETE" << "/api/v1/devices/dev-f/host" << "GET";
        QTest::newRow("post value") << "POST" << "/api/v1/devices/dev-f/value?path=/a" << "GET, PUT";
        QTest::newRow("patch value") << "PATCH" << "/api/v1/devices/dev-f/value?path=/a" << "GET, PUT";
        QTest::newRow("get invoke") << "GET" << "/api/v1/devices/dev-f/invoke?path=/a" << "POST";
        QTest::newRow("put rows") << "PUT" << "/api/v1/devices/dev-f/rows?path=/a" << "GET";
    }

    void wrongMethodsAreRefusedWith405()
    {
        QFETCH(QString, method);
        QFETCH(QString, target);
        QFETCH(QString, allowed);
        FakeDevice fake;
        addDevice(QStringLiteral("dev-f"), QStringLiteral("Fake"), apiAt(fake.port()));
        const Answer answer = call(method.toStdString(), target.toStdString(), "{}");
        removeDevice(QStringLiteral("dev-f"));
        QCOMPARE(answer.status, 405);
        QCOMPARE(QString::fromStdString(answer.header("Allow")), allowed);
        QCOMPARE(answer.message(),
                 QStringLiteral("%1 does not take %2; use %3").arg(target.section('?', 0, 0), method, allowed));
        QCOMPARE(fake.count(), 0);
    }

    void hostileHostAndOriginAreRefusedBeforeForwarding_data()
    {
        QTest::addColumn<QString>("header");
        QTest::addColumn<QString>("value");
        QTest::newRow("foreign host") << "Host" << "evil.example";
        QTest::newRow("device's address as host") << "Host" << "10.77.0.2:8080";
        QTest::newRow("foreign origin") << "Origin" << "http://evil.example";
        QTest::newRow("null origin") << "Origin" << "null";
    }

    void hostileHostAndOriginAreRefusedBeforeForwarding()
    {
        QFETCH(QString, header);
        QFETCH(QString, value);
        FakeDevice fake;
        addDevice(QStringLiteral("dev-f"), QStringLiteral("Fake"), apiAt(fake.port()));
        const Answer answer = call("PUT", "/api/v1/devices/dev-f/value?path=/settings/device/name",
                                   R"({"string_": "Pwned"})", {{header.toStdString(), value.toStdString()}});
        removeDevice(QStringLiteral("dev-f"));
        QCOMPARE(answer.status, 403);
        QCOMPARE(answer.name(), QStringLiteral("Forbidden"));
        QCOMPARE(fake.count(), 0);
    }

    void aBodyOverTheLimitIsNotForwarded()
    {
        FakeDevice fake;
        addDevice(QStringLiteral("dev-f"), QStringLiteral("Fake"), apiAt(fake.port()));
        const std::string big = "{\"string_\": \"" + std::string(ControlApi::MaxBodyBytes, 'x') + "\"}";
        const Answer answer = call("PUT", "/api/v1/devices/dev-f/value?path=/settings/device/name", big);
        removeDevice(QStringLiteral("dev-f"));
        QCOMPARE(answer.status, 413);
        QCOMPARE(answer.message(), QStringLiteral("The request body is larger than 65536 bytes"));
        QCOMPARE(fake.count(), 0);
    }

    void atMostEightForwardsAreInFlight()
    {
        std::vector<std::unique_ptr<FakeDevice>> fakes;
        for (int i = 0; i < 3; ++i) {
            fakes.push_back(std::make_unique<FakeDevice>(true));
            addDevice(QStringLiteral("dev-c%1").arg(i), QStringLiteral("Held %1").arg(i), apiAt(fakes.back()->port()));
        }
        const auto reached = [&fakes] {
            int total = 0;
            for (const auto& fake : fakes)
                total += fake->count();
            return total;
        };
        std::vector<std::future<Answer>> answers;
        for (int i = 0; i < 9; ++i)
            answers.push_back(InProcessApi::send(m_front->port(), "POST",
                                   "/api/v1/devices/dev-c" + std::to_string(i % 3) + "/invoke?path=/a&timeout_ms=15000",
                                   "{}"));
        // Eight held by the fakes, one refused at once.
        const auto refusedOne = [&answers] {
            for (auto& answer : answers) {
                if (answer.wait_for(std::chrono::seconds(0)) == std::future_status::ready)
                    return true;
            }
            return false;
        };
        QTRY_VERIFY_WITH_TIMEOUT(refusedOne(), 10000);
        QTRY_COMPARE_WITH_TIMEOUT(reached(), 8, 10000);
        int refused = 0;
        for (auto& answer : answers) {
            if (answer.wait_for(std::chrono::seconds(0)) != std::future_status::ready)
                continue;
            const Answer got = answer.get();
            answer = std::future<Answer>();
            QCOMPARE(got.status, 503);
            QCOMPARE(got.name(), QStringLiteral("TooManyForwards"));
            QCOMPARE(got.message(), QStringLiteral("Too many requests to other devices at once (at most 8, 4 per "
                                                   "device); try again"));
            ++refused;
        }
        QCOMPARE(refused, 1);
        // Ordinary requests are still served while the forwards wait.
        QCOMPARE(call("GET", "/api/v1/host").status, 200);
        for (const auto& fake : fakes)
            fake->release();
        for (auto& answer : answers) {
            if (answer.valid())
                QCOMPARE(InProcessApi::wait(answer).status, 201);
        }
        QCOMPARE(reached(), 8);
        // Every slot came back: eight more go through at once.
        for (int i = 0; i < 8; ++i)
            answers[i] = InProcessApi::send(m_front->port(), "GET", "/api/v1/devices/dev-c" + std::to_string(i % 3) + "/host");
        for (int i = 0; i < 8; ++i)
            QCOMPARE(InProcessApi::wait(answers[i]).status, 201);
        for (int i = 0; i < 3; ++i)
            removeDevice(QStringLiteral("dev-c%1").arg(i));
    }

    void atMostFourForwardsGoToOneDevice()
    {
        FakeDevice fake(true);
        FakeDevice other;
        addDevice(QStringLiteral("dev-s"), QStringLiteral("Slow"), apiAt(fake.port()));
        addDevice(QStringLiteral("dev-o"), QStringLiteral("Other"), apiAt(other.port()));
        std::vector<std::future<Answer>> answers;
        for (int i = 0; i < 4; ++i)
            answers.push_back(InProcessApi::send(m_front->port(), "GET", "/api/v1/devices/dev-s/value?path=/a"));
        QTRY_COMPARE_WITH_TIMEOUT(fake.count(), 4, 10000);
        const Answer fifth = call("GET", "/api/v1/devices/dev-s/value?path=/a");
        QCOMPARE(fifth.status, 503);
        QCOMPARE(fifth.name(), QStringLiteral("TooManyForwards"));
        // Another device is still within its own share.
        QCOMPARE(call("GET", "/api/v1/devices/dev-o/host").status, 201);
        QCOMPARE(fake.count(), 4);
        fake.release();
        for (auto& answer : answers)
            QCOMPARE(InProcessApi::wait(answer).status, 201);
        // The slots of the device came back.
        QCOMPARE(call("GET", "/api/v1/devices/dev-s/value?path=/a").status, 201);
        removeDevice(QStringLiteral("dev-s"));
        removeDevice(QStringLiteral("dev-o"));
    }

    void failedForwardsGiveTheirSlotsBack()
    {
        const quint16 port = closedPort();
        addDevice(QStringLiteral("dev-u"), QStringLiteral("Garage"), apiAt(port));
        for (int i = 0; i < DeviceForwarder::MaxForwardsPerDevice + 1; ++i)
            QCOMPARE(call("GET", "/api/v1/devices/dev-u/host").status, 502);
        removeDevice(QStringLiteral("dev-u"));
        FakeDevice fake;
        addDevice(QStringLiteral("dev-u"), QStringLiteral("Garage"), apiAt(fake.port()));
        QCOMPARE(call("GET", "/api/v1/devices/dev-u/host").status, 201);
        removeDevice(QStringLiteral("dev-u"));
    }
};

QTEST_GUILESS_MAIN(tst_DeviceForwarder)
#include "tst_DeviceForwarder.moc"
