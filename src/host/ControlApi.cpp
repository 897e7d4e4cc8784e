#include "ControlApi.h"

#include <algorithm>
#include <chrono>
#include <cerrno>
#include <cstring>

#include <sys/socket.h>

#include <QNetworkInterface>

#include <httplib.h>

#include "CMActivateNode.h"
#include "CMListRowsNode.h"
#include "CMRootWorker.h"
#include "ControlServer.h"
#include "EventStream.h"
#include "HostWebPage.h"
#include "TarvJson.h"
#include "TarvLog.h"
#include "TarvPaths.h"
#include "TarvSystemMember.h"
#include "TarvValue.h"

namespace {

log4cplus::Logger logger()
{
    return TarvLog::logger("ControlApi");
}

// How long an idle event stream waits before it proves the client is still
// there with a comment line.
const int keepAliveMs = 10000;
const int eventWaitMs = 250;

QString methodList(const char* const* methods)
{
    QStringList list;
    for (; *methods; ++methods)
        list << QLatin1String(*methods);
    return list.join(QStringLiteral(", "));
}

QString kindOf(CMNode* node)
{
    return node ? node->kind() : QString();
}

QString titleOf(CMNode* node)
{
    auto* ui = qobject_cast<CMUINode*>(node);
    return ui ? ui->title().toString() : QString();
}

void refuseMethod(const httplib::Request& request, httplib::Response& response, const QString& allowed)
{
    response.set_header("Allow", allowed.toStdString());
    ApiResponse::sendError(response, 405,
                           ApiResponse::error(QStringLiteral("MethodNotAllowed"), QStringLiteral("Method not allowed"),
                                              QStringLiteral("%1 does not take %2; use %3")
                                                  .arg(QString::fromStdString(request.path),
                                                       QString::fromStdString(request.method), allowed)));
}

// Fails `reply` with 404 when `path` holds no value, saying what is there
// instead (and, to a reader of a list, where its rows are). Runs on the
// event loop. True when it failed the reply.
bool failUnlessValue(const QString& path, bool reading, const CMReply<QVariant>& reply, int* status)
{
    if (CMRoot()->hasValue(path))
        return false;
    *status = 404;
    CMNode* node = CMRoot()->findNode(path);
    const QString hint = reading && qobject_cast<CMListRowsNode*>(node)
        ? QStringLiteral("; read it with GET /api/v1/rows?path=") + path
        : QString();
    reply.setError(ApiResponse::notFoundAt(path, QStringLiteral("a value"), kindOf(node), hint));
    return true;
}

// {"path": P, "value": V} for a value path.
QVariantHash valueAnswer(const QString& path)
{
    QVariantHash answer;
    answer.insert(QStringLiteral("path"), path);
    answer.insert(QStringLiteral("value"), CMRoot()->getValue(path));
    return answer;
}

// The request's ?path= in its canonical form; false after answering 400
// when it is missing or not a path.
bool pathParameter(const httplib::Request& request, httplib::Response& response, QString* path)
{
    if (!request.has_param("path")) {
        ApiResponse::badRequest(response,
                                QStringLiteral("The query parameter 'path' is missing, e.g. ?path=/settings/device/name"));
        return false;
    }
    *path = QString::fromStdString(request.get_param_value("path"));
    if (!path->startsWith(QLatin1Char('/')) || CMPath(*path).isEmpty()) {
        ApiResponse::badRequest(
            response, QStringLiteral("'%1' is not a path; paths start with /, e.g. /settings/device/name").arg(*path));
        return false;
    }
    *path = CMPath(*path).toString();
    return true;
}

// The request's body, one JSON object (an empty body is an empty one);
// false after answering 400 otherwise.
bool bodyObject(const httplib::Request& request, httplib::Response& response, QVariantHash* value)
{
    QString parseError;
    if (!TarvJson::parseObject(QByteArray::fromStdString(request.body), value, &parseError)) {
        ApiResponse::badRequest(response, parseError);
        return false;
    }
    return true;
}

} // namespace

