#include "CtlClient.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonObject>
#include <QJsonParseError>
#include <QUrl>

#include <httplib.h>

#include "TarvJson.h"
#include "TarvLog.h"

#include "CtlEventStream.h"

namespace {

log4cplus::Logger logger()
{
    return TarvLog::logger("CtlClient");
}

// The start of what the host sent, on one line, for error messages.
QString snippet(const QByteArray& bytes)
{
    const int limit = 120;
    QString text = QString::fromUtf8(bytes.left(limit * 4)).simplified();
    for (QChar& c : text) {
        if (!c.isPrint())
            c = QLatin1Char('?');
    }
    if (text.size() > limit)
        text = text.left(limit) + QStringLiteral("...");
    return text.isEmpty() ? QStringLiteral("(empty)") : QLatin1Char('"') + text + QLatin1Char('"');
}

// Connecting to a device on the LAN is quick or hopeless.
int connectTimeoutMs(int timeoutMs)
{
    return qMin(timeoutMs, 5000);
}

void configure(httplib::Client& client, int connectMs, int readMs)
{
    client.set_connection_timeout(std::chrono::milliseconds(connectMs));
    client.set_read_timeout(std::chrono::milliseconds(readMs));
    client.set_write_timeout(std::chrono::milliseconds(readMs));
    client.set_keep_alive(false);
    // Targets are percent-encoded here; httplib must not encode them again.
    client.set_url_encode(false);
}

} // namespace

CtlClient::CtlClient() = default;

bool CtlClient::setApi(const QString& url, QString* error)
{
    const auto fail = [error](const QString& why) {
        if (error)
            *error = why;
        return false;
    };
    QString text = url.trimmed();
    if (text.isEmpty())
        return fail(QStringLiteral("the API URL is empty"));
    if (!text.contains(QLatin1String("://")))
        text.prepend(QStringLiteral("http://"));
    const QUrl parsed(text, QUrl::StrictMode);
    if (!parsed.isValid())
        return fail(QStringLiteral("'%1' is not a valid URL: %2").arg(url, parsed.errorString()));
    if (parsed.scheme().compare(QLatin1String("http"), Qt::CaseInsensitive) != 0)
        return fail(QStringLiteral("'%1': only http:// is supported by the control API").arg(url));
    if (parsed.host().isEmpty())
        return fail(QStringLiteral("'%1' names no host").arg(url));
    if (!parsed.userInfo().isEmpty() || parsed.hasQuery() || parsed.hasFragment()
        || (!parsed.path().isEmpty() && parsed.path() != QLatin1String("/")))
        return fail(QStringLiteral("'%1': give only scheme, host and port, e.g. %2").arg(url, defaultApi()));
    const int port = parsed.port(80);
    if (port <= 0)
        return fail(QStringLiteral("'%1' has no usable port").arg(url));
    m_host = parsed.host();
    m_port = port;
    return true;
}

QString CtlClient::api() const
{
    const QString host = m_host.contains(QLatin1Char(':')) ? QLatin1Char('[') + m_host + QLatin1Char(']') : m_host;
    return QStringLiteral("http://%1:%2").arg(host).arg(m_port);
}

CtlReply CtlClient::host()
{
    return call("GET", endpoint("host"), {}, QByteArray(), m_timeoutMs, {});
}

CtlReply CtlClient::value(const QString& path)
{
    return call("GET", endpoint("value"), {{QStringLiteral("path"), path}}, QByteArray(), m_timeoutMs,
                {QStringLiteral("value")});
}

CtlReply CtlClient::setValue(const QString& path, const QJsonValue& value)
{
    return call("PUT", endpoint("value"), {{QStringLiteral("path"), path}}, TarvJson::toBytes(value),
                m_timeoutMs, {QStringLiteral("value")});
}

CtlReply CtlClient::invoke(const QString& path, const QJsonValue& value, int timeoutMs)
{
    Query query{{QStringLiteral("path"), path}};
    if (timeoutMs >= 0)
        query.append({QStringLiteral("timeout_ms"), QString::number(timeoutMs)});
    // Waiting longer than the host's bound lets the host's 504 arrive.
    const int bound = timeoutMs >= 0 ? timeoutMs : defaultInvokeTimeoutMs();
    return call("POST", endpoint("invoke"), query, TarvJson::toBytes(value), bound + 2000,
                {QStringLiteral("result")});
}

