#pragma once

#include <future>
#include <memory>
#include <string>

#include <QJsonObject>
#include <QString>

#include <httplib.h>

#include "ControlApi.h"

class HostWorker;

// A control API and its host in the test's own process, and the client the
// tests reach it with. The API hands its work to this thread's event loop,
// so each request runs in a thread of its own while this thread keeps the
// loop turning.
class InProcessApi
{
public:
    // The host name every API made here accepts in a request's Host header.
    static const QString HostName;

    // An answer as the client got it; status is the negated httplib error
    // when there was none.
    struct Answer
    {
        int status = 0;
        std::string body;
        httplib::Headers headers;

        QJsonObject json() const;
        QJsonObject error() const;
        QString name() const;
        QString message() const;
        std::string header(const char* name) const;
    };

    // The host worker of device `deviceId`, named "Kitchen", with HostName
    // and 127.0.0.1; null, with `error` set, if its configuration is refused.
    static std::unique_ptr<HostWorker> makeHost(const QString& deviceId, QString* error);

    // Options for an API on a free loopback port that accepts HostName.
    static ControlApi::Options options(const QString& deviceId = QString());

    // Sends the request as written: `target` goes out without any encoding
    // of the client's, so a test decides exactly what the server reads.
    static std::future<Answer> send(quint16 port, const std::string& method, const std::string& target,
                                    const std::string& body = std::string(), const httplib::Headers& headers = {});
    // Turns this thread's event loop until `future` is ready (at most 20 s).
    static Answer wait(std::future<Answer>& future);
    static Answer request(quint16 port, const std::string& method, const std::string& target,
                          const std::string& body = std::string(), const httplib::Headers& headers = {});
};