ControlApi::ControlApi(const Options& options, QObject* parent)
    : QObject(parent),
      m_options(options),
      // Event streams and forwards to other devices hold a worker each, a
      // forward for as long as the other device takes; eight more stay
      // free for ordinary requests (waiting connections hold none).
      m_server(new ControlServer(EventStream::MaxSubscribers + DeviceForwarder::MaxForwards + 8,
                                 [](const std::string& name, const std::string& title, const std::string& message) {
                                     return ApiResponse::errorBody(QString::fromStdString(name),
                                                                   QString::fromStdString(title),
                                                                   QString::fromStdString(message));
                                 })),
      m_events(new EventStream(this)),
      m_forwarder(options.deviceId, [this](const LoopWork& work, int waitMs) { return runOnLoop(work, waitMs); })
{
    // Events go out as small writes back to back; with Nagle's algorithm the
    // second waits for the client's delayed ACK (~40 ms).
    m_server->set_tcp_nodelay(true);
    // httplib's default options set SO_REUSEPORT, with which a second host
    // on the same port starts too and the kernel splits the requests
    // between both. SO_REUSEADDR alone still lets a restarted host take its
    // port back from connections in TIME_WAIT.
    m_server->set_socket_options([](socket_t socket) {
        const int yes = 1;
        ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
    });
}

ControlApi::~ControlApi()
{
    stop();
}

QString ControlApi::url() const
{
    const QString host = m_options.address.protocol() == QAbstractSocket::IPv6Protocol
        ? QLatin1Char('[') + m_options.address.toString() + QLatin1Char(']')
        : m_options.address.toString();
    return QStringLiteral("http://%1:%2").arg(host).arg(m_port);
}