CtlReply CtlClient::rows(const QString& path)
{
    CtlReply reply = call("GET", endpoint("rows"), {{QStringLiteral("path"), path}}, QByteArray(),
                          m_timeoutMs, {QStringLiteral("rows")});
    if (reply.isOk() && !reply.body().value(QStringLiteral("rows")).isArray())
        return CtlReply::badResponse(reply.httpStatus(), QStringLiteral("\"rows\" is not a list"), reply.rawBody());
    return reply;
}

CtlReply CtlClient::tree()
{
    if (!m_device.isEmpty())
        return notForwarded(QStringLiteral("the tree"));
    return call("GET", QStringLiteral("/api/v1/tree"), {}, QByteArray(), m_timeoutMs, {});
}

QString CtlClient::endpoint(const char* name) const
{
    if (m_device.isEmpty())
        return QStringLiteral("/api/v1/") + QLatin1String(name);
    return QStringLiteral("/api/v1/devices/%1/%2")
        .arg(QString::fromLatin1(QUrl::toPercentEncoding(m_device)), QLatin1String(name));
}

CtlReply CtlClient::notForwarded(const QString& what) const
{
    return CtlReply::apiError(0, QStringLiteral("NotForwarded"), QString(),
                              QStringLiteral("%1 of device '%2' cannot be read through another host; "
                                             "talk to that device directly (--api)")
                                  .arg(what, m_device),
                              QByteArray());
}

QString CtlClient::target(const QString& endpoint, const Query& query) const
{
    QString text = endpoint;
    for (int i = 0; i < query.size(); ++i) {
        text += i == 0 ? QLatin1Char('?') : QLatin1Char('&');
        text += QString::fromLatin1(QUrl::toPercentEncoding(query.at(i).first)) + QLatin1Char('=')
            + QString::fromLatin1(QUrl::toPercentEncoding(query.at(i).second, "/"));
    }
    return text;
}

CtlReply CtlClient::call(const char* method, const QString& endpoint, const Query& query, const QByteArray& body,
                         int waitMs, const QStringList& requiredKeys)
{
    const QString path = target(endpoint, query);
    const QString where = api() + path;
    LOG4CPLUS_DEBUG(logger(), "Request " << method << " " << where);

    httplib::Client client(m_host.toStdString(), m_port);
    configure(client, connectTimeoutMs(waitMs), waitMs);

    httplib::Request request;
    request.method = method;
    request.path = path.toStdString();
    request.set_header("Accept", "application/json");
    if (qstrcmp(method, "GET") != 0) {
        request.set_header("Content-Type", "application/json");
        request.body = body.toStdString();
    }
    QByteArray answer;
    bool tooLarge = false;
    const qint64 limit = m_maxAnswerBytes;
    request.content_receiver = [&answer, &tooLarge, limit](const char* data, size_t length, uint64_t, uint64_t) {
        if (answer.size() + qint64(length) > limit) {
            tooLarge = true;
            return false;
        }
        answer.append(data, int(length));
        return true;
    };

    QElapsedTimer elapsed;
    elapsed.start();
    httplib::Response response;
    httplib::Error error = httplib::Error::Success;
    const bool sent = client.send(request, response, error);

    CtlReply reply;
    if (tooLarge) {
        reply = CtlReply::badResponse(response.status,
                                      QStringLiteral("the answer from %1 is larger than %2 bytes")
                                          .arg(where)
                                          .arg(m_maxAnswerBytes),
                                      QByteArray());
    } else if (!sent || error != httplib::Error::Success) {
        switch (error) {
        case httplib::Error::Connection:
            reply = CtlReply::cannotConnect(QStringLiteral("cannot connect to %1 (is tarv-host running there?)").arg(api()));
            break;
        case httplib::Error::ConnectionTimeout:
            reply = CtlReply::cannotConnect(
                QStringLiteral("cannot connect to %1: no answer within %2 ms").arg(api()).arg(connectTimeoutMs(waitMs)));
            break;
        case httplib::Error::Read:
            // httplib reports a read time-out and a dropped connection alike;
            // the time spent tells them apart.
            if (elapsed.elapsed() >= waitMs - 50)
                reply = CtlReply::timeout(QStringLiteral("no answer from %1 within %2 ms").arg(where).arg(waitMs));
            else
                reply = CtlReply::cannotConnect(
                    QStringLiteral("the connection to %1 broke before a complete answer came").arg(api()));
            break;
        case httplib::Error::Write:
            reply = CtlReply::cannotConnect(
                QStringLiteral("the connection to %1 broke while sending the request").arg(api()));
            break;
        case httplib::Error::Compression:
            reply = CtlReply::badResponse(response.status,
                                          QStringLiteral("the answer from %1 could not be decompressed").arg(where),
                                          QByteArray());
            break;
        default:
            reply = CtlReply::cannotConnect(QStringLiteral("request to %1 failed: %2")
                                                .arg(where, QString::fromStdString(httplib::to_string(error))));
            break;
        }
    } else if (response.status >= 200 && response.status < 300) {
        QJsonValue document;
        if (!TarvJson::parseValue(answer, &document, nullptr) || !document.isObject()) {
            reply = CtlReply::badResponse(response.status,
                                          QStringLiteral("the answer to %1 %2 is not a JSON object: %3")
                                              .arg(QString::fromLatin1(method), where, snippet(answer)),
                                          answer);
        } else {
            const QJsonObject object = document.toObject();
            reply = CtlReply::ok(response.status, object, answer);
            for (const QString& key : requiredKeys) {
                if (!object.contains(key)) {
                    reply = CtlReply::badResponse(response.status,
                                                  QStringLiteral("the answer to %1 %2 has no \"%3\": %4")
                                                      .arg(QString::fromLatin1(method), where, key, snippet(answer)),
                                                  answer);
                    break;
                }
            }
        }
    } else {
        reply = errorFromAnswer(response.status, answer);
    }

    if (reply.isOk())
        LOG4CPLUS_DEBUG(logger(), "Reply " << response.status << " " << answer.size() << " bytes");
    else
        LOG4CPLUS_WARN(logger(), method << " " << where << " failed: " << reply.describe());
    return reply;
}

