#include "CtlReply.h"

CtlReply CtlReply::ok(int httpStatus, const QJsonObject& body, const QByteArray& rawBody)
{
    CtlReply reply;
    reply.m_kind = Ok;
    reply.m_httpStatus = httpStatus;
    reply.m_body = body;
    reply.m_rawBody = rawBody;
    return reply;
}

CtlReply CtlReply::apiError(int httpStatus, const QString& name, const QString& title, const QString& message,
                            const QByteArray& rawBody)
{
    CtlReply reply;
    reply.m_kind = ApiError;
    reply.m_httpStatus = httpStatus;
    reply.m_errorName = name;
    reply.m_errorTitle = title;
    reply.m_errorMessage = message;
    reply.m_rawBody = rawBody;
    return reply;
}

CtlReply CtlReply::badResponse(int httpStatus, const QString& detail, const QByteArray& rawBody)
{
    CtlReply reply;
    reply.m_kind = BadResponse;
    reply.m_httpStatus = httpStatus;
    reply.m_detail = detail;
    reply.m_rawBody = rawBody;
    return reply;
}

CtlReply CtlReply::cannotConnect(const QString& detail, const QByteArray& rawBody)
{
    CtlReply reply;
    reply.m_kind = CannotConnect;
    reply.m_detail = detail;
    reply.m_rawBody = rawBody;
    return reply;
}

CtlReply CtlReply::timeout(const QString& detail, int httpStatus, const QByteArray& rawBody)
{
    CtlReply reply;
    reply.m_kind = Timeout;
    reply.m_detail = detail;
    reply.m_httpStatus = httpStatus;
    reply.m_rawBody = rawBody;
    return reply;
}

CtlExitCode::Enum CtlReply::exitCode() const
{
    switch (m_kind) {
    case Ok:
        return CtlExitCode::Ok;
    case ApiError:
    case BadResponse:
        return CtlExitCode::ApiError;
    case CannotConnect:
        return CtlExitCode::CannotConnect;
    case Timeout:
        return CtlExitCode::Timeout;
    }
    return CtlExitCode::ApiError;
}

QString CtlReply::describe() const
{
    switch (m_kind) {
    case Ok:
        return QString();
    case ApiError: {
        QString text = QStringLiteral("error");
        if (m_httpStatus > 0)
            text += QStringLiteral(" (HTTP %1)").arg(m_httpStatus);
        text += QStringLiteral(": ");
        // The title is often just "Error"; it says nothing the prefix does not.
        if (!m_errorTitle.isEmpty() && m_errorTitle.compare(QLatin1String("error"), Qt::CaseInsensitive) != 0)
            text += m_errorTitle + QStringLiteral(": ");
        text += m_errorMessage.isEmpty() ? QStringLiteral("(no message)") : m_errorMessage;
        return text;
    }
    case BadResponse:
        return QStringLiteral("error: bad answer from the host: ") + m_detail;
    case CannotConnect:
        return QStringLiteral("error: ") + m_detail;
    case Timeout:
        return QStringLiteral("timeout: ") + m_detail;
    }
    return QString();
}
