#include "CommandRun.h"

#include <QJsonDocument>
#include <QJsonParseError>
#include <QTextStream>

#include "CtlCommand.h"

CommandRun CommandRun::of(const QStringList& arguments, const QString& apiFromEnvironment,
                          const QString& deviceFromEnvironment)
{
    CommandRun result;
    QTextStream out(&result.out);
    QTextStream err(&result.err);
    CtlCommand command(out, err);
    result.exitCode = command.run(arguments, apiFromEnvironment, deviceFromEnvironment);
    out.flush();
    err.flush();
    return result;
}

QJsonObject CommandRun::parseObject(const QString& text)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(text.toUtf8(), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return QJsonObject{{"unparsable", text}};
    return document.object();
}