CtlReply CtlClient::errorFromAnswer(int status, const QByteArray& body) const
{
    QString name;
    QString title;
    QString message;
    QJsonValue document;
    TarvJson::parseValue(body, &document, nullptr);
    const QJsonValue error = document.toObject().value(QStringLiteral("error"));
    if (error.isObject()) {
        const QJsonObject object = error.toObject();
        const auto text = [&object](const char* key) {
            const QJsonValue value = object.value(QLatin1String(key));
            return value.isString() ? value.toString() : (value.isUndefined() ? QString() : TarvJson::toText(value));
        };
        name = text("name");
        title = text("title");
        message = text("message");
    } else {
        // Not the API's error form (a proxy, another server): show what came.
        title = QStringLiteral("HTTP %1").arg(status);
        message = body.isEmpty() ? QStringLiteral("no explanation given") : snippet(body);
    }
    // The forwarding host's own answer when the device it forwards to
    // cannot be reached: as far as the user is concerned, tarvctl cannot
    // reach that device.
    if (status == 502 && name == QLatin1String("DeviceUnreachable"))
        return CtlReply::cannotConnect(message, body);
    if (status == 504) {
        QString detail = QStringLiteral("the host answered 504: no reply came within the bound");
        if (!message.isEmpty() && error.isObject())
            detail += QStringLiteral(" (%1)").arg(message);
        return CtlReply::timeout(detail, status, body);
    }
    if (status < 400)
        return CtlReply::badResponse(status, QStringLiteral("unexpected HTTP status %1").arg(status), body);
    return CtlReply::apiError(status, name, title, message, body);
}