bool ControlApi::start(QString* error)
{
    QList<QHostAddress> addresses{m_options.address};
    addresses << QNetworkInterface::allAddresses();
    m_guard = ApiRequestGuard(m_options.allowedHosts, addresses);

    httplib::Server& server = *m_server;
    server.set_payload_max_length(MaxBodyBytes);

    server.set_pre_routing_handler([this](const Request& request, Response& response) {
        if (!request.has_header("Host")) {
            ApiResponse::badRequest(response, QStringLiteral("The request has no Host header"));
            return httplib::Server::HandlerResponse::Handled;
        }
        const std::string host = request.get_header_value("Host");
        if (!m_guard.hostAllowed(host)) {
            LOG4CPLUS_WARN(logger(), "Refused a request for foreign host " << QString::fromStdString(host) << " from "
                                                                            << QString::fromStdString(request.remote_addr));
            ApiResponse::sendError(response, 403,
                                   ApiResponse::forbidden(QStringLiteral("This host does not answer to the name '%1' "
                                                                         "(Host header); use its address or host name")
                                                              .arg(QString::fromStdString(host))));
            return httplib::Server::HandlerResponse::Handled;
        }
        if (request.has_header("Origin") && !ApiRequestGuard::originAllowed(request.get_header_value("Origin"), host)) {
            const QString origin = QString::fromStdString(request.get_header_value("Origin"));
            LOG4CPLUS_WARN(logger(), "Refused a request from the web page at " << origin << " from "
                                                                               << QString::fromStdString(request.remote_addr));
            ApiResponse::sendError(response, 403,
                                   ApiResponse::forbidden(QStringLiteral("Requests from the web page at '%1' are "
                                                                         "refused; only this host's own page may use "
                                                                         "the API from a browser")
                                                              .arg(origin)));
            return httplib::Server::HandlerResponse::Handled;
        }
        if (m_stopping) {
            ApiResponse::sendError(response, 503, ApiResponse::shuttingDown());
            return httplib::Server::HandlerResponse::Handled;
        }
        LOG4CPLUS_DEBUG(logger(), "Request " << QString::fromStdString(request.method + " " + request.path) << " from "
                                             << QString::fromStdString(request.remote_addr));
        return httplib::Server::HandlerResponse::Unhandled;
    });

    server.set_error_handler(httplib::Server::HandlerWithResponse([](const Request& request, Response& response) {
        if (!response.body.empty())
            return httplib::Server::HandlerResponse::Unhandled;
        if (response.status == 404 && DeviceForwarder::isDevicePath(request.path)) {
            ApiResponse::sendError(response, 404, DeviceForwarder::notForwarded(request.method, request.path));
            return httplib::Server::HandlerResponse::Handled;
        }
        ApiResponse::sendError(response, response.status,
                               ApiResponse::serverRefusal(response.status, request.method, request.path, MaxBodyBytes));
        return httplib::Server::HandlerResponse::Handled;
    }));

    server.set_exception_handler([](const Request& request, Response& response, std::exception_ptr failure) {
        QString reason = QStringLiteral("unknown exception");
        try {
            std::rethrow_exception(failure);
        } catch (const std::exception& e) {
            reason = QString::fromLocal8Bit(e.what());
        } catch (...) {
        }
        LOG4CPLUS_ERROR(logger(), "Request " << QString::fromStdString(request.method + " " + request.path)
                                             << " failed: " << reason);
        ApiResponse::sendError(response, 500,
                               ApiResponse::error(QStringLiteral("InternalError"), QStringLiteral("Internal error"),
                                                  QStringLiteral("The host failed to handle the request: ") + reason));
    });

    // Every endpoint answers every method: the ones it serves, and a clear
    // 405 for the rest.
    struct Endpoint
    {
        const char* path;
        const char* const* methods;
    };
    static const char* const getOnly[] = {"GET", nullptr};
    static const char* const getPut[] = {"GET", "PUT", nullptr};
    static const char* const postOnly[] = {"POST", nullptr};
    const Endpoint endpoints[] = {
        {"/", getOnly},
        {"/web/[^/]+", getOnly},
        {"/api/v1/host", getOnly},
        {"/api/v1/value", getPut},
        {"/api/v1/invoke", postOnly},
        {"/api/v1/rows", getOnly},
        {"/api/v1/tree", getOnly},
        {"/api/v1/events", getOnly},
    };
    for (const Endpoint& endpoint : endpoints) {
        const QString allowed = methodList(endpoint.methods);
        const auto refuse = [allowed](const Request& request, Response& response) {
            refuseMethod(request, response, allowed);
        };
        const auto serves = [&endpoint](const char* method) {
            for (const char* const* m = endpoint.methods; *m; ++m) {
                if (std::strcmp(*m, method) == 0)
                    return true;
            }
            return false;
        };
        const std::string pattern = endpoint.path;
        if (!serves("GET"))
            server.Get(pattern, refuse);
        if (!serves("PUT"))
            server.Put(pattern, refuse);
        if (!serves("POST"))
            server.Post(pattern, refuse);
        server.Delete(pattern, refuse);
        server.Patch(pattern, refuse);
    }
    server.Get("/", [this](const Request& q, Response& r) { handlePage(q, r); });
    server.Get("/web/[^/]+", [this](const Request& q, Response& r) { handlePage(q, r); });
    server.Get("/api/v1/host", [this](const Request& q, Response& r) { handleHost(q, r); });
    server.Get("/api/v1/value", [this](const Request& q, Response& r) { handleGetValue(q, r); });
    server.Put("/api/v1/value", [this](const Request& q, Response& r) { handlePutValue(q, r); });
    server.Post("/api/v1/invoke", [this](const Request& q, Response& r) { handleInvoke(q, r); });
    server.Get("/api/v1/rows", [this](const Request& q, Response& r) { handleRows(q, r); });
    server.Get("/api/v1/tree", [this](const Request& q, Response& r) { handleTree(q, r); });
    server.Get("/api/v1/events", [this](const Request& q, Response& r) { handleEvents(q, r); });
    // The forwarder's table decides the methods of each endpoint.
    const std::string devicePattern = "/api/v1/devices/([^/]+)/(host|value|invoke|rows)";
    const auto device = [this](const Request& q, Response& r) { handleDevice(q, r); };
    server.Get(devicePattern, device);
    server.Put(devicePattern, device);
    server.Post(devicePattern, device);
    server.Delete(devicePattern, device);
    server.Patch(devicePattern, device);

    const std::string address = m_options.address.toString().toStdString();
    errno = 0;
    if (m_options.port == 0) {
        const int port = server.bind_to_any_port(address);
        if (port <= 0) {
            *error = QStringLiteral("cannot listen on %1 for the control API: %2")
                         .arg(m_options.address.toString(), QString::fromLocal8Bit(std::strerror(errno)));
            return false;
        }
        m_port = static_cast<quint16>(port);
    } else {
        if (!server.bind_to_port(address, m_options.port)) {
            *error = QStringLiteral("cannot listen on %1:%2 for the control API: %3")
                         .arg(m_options.address.toString())
                         .arg(m_options.port)
                         .arg(QString::fromLocal8Bit(std::strerror(errno)));
            return false;
        }
        m_port = m_options.port;
    }
    if (!m_server->widenListenBacklog())
        LOG4CPLUS_WARN(logger(), "Cannot widen the control API's listen backlog: " << std::strerror(errno));
    m_thread = std::thread([this] { m_server->listen_after_bind(); });
    // httplib's stop() does nothing until the accept loop runs, so a stop()
    // right after start() would leave join() waiting for ever. The loop
    // starts within microseconds; the bound only guards a broken thread.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!m_server->is_running() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    LOG4CPLUS_INFO(logger(), "Control API on " << url());
    return true;
}

