#include "InProcessApi.h"

#include <chrono>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QJsonDocument>

#include "HostConfig.h"
#include "HostWorker.h"

const QString InProcessApi::HostName = QStringLiteral("tarv-test.local");

QJsonObject InProcessApi::Answer::json() const
{
    return QJsonDocument::fromJson(QByteArray::fromStdString(body)).object();
}

QJsonObject InProcessApi::Answer::error() const
{
    return json().value(QStringLiteral("error")).toObject();
}

QString InProcessApi::Answer::name() const
{
    return error().value(QStringLiteral("name")).toString();
}

QString InProcessApi::Answer::message() const
{
    return error().value(QStringLiteral("message")).toString();
}

std::string InProcessApi::Answer::header(const char* name) const
{
    const auto it = headers.find(name);
    return it == headers.end() ? std::string() : it->second;
}

std::unique_ptr<HostWorker> InProcessApi::makeHost(const QString& deviceId, QString* error)
{
    HostConfig config;
    if (!config.parse({QStringLiteral("tarv-host"), QStringLiteral("--name"), QStringLiteral("Kitchen"),
                       QStringLiteral("--host-name"), HostName, QStringLiteral("--address"),
                       QStringLiteral("127.0.0.1")},
                      error))
        return nullptr;
    return std::make_unique<HostWorker>(config, deviceId, QVariantHash(), nullptr);
}

ControlApi::Options InProcessApi::options(const QString& deviceId)
{
    ControlApi::Options options;
    options.address = QHostAddress(QHostAddress::LocalHost);
    options.port = 0;
    options.allowedHosts << HostName;
    options.version = QStringLiteral("9.8.7");
    options.deviceId = deviceId;
    return options;
}

std::future<InProcessApi::Answer> InProcessApi::send(quint16 port, const std::string& method,
                                                     const std::string& target, const std::string& body,
                                                     const httplib::Headers& headers)
{
    return std::async(std::launch::async, [=] {
        httplib::Client client("127.0.0.1", port);
        client.set_read_timeout(15);
        client.set_url_encode(false);
        httplib::Request req;
        req.method = method;
        req.path = target;
        req.headers = headers;
        req.body = body;
        if (!body.empty())
            req.set_header("Content-Type", "application/json");
        Answer answer;
        if (auto result = client.send(req)) {
            answer.status = result->status;
            answer.body = result->body;
            answer.headers = result->headers;
        } else {
            answer.status = -static_cast<int>(result.error());
        }
        return answer;
    });
}

InProcessApi::Answer InProcessApi::wait(std::future<Answer>& future)
{
    const QDeadlineTimer deadline(20000);
    while (future.wait_for(std::chrono::milliseconds(2)) != std::future_status::ready && !deadline.hasExpired())
        QCoreApplication::processEvents();
    return future.get();
}

InProcessApi::Answer InProcessApi::request(quint16 port, const std::string& method, const std::string& target,
                                           const std::string& body, const httplib::Headers& headers)
{
    auto future = send(port, method, target, body, headers);
    return wait(future);
}