CtlReply CtlClient::watch(const std::function<bool(const CtlEvent&)>& onEvent, int durationMs,
                          const std::function<bool()>& onOpen)
{
    if (!m_device.isEmpty())
        return notForwarded(QStringLiteral("the events"));
    const QString where = api() + QStringLiteral("/api/v1/events");
    LOG4CPLUS_DEBUG(logger(), "Request GET " << where);

    httplib::Client client(m_host.toStdString(), m_port);
    // Without a duration the stream may stay quiet for as long as nothing
    // changes; the read bound must not end it.
    const int readMs = durationMs >= 0 ? durationMs + 1000 : 24 * 3600 * 1000;
    configure(client, connectTimeoutMs(m_timeoutMs), readMs);

    httplib::Request request;
    request.method = "GET";
    request.path = "/api/v1/events";
    request.set_header("Accept", "text/event-stream");

    int status = 0;
    bool wrongType = false;
    std::string contentType;
    bool callerStopped = false;
    QByteArray errorBody;
    CtlEventStream stream;
    request.response_handler = [&](const httplib::Response& response) {
        status = response.status;
        contentType = response.get_header_value("Content-Type");
        if (status == 200 && contentType.rfind("text/event-stream", 0) != 0) {
            wrongType = true;
            return false;
        }
        // The host subscribes before it answers, so from here on no change is missed.
        if (status == 200) {
            LOG4CPLUS_DEBUG(logger(), "Event stream open");
            if (onOpen && !onOpen()) {
                callerStopped = true;
                return false;
            }
        }
        return true;
    };
    request.content_receiver = [&](const char* data, size_t length, uint64_t, uint64_t) {
        if (status != 200) {
            if (errorBody.size() < 64 * 1024)
                errorBody.append(data, int(length));
            return true;
        }
        const QList<CtlEvent> events = stream.feed(QByteArray(data, int(length)));
        for (const CtlEvent& event : events) {
            if (!onEvent(event)) {
                callerStopped = true;
                return false;
            }
        }
        return true;
    };

    // The duration is enforced from outside: a watchdog shuts the socket down,
    // which ends the blocking read at once.
    std::mutex mutex;
    std::condition_variable finishedChanged;
    bool finished = false;
    std::atomic<bool> deadlinePassed{false};
    std::thread watchdog;
    if (durationMs >= 0) {
        watchdog = std::thread([&]() {
            std::unique_lock<std::mutex> lock(mutex);
            if (!finishedChanged.wait_for(lock, std::chrono::milliseconds(durationMs), [&]() { return finished; })) {
                deadlinePassed = true;
                client.stop();
            }
        });
    }

    httplib::Response response;
    httplib::Error error = httplib::Error::Success;
    client.send(request, response, error);
    {
        std::lock_guard<std::mutex> lock(mutex);
        finished = true;
    }
    finishedChanged.notify_all();
    if (watchdog.joinable())
        watchdog.join();

    CtlReply reply;
    if (callerStopped) {
        reply = CtlReply::ok(200, QJsonObject(), QByteArray());
    } else if (wrongType) {
        reply = CtlReply::badResponse(200,
                                      QStringLiteral("%1 answered with content type '%2', not an event stream")
                                          .arg(where, QString::fromStdString(contentType)),
                                      QByteArray());
    } else if (deadlinePassed) {
        reply = CtlReply::timeout(QStringLiteral("watch of %1 ended after %2 ms").arg(api()).arg(durationMs));
    } else if (status > 0 && status != 200) {
        reply = errorFromAnswer(status, errorBody);
    } else if (error == httplib::Error::Connection) {
        reply = CtlReply::cannotConnect(QStringLiteral("cannot connect to %1 (is tarv-host running there?)").arg(api()));
    } else if (error == httplib::Error::ConnectionTimeout) {
        reply = CtlReply::cannotConnect(
            QStringLiteral("cannot connect to %1: no answer within %2 ms").arg(api()).arg(connectTimeoutMs(m_timeoutMs)));
    } else if (error == httplib::Error::Success || error == httplib::Error::Read) {
        reply = CtlReply::cannotConnect(QStringLiteral("the host at %1 closed the event stream").arg(api()));
    } else {
        reply = CtlReply::cannotConnect(QStringLiteral("event stream from %1 failed: %2")
                                            .arg(where, QString::fromStdString(httplib::to_string(error))));
    }
    if (stream.droppedLines() > 0)
        LOG4CPLUS_WARN(logger(), "Dropped " << stream.droppedLines() << " over-long event stream lines");
    if (!reply.isOk() && reply.kind() != CtlReply::Timeout)
        LOG4CPLUS_WARN(logger(), "GET " << where << " failed: " << reply.describe());
    return reply;
}

CtlReply CtlClient::actAndAwait(const std::function<CtlReply()>& act,
                                const std::function<bool(const CtlEvent&)>& arrived, int timeoutMs,
                                CtlReply* actReply)
{
    bool acted = false;
    const auto onOpen = [&]() {
        *actReply = act();
        acted = true;
        return actReply->isOk();
    };
    const CtlReply reply = watch([&](const CtlEvent& event) { return !arrived(event); }, timeoutMs, onOpen);
    if (acted && !actReply->isOk())
        return *actReply;
    if (!acted)
        *actReply = reply;
    return reply;
}
