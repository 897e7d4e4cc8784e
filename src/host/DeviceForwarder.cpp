#include "DeviceForwarder.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include <QHostAddress>
#include <QStringList>
#include <QUrl>

#include <httplib.h>

#include "CMListRowsNode.h"
#include "CMRootWorker.h"
#include "HostWorker.h"
#include "TarvLog.h"
#include "TarvPaths.h"

namespace {

log4cplus::Logger logger()
{
    return TarvLog::logger("DeviceForwarder");
}

using Clock = std::chrono::steady_clock;

// How long the event loop may take to look the target up; a busy loop
// answers a direct request no later.
const int lookUpMs = 5000;

const DeviceForwarder::Route routes[] = {
    {"host", "GET", "/api/v1/host", false, false, false},
    {"value", "GET", "/api/v1/value", false, true, false},
    {"value", "PUT", "/api/v1/value", true, true, false},
    {"invoke", "POST", "/api/v1/invoke", true, true, true},
    {"rows", "GET", "/api/v1/rows", false, true, false},
};

std::string encoded(const std::string& value)
{
    return QUrl::toPercentEncoding(QString::fromStdString(value)).toStdString();
}

bool firstValue(const std::multimap<std::string, std::string>& params, const char* key, std::string* value)
{
    const auto it = params.find(key);
    if (it == params.end())
        return false;
    *value = it->second;
    return true;
}

void setTimeout(httplib::Client& client, void (httplib::Client::*setter)(time_t, time_t), int ms)
{
    (client.*setter)(ms / 1000, (ms % 1000) * 1000);
}

qint64 msSince(Clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

} // namespace

const char* const DeviceForwarder::ForwardedByHeader = "X-Tarv-Forwarded-By";
const char* const DeviceForwarder::DeviceHeader = "X-Tarv-Device";

DeviceForwarder::DeviceForwarder(const QString& ownId, LoopRunner runOnLoop)
    : m_ownId(ownId), m_runOnLoop(std::move(runOnLoop))
{
}

const DeviceForwarder::Route* DeviceForwarder::route(const std::string& method, const std::string& endpoint)
{
    for (const Route& line : routes) {
        if (endpoint == line.endpoint && method == line.method)
            return &line;
    }
    return nullptr;
}

QString DeviceForwarder::allowedMethods(const std::string& endpoint)
{
    QStringList methods;
    for (const Route& line : routes) {
        if (endpoint == line.endpoint)
            methods << QLatin1String(line.method);
    }
    return methods.join(QStringLiteral(", "));
}

std::string DeviceForwarder::targetQuery(const Route& route, const std::multimap<std::string, std::string>& params)
{
    // Rebuilt from the decoded values rather than copied, so that nothing
    // the client smuggled into the query (more keys, odd encodings) reaches
    // the target.
    std::string query;
    std::string value;
    for (const char* key : {"path", "timeout_ms"}) {
        const bool sent = std::string(key) == "path" ? route.takesPath : route.invoke;
        if (!sent || !firstValue(params, key, &value))
            continue;
        if (!query.empty())
            query += '&';
        query += std::string(key) + '=' + encoded(value);
    }
    return query;
}

int DeviceForwarder::answerBoundMs(const Route& route, const std::multimap<std::string, std::string>& params)
{
    if (!route.invoke)
        return AnswerMs;
    int actionMs = DefaultInvokeMs;
    std::string value;
    if (firstValue(params, "timeout_ms", &value)) {
        bool ok = false;
        const int asked = QString::fromStdString(value).toInt(&ok);
        // A bad value is the target's to refuse; it answers that at once.
        if (ok && asked >= 1)
            actionMs = std::min(asked, MaxInvokeMs);
    }
    return actionMs + InvokeMarginMs;
}

std::string DeviceForwarder::hostHeader(const QString& address, quint16 port)
{
    const QHostAddress literal(address);
    const QString host = literal.protocol() == QAbstractSocket::IPv6Protocol
        ? QLatin1Char('[') + address + QLatin1Char(']')
        : address;
    return QStringLiteral("%1:%2").arg(host).arg(port).toStdString();
}

void DeviceForwarder::lookUp(const QString& id, const CMReply<QVariant>& reply, int* status)
{
    auto* members = qobject_cast<CMListRowsNode*>(CMRoot()->findNode(TarvSystemMembersPath()));
    const TarvRoles member = members ? members->rowsGetById(id) : TarvRoles();
    if (member.id().isEmpty()) {
        *status = 404;
        reply.setError(unknownDevice(id));
        return;
    }
    auto* house = qobject_cast<CMListRowsNode*>(CMRoot()->findNode(HostWorker::housePath()));
    const QVariantHash houseMember =
        house ? house->rowsGetById(id).value().value(QStringLiteral("houseMember")).toHash() : QVariantHash();
    QString name = houseMember.value(QStringLiteral("name")).toString();
    if (name.isEmpty())
        name = member.title().toString();
    // A device without a house row (an older host) announces no API either.
    const QVariantHash api = houseMember.value(QStringLiteral("api")).toHash();
    const QString address = api.value(QStringLiteral("address")).toString();
    bool portOk = false;
    const int port = api.value(QStringLiteral("port")).toInt(&portOk);
    if (address.isEmpty() || QHostAddress(address).isNull() || !portOk || port < 1 || port > 65535) {
        *status = 502;
        reply.setError(onLoopback(name));
        return;
    }
    QVariantHash target;
    target.insert(QStringLiteral("name"), name);
    target.insert(QStringLiteral("address"), address);
    target.insert(QStringLiteral("port"), port);
    reply.setResult(target);
}

void DeviceForwarder::forward(const httplib::Request& request, httplib::Response& response,
                              const std::string& deviceId, const std::string& endpoint)
{
    const QString id = QString::fromStdString(deviceId);
    // A target forwarding on would let two hosts bounce a request between
    // them, and would let any device reach a third through this one.
    if (request.has_header(ForwardedByHeader)) {
        const QString by = QString::fromStdString(request.get_header_value(ForwardedByHeader));
        LOG4CPLUS_WARN(logger(), "Refused a request for device " << id << " already forwarded by device " << by
                                                                   << " from " << QString::fromStdString(request.remote_addr));
        ApiResponse::sendError(response, 508, forwardingLoop(by));
        return;
    }
    const Route* line = route(request.method, endpoint);
    if (!line) {
        // The caller routes only the table's methods here.
        ApiResponse::sendError(response, 500,
                               ApiResponse::error(QStringLiteral("InternalError"), QStringLiteral("Internal error"),
                                                  QStringLiteral("No forwarding for %1 %2")
                                                      .arg(QString::fromStdString(request.method),
                                                           QString::fromStdString(endpoint))));
        return;
    }
    if (id == m_ownId) {
        ApiResponse::sendError(response, 400, thisDevice(id, endpoint));
        return;
    }

    const ApiResponse::Outcome found =
        m_runOnLoop([id](const CMReply<QVariant>& reply, int* status) { lookUp(id, reply, status); }, lookUpMs);
    if (!found.answered) {
        ApiResponse::sendError(response, 504,
                               ApiResponse::error(QStringLiteral("Timeout"), QStringLiteral("No answer"),
                                                  QStringLiteral("No answer within %1 ms").arg(lookUpMs)));
        return;
    }
    if (found.failed) {
        ApiResponse::sendError(response, found.status == 200 ? 500 : found.status, found.error);
        return;
    }
    const QVariantHash result = found.result.toHash();
    Target target;
    target.id = id;
    target.name = result.value(QStringLiteral("name")).toString();
    target.address = result.value(QStringLiteral("address")).toString();
    target.port = static_cast<quint16>(result.value(QStringLiteral("port")).toInt());

    const Slot slot(this, id);
    if (!slot.taken()) {
        LOG4CPLUS_WARN(logger(), "Refused a request for device " << id << ": too many forwards in flight");
        ApiResponse::sendError(response, 503, tooManyForwards());
        return;
    }
    send(request, response, *line, target);
}

void DeviceForwarder::send(const httplib::Request& request, httplib::Response& response, const Route& route,
                           const Target& target)
{
    const int boundMs = answerBoundMs(route, request.params);
    httplib::Client client(target.address.toStdString(), target.port);
    setTimeout(client, &httplib::Client::set_connection_timeout, ConnectMs);
    setTimeout(client, &httplib::Client::set_read_timeout, boundMs);
    setTimeout(client, &httplib::Client::set_write_timeout, boundMs);
    client.set_keep_alive(false);
    // The query is encoded already; httplib would only add to it.
    client.set_url_encode(false);

    httplib::Request out;
    out.method = route.method;
    out.path = route.targetPath;
    const std::string query = targetQuery(route, request.params);
    if (!query.empty())
        out.path += '?' + query;
    out.set_header("Host", hostHeader(target.address, target.port));
    out.set_header(ForwardedByHeader, m_ownId.toStdString());
    out.set_header("Accept", "application/json");
    if (route.sendsBody) {
        out.body = request.body;
        out.set_header("Content-Type", "application/json");
    }
    // The read bound holds for each read; the deadline holds for the whole
    // answer, so a target trickling its body cannot hold the worker longer.
    const Clock::time_point start = Clock::now();
    const Clock::time_point deadline = start + std::chrono::milliseconds(ConnectMs + boundMs);
    std::string body;
    bool tooLarge = false;
    bool late = false;
    out.content_receiver = [&](const char* data, size_t length, uint64_t, uint64_t) {
        if (body.size() + length > MaxAnswerBytes) {
            tooLarge = true;
            return false;
        }
        if (Clock::now() > deadline) {
            late = true;
            return false;
        }
        body.append(data, length);
        return true;
    };

    LOG4CPLUS_DEBUG(logger(), "Forwarding " << QString::fromStdString(request.method + " " + request.path) << " to "
                                            << target.id << " at " << QString::fromStdString(hostHeader(target.address, target.port))
                                            << " as " << QString::fromStdString(out.path));
    httplib::Response answer;
    httplib::Error error = httplib::Error::Success;
    const bool sent = client.send(out, answer, error);
    const qint64 elapsedMs = msSince(start);
    if (!sent || tooLarge || late) {
        const auto unreachableBecause = [&target](const QString& reason) {
            return std::make_pair(502, unreachable(target, reason));
        };
        const std::pair<int, CMError> failure = [&] {
            if (tooLarge)
                return unreachableBecause(QStringLiteral("its answer is larger than %1 bytes").arg(MaxAnswerBytes));
            if (late || (error == httplib::Error::Read && elapsedMs >= boundMs))
                return std::make_pair(504, noAnswer(target.name, boundMs));
            switch (error) {
            case httplib::Error::Connection:
            case httplib::Error::ConnectionTimeout:
                // httplib tells a refusal from a silence only by the time it took.
                return unreachableBecause(elapsedMs >= ConnectMs
                                              ? QStringLiteral("no connection within %1 ms").arg(ConnectMs)
                                              : QStringLiteral("connection refused"));
            case httplib::Error::Read:
                return unreachableBecause(QStringLiteral("the connection closed before its answer"));
            case httplib::Error::Write:
                return unreachableBecause(QStringLiteral("the request could not be sent"));
            default:
                return unreachableBecause(
                    QStringLiteral("HTTP error %1").arg(QString::fromStdString(httplib::to_string(error))));
            }
        }();
        LOG4CPLUS_WARN(logger(), "Forwarding " << QString::fromStdString(request.method + " " + request.path)
                                               << " failed after " << elapsedMs << " ms: " << failure.second.message());
        ApiResponse::sendError(response, failure.first, failure.second);
        return;
    }
    response.status = answer.status;
    const std::string type = answer.get_header_value("Content-Type");
    response.set_content(body, type.empty() ? ApiResponse::JsonType : type.c_str());
    response.set_header(DeviceHeader, target.id.toStdString());
}

CMError DeviceForwarder::thisDevice(const QString& id, const std::string& endpoint)
{
    return ApiResponse::error(QStringLiteral("BadRequest"), QStringLiteral("Bad request"),
                              QStringLiteral("Device '%1' is this device; use /api/v1/%2 directly")
                                  .arg(id, QString::fromStdString(endpoint)));
}

CMError DeviceForwarder::unknownDevice(const QString& id)
{
    return ApiResponse::error(QStringLiteral("UnknownDevice"), QStringLiteral("Unknown device"),
                              QStringLiteral("No device with the id '%1' on this LAN").arg(id));
}

CMError DeviceForwarder::onLoopback(const QString& name)
{
    return ApiResponse::error(QStringLiteral("DeviceUnreachable"), QStringLiteral("Device unreachable"),
                              QStringLiteral("Device '%1' cannot be reached from other devices: its control API "
                                             "listens only on its own loopback")
                                  .arg(name));
}

CMError DeviceForwarder::unreachable(const Target& target, const QString& reason)
{
    return ApiResponse::error(QStringLiteral("DeviceUnreachable"), QStringLiteral("Device unreachable"),
                              QStringLiteral("Device '%1' at %2 is unreachable: %3")
                                  .arg(target.name, QString::fromStdString(hostHeader(target.address, target.port)),
                                       reason));
}

CMError DeviceForwarder::noAnswer(const QString& name, int boundMs)
{
    return ApiResponse::error(QStringLiteral("DeviceTimeout"), QStringLiteral("No answer from the device"),
                              QStringLiteral("Device '%1' did not answer within %2 ms").arg(name).arg(boundMs));
}

CMError DeviceForwarder::forwardingLoop(const QString& forwardedBy)
{
    return ApiResponse::error(QStringLiteral("ForwardingLoop"), QStringLiteral("Forwarding loop"),
                              QStringLiteral("This request was already forwarded by device '%1'; a host forwards "
                                             "only its own clients' requests")
                                  .arg(forwardedBy));
}

CMError DeviceForwarder::tooManyForwards()
{
    return ApiResponse::error(QStringLiteral("TooManyForwards"), QStringLiteral("Too many forwards"),
                              QStringLiteral("Too many requests to other devices at once (at most %1, %2 per "
                                             "device); try again")
                                  .arg(MaxForwards)
                                  .arg(MaxForwardsPerDevice));
}

bool DeviceForwarder::isDevicePath(const std::string& path)
{
    const std::string devices = "/api/v1/devices";
    return path.compare(0, devices.size(), devices) == 0 && (path.size() == devices.size() || path[devices.size()] == '/');
}

CMError DeviceForwarder::notForwarded(const std::string& method, const std::string& path)
{
    return ApiResponse::notFound(QStringLiteral("No such endpoint: %1. Another device's host answers through "
                                                "/api/v1/devices/ID/host, value, invoke and rows only")
                                     .arg(QString::fromStdString(method + " " + path)));
}

DeviceForwarder::Slot::Slot(DeviceForwarder* forwarder, const QString& id)
    : m_forwarder(forwarder), m_id(id)
{
    std::lock_guard<std::mutex> locker(m_forwarder->m_slotsMutex);
    int& forDevice = m_forwarder->m_perDevice[m_id];
    if (m_forwarder->m_inFlight < MaxForwards && forDevice < MaxForwardsPerDevice) {
        ++m_forwarder->m_inFlight;
        ++forDevice;
        m_taken = true;
    } else if (forDevice == 0) {
        m_forwarder->m_perDevice.erase(m_id);
    }
}

DeviceForwarder::Slot::~Slot()
{
    if (!m_taken)
        return;
    std::lock_guard<std::mutex> locker(m_forwarder->m_slotsMutex);
    --m_forwarder->m_inFlight;
    if (--m_forwarder->m_perDevice[m_id] == 0)
        m_forwarder->m_perDevice.erase(m_id);
}
