#include "Command.h"

#include <QProcess>

Command::Result Command::run(const QString& program, const QStringList& arguments, int timeoutMs,
                             const QProcessEnvironment& environment, const QString& workDirectory)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.setProcessEnvironment(environment);
    if (!workDirectory.isEmpty())
        process.setWorkingDirectory(workDirectory);
    process.start(program, arguments);
    Result result;
    result.finished = process.waitForFinished(timeoutMs);
    if (!result.finished) {
        process.kill();
        process.waitForFinished(5000);
    }
    result.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    result.output = QString::fromLocal8Bit(process.readAll());
    const QString ending = !result.finished ? QStringLiteral("did not end within %1 ms").arg(timeoutMs)
        : process.error() == QProcess::FailedToStart ? process.errorString()
                                                     : QStringLiteral("exit %1").arg(result.exitCode);
    result.report = QStringLiteral("%1 %2: %3\n%4").arg(program, arguments.join(QLatin1Char(' ')), ending, result.output);
    return result;
}