void ControlApi::stop()
{
    m_stopping = true;
    m_events->close();
    {
        // The loop is busy stopping us; nobody should wait for it.
        std::lock_guard<std::mutex> locker(m_pendingMutex);
        for (const Pending& pending : m_pending) {
            if (pending.reply.isFinished())
                continue;
            *pending.status = 503;
            pending.reply.setError(ApiResponse::shuttingDown());
        }
    }
    if (m_thread.joinable()) {
        m_server->stop();
        m_thread.join();
        m_server->closeConnections();
        LOG4CPLUS_INFO(logger(), "Control API stopped");
    }
}

void ControlApi::serve(Response& response, const LoopWork& work)
{
    serve(response, work, Answering());
}

void ControlApi::serve(Response& response, const LoopWork& work, const Answering& answering)
{
    const ApiResponse::Outcome outcome = runOnLoop(work, answering.waitMs);
    const QString timeoutMessage = answering.timeoutMessage.isEmpty()
        ? QStringLiteral("No answer within %1 ms").arg(answering.waitMs)
        : answering.timeoutMessage;
    ApiResponse::sendOutcome(response, outcome, timeoutMessage, answering.wrapResult);
}

ApiResponse::Outcome ControlApi::runOnLoop(const LoopWork& work, int waitMs)
{
    const CMReply<QVariant> reply;
    const auto status = std::make_shared<int>(200);
    std::list<Pending>::iterator pending;
    {
        std::lock_guard<std::mutex> locker(m_pendingMutex);
        // A request that got past the door just before stop() would wait for
        // a loop that no longer runs; stop() sets the flag before it answers
        // the pending ones under this lock, so each request sees one or the other.
        if (m_stopping) {
            ApiResponse::Outcome refused;
            refused.answered = true;
            refused.status = 503;
            refused.failed = true;
            refused.error = ApiResponse::shuttingDown();
            return refused;
        }
        pending = m_pending.insert(m_pending.end(), Pending{reply, status});
    }
    QMetaObject::invokeMethod(
        this, [work, reply, status] { work(reply, status.get()); }, Qt::QueuedConnection);
    ApiResponse::Outcome outcome;
    outcome.answered = reply.waitForFinished(static_cast<unsigned long>(waitMs));
    {
        std::lock_guard<std::mutex> locker(m_pendingMutex);
        m_pending.erase(pending);
    }
    if (!outcome.answered)
        return outcome;
    // The reply's lock orders these reads after the loop's writes.
    outcome.status = *status;
    outcome.failed = reply.hasError();
    if (outcome.failed)
        outcome.error = reply.error();
    else
        outcome.result = reply.result();
    return outcome;
}

