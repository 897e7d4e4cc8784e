#pragma once

#include <cstddef>
#include <string>

#include <QJsonObject>
#include <QString>
#include <QVariant>

#include "CMError.h"

namespace httplib {
struct Response;
} // namespace httplib

// How the control API answers: JSON bodies, and every refusal as
// {"error": {"name", "title", "message"}} with the HTTP status it goes out
// with. Pure functions of their arguments; safe on any thread.
class ApiResponse
{
public:
    static const char* const JsonType;

    // What work run on the event loop came to.
    struct Outcome
    {
        bool answered = false; // within the bound
        int status = 200;      // the work's own status for a refusal; 200: it chose none
        bool failed = false;   // the reply carries `error`, not `result`
        QVariant result;
        CMError error;
    };

    static void sendJson(httplib::Response& response, int status, const QJsonObject& object);
    static void sendError(httplib::Response& response, int status, const CMError& error);
    // 400 "BadRequest".
    static void badRequest(httplib::Response& response, const QString& message);

    // 504 "Timeout" with `timeoutMessage` when the work did not answer in
    // time; its error with the status the work chose, or 422 (refused) when
    // it chose none; else 200 with its result, which is a JSON object, or
    // any JSON value sent as {"result": R} with `wrapResult`.
    static void sendOutcome(httplib::Response& response, const Outcome& outcome, const QString& timeoutMessage,
                            bool wrapResult);

    // The refusal body as JSON text.
    static std::string errorBody(const QString& name, const QString& title, const QString& message);

    static CMError error(const QString& name, const QString& title, const QString& message);
    static CMError forbidden(const QString& message);
    static CMError notFound(const QString& message);
    // The 404 for `path` where there is no `wanted` (with its article: "a
    // value", "an action"): names the kind of the node there instead
    // (`kindThere`; empty: nothing is there) and adds `hint` to that.
    static CMError notFoundAt(const QString& path, const QString& wanted, const QString& kindThere,
                              const QString& hint = QString());
    static CMError shuttingDown();
    // The error for a status the HTTP server chose itself (no endpoint, a
    // body or request line over its limit, a malformed request); `method`
    // and `path` are empty when the request line could not be read.
    static CMError serverRefusal(int status, const std::string& method, const std::string& path,
                                 size_t maxBodyBytes);
};
