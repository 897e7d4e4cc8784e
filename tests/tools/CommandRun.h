#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>

// One run of tarvctl's command in this process, with what it printed.
struct CommandRun
{
    int exitCode = -1;
    QString out;
    QString err;

    // Runs the command on `arguments` as given on the command line; the API
    // and the device as the environment would name them (empty: not set).
    static CommandRun of(const QStringList& arguments, const QString& apiFromEnvironment = QString(),
                         const QString& deviceFromEnvironment = QString());

    // The JSON object `text` holds, or {"unparsable": text}, so that a
    // comparison that fails shows what was printed.
    static QJsonObject parseObject(const QString& text);
};