void ControlApi::handleHost(const Request&, Response& response)
{
    const QString version = m_options.version;
    serve(response, [version](const CMReply<QVariant>& reply, int*) {
        const TarvSystemMember record = TarvValue(CMRoot()->getValue(TarvSystemMemberPath()).toHash()).systemMember();
        QVariantHash host;
        host.insert(QStringLiteral("id"), TarvValue(CMRoot()->getValue(TarvSystemMemberIdPath()).toHash()).string_());
        host.insert(QStringLiteral("name"),
                    TarvValue(CMRoot()->getValue(TarvDeviceNameSettingsPath()).toHash()).string_());
        host.insert(QStringLiteral("host"), record.host());
        host.insert(QStringLiteral("address"), record.ipAddress());
        host.insert(QStringLiteral("requestPort"), TarvRequestPort());
        host.insert(QStringLiteral("version"), version);
        reply.setResult(host);
    });
}

void ControlApi::handleGetValue(const Request& request, Response& response)
{
    QString path;
    if (!pathParameter(request, response, &path))
        return;
    serve(response, [path](const CMReply<QVariant>& reply, int* status) {
        if (!failUnlessValue(path, true, reply, status))
            reply.setResult(valueAnswer(path));
    });
}

void ControlApi::handlePutValue(const Request& request, Response& response)
{
    QString path;
    if (!pathParameter(request, response, &path))
        return;
    if (request.body.empty()) {
        ApiResponse::badRequest(response, QStringLiteral("PUT needs the new value as a JSON object in the body"));
        return;
    }
    QVariantHash value;
    if (!bodyObject(request, response, &value))
        return;
    serve(response, [path, value](const CMReply<QVariant>& reply, int* status) {
        if (failUnlessValue(path, false, reply, status))
            return;
        const QString refusal = CMRoot()->storeValue(path, value);
        if (!refusal.isEmpty()) {
            *status = 422;
            reply.setError(ApiResponse::error(QStringLiteral("Refused"), QStringLiteral("Value refused"), refusal));
            return;
        }
        reply.setResult(valueAnswer(path));
    });
}

void ControlApi::handleInvoke(const Request& request, Response& response)
{
    QString path;
    if (!pathParameter(request, response, &path))
        return;
    Answering answering;
    if (request.has_param("timeout_ms")) {
        bool ok = false;
        answering.waitMs = QString::fromStdString(request.get_param_value("timeout_ms")).toInt(&ok);
        if (!ok || answering.waitMs < 1 || answering.waitMs > MaxInvokeWaitMs) {
            ApiResponse::badRequest(
                response,
                QStringLiteral("timeout_ms must be a whole number of milliseconds from 1 to %1").arg(MaxInvokeWaitMs));
            return;
        }
    }
    QVariantHash value;
    if (!bodyObject(request, response, &value))
        return;
    answering.timeoutMessage =
        QStringLiteral("The action at %1 did not answer within %2 ms").arg(path).arg(answering.waitMs);
    answering.wrapResult = true;
    serve(
        response,
        [path, value](const CMReply<QVariant>& reply, int* status) {
            CMNode* node = CMRoot()->findNode(path);
            if (!qobject_cast<CMActivateNode*>(node)) {
                *status = 404;
                reply.setError(ApiResponse::notFoundAt(path, QStringLiteral("an action"), kindOf(node)));
                return;
            }
            CMRoot()->invoke(path, TarvHash(value), reply);
        },
        answering);
}

void ControlApi::handleRows(const Request& request, Response& response)
{
    QString path;
    if (!pathParameter(request, response, &path))
        return;
    serve(response, [path](const CMReply<QVariant>& reply, int* status) {
        CMNode* node = CMRoot()->findNode(path);
        auto* list = qobject_cast<CMListRowsNode*>(node);
        if (!list) {
            *status = 404;
            reply.setError(!node && CMRoot()->hasValue(path)
                               ? ApiResponse::notFound(QStringLiteral("%1 is a value, not a list; read it with GET "
                                                                      "/api/v1/value?path=%1")
                                                           .arg(path))
                               : ApiResponse::notFoundAt(path, QStringLiteral("a list"), kindOf(node)));
            return;
        }
        QVariantHash result;
        result.insert(QStringLiteral("path"), path);
        result.insert(QStringLiteral("title"), list->title().toString());
        result.insert(QStringLiteral("loading"), list->isLoading());
        result.insert(QStringLiteral("rows"), list->rows());
        reply.setResult(result);
    });
}

