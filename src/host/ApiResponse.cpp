#include "ApiResponse.h"

#include <httplib.h>

#include "TarvJson.h"

namespace {

QJsonObject errorObject(const QString& name, const QString& title, const QString& message)
{
    QJsonObject inner;
    inner.insert(QStringLiteral("name"), name);
    inner.insert(QStringLiteral("title"), title);
    inner.insert(QStringLiteral("message"), message);
    return QJsonObject{{QStringLiteral("error"), inner}};
}

CMError badRequestError(const QString& message)
{
    return ApiResponse::error(QStringLiteral("BadRequest"), QStringLiteral("Bad request"), message);
}

} // namespace

const char* const ApiResponse::JsonType = "application/json; charset=utf-8";

void ApiResponse::sendJson(httplib::Response& response, int status, const QJsonObject& object)
{
    response.status = status;
    response.set_content(TarvJson::toBytes(object).toStdString(), JsonType);
}

void ApiResponse::sendError(httplib::Response& response, int status, const CMError& error)
{
    sendJson(response, status, errorObject(error.name(), error.title(), error.message()));
}

void ApiResponse::badRequest(httplib::Response& response, const QString& message)
{
    sendError(response, 400, badRequestError(message));
}

void ApiResponse::sendOutcome(httplib::Response& response, const Outcome& outcome, const QString& timeoutMessage,
                              bool wrapResult)
{
    if (!outcome.answered) {
        sendError(response, 504, error(QStringLiteral("Timeout"), QStringLiteral("No answer"), timeoutMessage));
        return;
    }
    // A refusal the work did not classify is the data model's own (a
    // validator, an action's CMError): the request was understood but refused.
    const int status = outcome.failed && outcome.status == 200 ? 422 : outcome.status;
    if (status >= 400) {
        sendError(response, status, outcome.error);
        return;
    }
    if (wrapResult) {
        sendJson(response, status, QJsonObject{{QStringLiteral("result"), TarvJson::fromVariant(outcome.result)}});
        return;
    }
    sendJson(response, status, TarvJson::fromVariant(outcome.result).toObject());
}

std::string ApiResponse::errorBody(const QString& name, const QString& title, const QString& message)
{
    return TarvJson::toBytes(errorObject(name, title, message)).toStdString();
}

CMError ApiResponse::error(const QString& name, const QString& title, const QString& message)
{
    CMError error;
    error.setName(name).setTitle(title).setMessage(message);
    return error;
}

CMError ApiResponse::forbidden(const QString& message)
{
    return error(QStringLiteral("Forbidden"), QStringLiteral("Forbidden"), message);
}

CMError ApiResponse::notFound(const QString& message)
{
    return error(QStringLiteral("NotFound"), QStringLiteral("Not found"), message);
}

CMError ApiResponse::notFoundAt(const QString& path, const QString& wanted, const QString& kindThere,
                                const QString& hint)
{
    if (kindThere.isEmpty())
        return notFound(QStringLiteral("No %1 at %2").arg(wanted.section(QLatin1Char(' '), 1), path));
    return notFound(QStringLiteral("%1 is a %2 node, not %3%4").arg(path, kindThere, wanted, hint));
}

CMError ApiResponse::shuttingDown()
{
    return error(QStringLiteral("Unavailable"), QStringLiteral("Shutting down"),
                 QStringLiteral("The host is shutting down"));
}

CMError ApiResponse::serverRefusal(int status, const std::string& method, const std::string& path,
                                   size_t maxBodyBytes)
{
    const QString what = method.empty() ? QStringLiteral("The request") : QString::fromStdString(method + " " + path);
    switch (status) {
    case 404:
        return notFound(
            QStringLiteral("No such endpoint: %1. The API is /api/v1/host, value, invoke, rows, tree and events")
                .arg(what));
    case 413:
        return error(QStringLiteral("PayloadTooLarge"), QStringLiteral("Request body too large"),
                     QStringLiteral("The request body is larger than %1 bytes").arg(maxBodyBytes));
    case 414:
        return error(QStringLiteral("UriTooLong"), QStringLiteral("Request line too long"),
                     QStringLiteral("The request line is longer than %1 bytes").arg(CPPHTTPLIB_REQUEST_URI_MAX_LENGTH));
    case 400:
        return badRequestError(QStringLiteral("The HTTP request is malformed"));
    default:
        return error(QStringLiteral("Error"), QStringLiteral("Error"),
                     QStringLiteral("%1 failed with HTTP status %2").arg(what).arg(status));
    }
}
