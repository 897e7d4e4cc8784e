// The control API as a client on the LAN meets it: a real server on the
// loopback interface in front of a real host worker (its values, their
// validators, the members list) and an action node. The input chooses the
// endpoint and supplies the query (path and parameters, percent-encoded so
// that any byte reaches the decoder) and the body.
//
// Input: first byte = endpoint; then query "\xff\xfe" body.

#include <cstdint>

#include <QElapsedTimer>
#include <QHostAddress>
#include <QTcpSocket>
#include <QUrl>

#include "CMActivateNode.h"
#include "CMNodes.h"
#include "ControlApi.h"
#include "FuzzSupport.h"
#include "HostConfig.h"
#include "HostWorker.h"

namespace {

// Answers every activation with its own value, as a module's action might.
class Echo : public QObject
{
public:
    void echo(const CMSetDataRequest& request) { request.setResult(request.value()); }
};

struct Host
{
    Host()
    {
        fuzzSetUpProcess();
        HostConfig config;
        QString error;
        if (!config.parse({QStringLiteral("tarv-host"), QStringLiteral("--name"), QStringLiteral("Kitchen"),
                           QStringLiteral("--address"), QStringLiteral("127.0.0.1")},
                          &error))
            qFatal("config: %s", qPrintable(error));
        worker = new HostWorker(config, QStringLiteral("dev-1"), QVariantHash(), nullptr);
        CMActivateNode::create(&nodes, CMPath("/fuzz/echo"))->setInvoke(&echo, &Echo::echo);
        ControlApi::Options options;
        options.address = QHostAddress(QHostAddress::LocalHost);
        api = new ControlApi(options);
        if (!api->start(&error))
            qFatal("api: %s", qPrintable(error));
    }

    // All live for the process, as in a host.
    HostWorker* worker = nullptr;
    CMNodes nodes;
    Echo echo;
    ControlApi* api = nullptr;
};

const char* const endpoints[][2] = {
    {"GET", "/api/v1/value"}, {"PUT", "/api/v1/value"}, {"POST", "/api/v1/invoke"},
    {"GET", "/api/v1/rows"},  {"GET", "/api/v1/host"},  {"GET", "/api/v1/tree"},
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static Host host;
    if (size == 0)
        return 0;
    const auto& endpoint = endpoints[data[0] % (sizeof endpoints / sizeof endpoints[0])];
    const QList<QByteArray> parts = fuzzParts(data + 1, size - 1, 2);
    const QByteArray query = parts.at(0).toPercentEncoding("=&");
    const QByteArray body = parts.value(1);

    QByteArray request = QByteArray(endpoint[0]) + ' ' + endpoint[1] + '?' + query + " HTTP/1.1\r\n"
        + "Host: 127.0.0.1:" + QByteArray::number(host.api->port()) + "\r\nConnection: close\r\n";
    if (endpoint[0][0] != 'G')
        request += "Content-Length: " + QByteArray::number(body.size()) + "\r\n";
    request += "\r\n";
    if (endpoint[0][0] != 'G')
        request += body;

    QTcpSocket client;
    client.connectToHost(QHostAddress(QHostAddress::LocalHost), host.api->port());
    client.write(request);
    // The server hands its work to this thread's event loop, so the loop runs
    // while the answer is awaited. An answer must come: a request that hangs
    // the API is a finding.
    QElapsedTimer waited;
    waited.start();
    while (client.state() != QAbstractSocket::UnconnectedState) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        client.waitForReadyRead(1);
        client.readAll();
        if (waited.elapsed() > 10000)
            qFatal("no answer within 10 s to %s", request.left(200).constData());
    }
    return 0;
}