void ControlApi::handleTree(const Request&, Response& response)
{
    serve(response, [](const CMReply<QVariant>& reply, int*) {
        QList<CMNode*> nodes = CMRoot()->allNodes();
        std::sort(nodes.begin(), nodes.end(), [](CMNode* a, CMNode* b) { return a->path() < b->path(); });
        QVariantList nodeList;
        for (CMNode* node : qAsConst(nodes)) {
            QVariantHash entry;
            entry.insert(QStringLiteral("path"), node->path().toString());
            entry.insert(QStringLiteral("kind"), node->kind());
            entry.insert(QStringLiteral("title"), titleOf(node));
            if (auto* list = qobject_cast<CMListRowsNode*>(node)) {
                entry.insert(QStringLiteral("loading"), list->isLoading());
                entry.insert(QStringLiteral("rows"), list->rows());
            }
            nodeList.append(entry);
        }
        QList<CMPath> paths = CMRoot()->valuePaths();
        std::sort(paths.begin(), paths.end());
        QVariantList values;
        for (const CMPath& path : qAsConst(paths))
            values.append(path.toString());
        QVariantHash result;
        result.insert(QStringLiteral("nodes"), nodeList);
        result.insert(QStringLiteral("values"), values);
        reply.setResult(result);
    });
}

void ControlApi::handleEvents(const Request&, Response& response)
{
    std::shared_ptr<EventStream::Subscription> subscription = m_events->subscribe();
    if (!subscription) {
        ApiResponse::sendError(response, 503,
                               ApiResponse::error(QStringLiteral("Unavailable"), QStringLiteral("Too many event streams"),
                                                  QStringLiteral("At most %1 event streams may be open at once")
                                                      .arg(EventStream::MaxSubscribers)));
        return;
    }
    response.set_header("Cache-Control", "no-cache");
    EventStream* events = m_events;
    auto quietMs = std::make_shared<int>(0);
    auto greeted = std::make_shared<bool>(false);
    response.set_chunked_content_provider(
        "text/event-stream",
        [subscription, quietMs, greeted](size_t, httplib::DataSink& sink) {
            if (!*greeted) {
                // Tells the client its subscription is live before any event.
                *greeted = true;
                const std::string hello = ": tarv-host events\n\n";
                return sink.write(hello.data(), hello.size());
            }
            std::string text;
            if (!EventStream::next(*subscription, eventWaitMs, &text)) {
                sink.done();
                return true;
            }
            if (text.empty()) {
                *quietMs += eventWaitMs;
                if (*quietMs < keepAliveMs)
                    return sink.is_writable();
                *quietMs = 0;
                text = ": keep-alive\n\n";
            }
            *quietMs = 0;
            return sink.write(text.data(), text.size());
        },
        [events, subscription](bool) { events->unsubscribe(subscription); });
}

void ControlApi::handlePage(const Request& request, Response& response)
{
    HostWebPage::File file;
    if (!HostWebPage::find(request.path, &file)) {
        ApiResponse::sendError(response, 404,
                               ApiResponse::notFound(QStringLiteral("The web page has no file %1")
                                                         .arg(QString::fromStdString(request.path))));
        return;
    }
    response.set_header("Content-Security-Policy", HostWebPage::contentSecurityPolicy());
    response.set_header("X-Content-Type-Options", "nosniff");
    response.set_header("Cache-Control", "no-cache");
    response.set_content(file.body, file.contentType);
}

void ControlApi::handleDevice(const Request& request, Response& response)
{
    const std::string device = request.matches[1];
    const std::string endpoint = request.matches[2];
    if (!DeviceForwarder::route(request.method, endpoint)) {
        refuseMethod(request, response, DeviceForwarder::allowedMethods(endpoint));
        return;
    }
    m_forwarder.forward(request, response, device, endpoint);
}
