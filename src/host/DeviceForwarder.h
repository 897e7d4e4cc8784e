#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>

#include <QString>
#include <QVariant>

#include "ApiResponse.h"
#include "CMError.h"
#include "CMReply.h"

namespace httplib {
struct Request;
struct Response;
} // namespace httplib

// Hands a small, fixed set of control-API requests to another device's host:
//   GET  /api/v1/devices/{id}/host                 -> GET  /api/v1/host
//   GET  /api/v1/devices/{id}/value?path=P         -> GET  /api/v1/value?path=P
//   PUT  /api/v1/devices/{id}/value?path=P  body   -> PUT  /api/v1/value?path=P
//   POST /api/v1/devices/{id}/invoke?path=P[&timeout_ms=N] body -> POST /api/v1/invoke?...
//   GET  /api/v1/devices/{id}/rows?path=P          -> GET  /api/v1/rows?path=P
// The target must be a row of /system/members with a non-null api in
// /system/house; the request goes only to that api's address and port, with
// the path from the table above, the query rebuilt from `path` and
// `timeout_ms` alone, the body only for PUT and POST, Host = address:port,
// X-Tarv-Forwarded-By = this device's id, and nothing else of the client's.
// The target's status and body come back as they are, with X-Tarv-Device.
// Its own refusals: 400 this device, 404 unknown device, 502 unreachable
// (API on loopback, or no connection), 504 no answer within the bound, 508
// a request already forwarded, 503 too many forwards in flight.
// forward() runs on an HTTP worker thread and blocks it for the forward;
// the data model is read only through the loop runner given to it.
class DeviceForwarder
{
public:
    static constexpr int ConnectMs = 1000;
    static constexpr int AnswerMs = 6000;
    // An action's answer may take as long as the action's own bound.
    static constexpr int DefaultInvokeMs = 5000;
    static constexpr int MaxInvokeMs = 60000;
    static constexpr int InvokeMarginMs = 1000;
    static constexpr int MaxForwards = 8;
    static constexpr int MaxForwardsPerDevice = 4;
    // The largest answer passed back; a target is another device's host,
    // whose answers are JSON of a few KiB to a few hundred.
    static constexpr size_t MaxAnswerBytes = 8 * 1024 * 1024;
    static const char* const ForwardedByHeader;
    static const char* const DeviceHeader;

    // Work for the event loop (ControlApi's LoopWork) and the way to run it
    // there within a bound (ControlApi::runOnLoop).
    using LoopWork = std::function<void(const CMReply<QVariant>& reply, int* status)>;
    using LoopRunner = std::function<ApiResponse::Outcome(const LoopWork& work, int waitMs)>;

    // One line of the table.
    struct Route
    {
        const char* endpoint; // as in /api/v1/devices/{id}/{endpoint}
        const char* method;
        const char* targetPath;
        bool sendsBody;
        bool takesPath; // sends ?path= on
        bool invoke;    // sends ?timeout_ms= on; its answer bound follows it
    };

    // Where a device's control API is, from the data model.
    struct Target
    {
        QString id;
        QString name;
        QString address;
        quint16 port = 0;
    };

    DeviceForwarder(const QString& ownId, LoopRunner runOnLoop);

    // Answers `request` for device `deviceId` and `endpoint` (one of the
    // table's; the method is checked by the caller with route()).
    void forward(const httplib::Request& request, httplib::Response& response, const std::string& deviceId,
                 const std::string& endpoint);

    // The table's line for `method` on `endpoint`; null when it has none.
    static const Route* route(const std::string& method, const std::string& endpoint);
    // The methods the table has for `endpoint` ("GET, PUT"); empty: none.
    static QString allowedMethods(const std::string& endpoint);
    // The query sent on: `path` (not to host) and, for an action,
    // `timeout_ms`, each percent-encoded anew; every other key is dropped.
    static std::string targetQuery(const Route& route, const std::multimap<std::string, std::string>& params);
    // How long the target has to answer once connected.
    static int answerBoundMs(const Route& route, const std::multimap<std::string, std::string>& params);
    // "address:port", an IPv6 address in brackets.
    static std::string hostHeader(const QString& address, quint16 port);
    // The target of `id` from the data model's /system/members and
    // /system/house; runs on the event loop. Fails `reply` with 404 or 502
    // (through `status`) when there is none or it cannot be reached.
    static void lookUp(const QString& id, const CMReply<QVariant>& reply, int* status);

    static CMError thisDevice(const QString& id, const std::string& endpoint);
    static CMError unknownDevice(const QString& id);
    static CMError onLoopback(const QString& name);
    static CMError unreachable(const Target& target, const QString& reason);
    static CMError noAnswer(const QString& name, int boundMs);
    static CMError forwardingLoop(const QString& forwardedBy);
    static CMError tooManyForwards();
    // The 404 for anything else under /api/v1/devices (events, tree, ...).
    static bool isDevicePath(const std::string& path);
    static CMError notForwarded(const std::string& method, const std::string& path);

private:
    // One forward in flight, counted in total and for its device; released
    // when it goes out of scope, however the forward ends.
    class Slot
    {
    public:
        Slot(DeviceForwarder* forwarder, const QString& id);
        ~Slot();
        Slot(const Slot&) = delete;
        Slot& operator=(const Slot&) = delete;
        bool taken() const { return m_taken; }

    private:
        DeviceForwarder* m_forwarder;
        QString m_id;
        bool m_taken = false;
    };

    void send(const httplib::Request& request, httplib::Response& response, const Route& route,
              const Target& target);

    QString m_ownId;
    LoopRunner m_runOnLoop;
    std::mutex m_slotsMutex;
    int m_inFlight = 0;
    std::map<QString, int> m_perDevice;
};
