#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

#include <QHostAddress>
#include <QObject>
#include <QStringList>
#include <QVariant>

#include "ApiRequestGuard.h"
#include "ApiResponse.h"
#include "CMReply.h"
#include "DeviceForwarder.h"

namespace httplib {
struct Request;
struct Response;
} // namespace httplib

class ControlServer;
class EventStream;

// The HTTP/JSON control API. The server runs in threads of its own; every
// request that reads or changes the data model is handed to the event-loop
// thread (this object's thread) and waited for with a bound, so nodes and
// values are only ever touched there. Requests pass ApiRequestGuard's door
// checks first; ApiResponse builds the answers and refusals.
//   GET  /api/v1/host                      {"id","name","host","address","requestPort","version"}
//   GET  /api/v1/value?path=P              {"path","value"}
//   PUT  /api/v1/value?path=P   body V     {"path","value"}
//   POST /api/v1/invoke?path=P[&timeout_ms=N]  body V   {"result"}
//   GET  /api/v1/rows?path=P               {"path","title","loading","rows"}
//   GET  /api/v1/tree                      {"nodes":[{"path","kind","title"[,"loading","rows"]}],"values":[P...]}
//   GET  /api/v1/events                    text/event-stream
//   GET  /api/v1/devices/ID/host, GET|PUT .../value, POST .../invoke, GET .../rows
//        the same request on device ID's host, answered as it answers
//        (DeviceForwarder); nothing else under /api/v1/devices/ exists
//   GET  /, /web/FILE                      the web page and its files (HostWebPage)
// Failures answer {"error": {"name","title","message"}}: 400 malformed
// request, 403 foreign Host header or a foreign web page's Origin, 404
// unknown path, endpoint or device, 405 wrong method, 413 body over 64 KiB,
// 414 request line too long, 422 value or action refused, 502 another device
// cannot be reached, 503 shutting down, too many event streams or too many
// forwards, 504 no answer within the bound (from this host or the other
// device), 508 a forwarded request asked to be forwarded again.
class ControlApi : public QObject
{
    Q_OBJECT

public:
    static constexpr int DefaultWaitMs = 5000;
    static constexpr int MaxInvokeWaitMs = 60000;
    static constexpr size_t MaxBodyBytes = 64 * 1024;

    struct Options
    {
        QHostAddress address = QHostAddress::LocalHost;
        quint16 port = 0; // 0: a free port
        // Names besides this machine's addresses and "localhost" that a
        // request's Host header may carry (DNS-rebinding guard).
        QStringList allowedHosts;
        QString version;
        // This device's id: a request to forward to it is refused, and
        // forwarded requests name it.
        QString deviceId;
    };

    explicit ControlApi(const Options& options, QObject* parent = nullptr);
    ~ControlApi() override;

    bool start(QString* error);
    // Ends the event streams and stops the server; returns once its threads
    // are gone. Safe to call more than once.
    void stop();

    quint16 port() const { return m_port; }
    QString url() const;

private:
    using Request = httplib::Request;
    using Response = httplib::Response;
    // Work run on the event loop: answers through the reply; sets `status`
    // for refusals of its own (the reply's error then carries the message).
    using LoopWork = std::function<void(const CMReply<QVariant>& reply, int* status)>;

    // How serve() waits for its work and answers with what it came to.
    struct Answering
    {
        int waitMs = DefaultWaitMs;
        // The 504's message; empty: "No answer within N ms".
        QString timeoutMessage;
        // Sends {"result": R}: an action's result may be any JSON value.
        bool wrapResult = false;
    };

    // The skeleton of every request that reads or changes the data model:
    // runs `work` on the event loop, waits for it within the bound and
    // answers. The handlers read and check the request before.
    void serve(Response& response, const LoopWork& work);
    void serve(Response& response, const LoopWork& work, const Answering& answering);
    ApiResponse::Outcome runOnLoop(const LoopWork& work, int waitMs);

    void handleHost(const Request& request, Response& response);
    void handleGetValue(const Request& request, Response& response);
    void handlePutValue(const Request& request, Response& response);
    void handleInvoke(const Request& request, Response& response);
    void handleRows(const Request& request, Response& response);
    void handleTree(const Request& request, Response& response);
    void handleEvents(const Request& request, Response& response);
    void handlePage(const Request& request, Response& response);
    void handleDevice(const Request& request, Response& response);

    // A request waiting for the event loop; stop() answers it at once.
    struct Pending
    {
        CMReply<QVariant> reply;
        std::shared_ptr<int> status;
    };

    Options m_options;
    std::mutex m_pendingMutex;
    std::list<Pending> m_pending;
    std::unique_ptr<ControlServer> m_server;
    std::thread m_thread;
    EventStream* m_events;
    ApiRequestGuard m_guard;
    DeviceForwarder m_forwarder;
    quint16 m_port = 0;
    std::atomic<bool> m_stopping{false};
};
