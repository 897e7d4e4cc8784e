#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

#include "CtlExitCode.h"

// The outcome of one call to a host's control API: the JSON object it
// answered with, or what went wrong, in words a person understands.
class CtlReply
{
public:
    enum Kind {
        Ok,            // 2xx with a JSON object of the expected shape
        ApiError,      // 4xx/5xx from the host, with its error name, title and message
        BadResponse,   // the host answered, but not with what the API promises
        CannotConnect, // no connection, or the connection broke
        Timeout,       // no answer within the bound (or 504 from the host)
    };

    CtlReply() = default;

    static CtlReply ok(int httpStatus, const QJsonObject& body, const QByteArray& rawBody);
    static CtlReply apiError(int httpStatus, const QString& name, const QString& title, const QString& message,
                             const QByteArray& rawBody);
    static CtlReply badResponse(int httpStatus, const QString& detail, const QByteArray& rawBody);
    static CtlReply cannotConnect(const QString& detail, const QByteArray& rawBody = QByteArray());
    static CtlReply timeout(const QString& detail, int httpStatus = 0, const QByteArray& rawBody = QByteArray());

    Kind kind() const { return m_kind; }
    bool isOk() const { return m_kind == Ok; }
    int httpStatus() const { return m_httpStatus; }
    const QJsonObject& body() const { return m_body; }
    // The bytes the host sent (empty when nothing came).
    const QByteArray& rawBody() const { return m_rawBody; }
    const QString& errorName() const { return m_errorName; }
    const QString& errorTitle() const { return m_errorTitle; }
    const QString& errorMessage() const { return m_errorMessage; }
    const QString& detail() const { return m_detail; }

    CtlExitCode::Enum exitCode() const;
    // One line for stderr; empty for Ok.
    QString describe() const;

private:
    Kind m_kind = Ok;
    int m_httpStatus = 0;
    QJsonObject m_body;
    QByteArray m_rawBody;
    QString m_errorName;
    QString m_errorTitle;
    QString m_errorMessage;
    QString m_detail;
};
