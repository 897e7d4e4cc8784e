#include <exception>

#include <QCoreApplication>
#include <QTextStream>

#include <log4cplus/logger.h>

#include "TarvLog.h"

#include "CtlCommand.h"

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QTextStream out(stdout);
    QTextStream err(stderr);
    out.setCodec("UTF-8");
    err.setCodec("UTF-8");

    // Logs are for --verbose only; the normal output is the answer itself.
    TarvLog::init();
    log4cplus::Logger::getRoot().setLogLevel(log4cplus::OFF_LOG_LEVEL);

    try {
        CtlCommand command(out, err);
        QStringList arguments = app.arguments();
        arguments.removeFirst();
        if (!command.parse(arguments, qEnvironmentVariable("TARV_API"), qEnvironmentVariable("TARV_DEVICE")))
            return CtlExitCode::Usage;
        if (command.arguments().verbose())
            log4cplus::Logger::getRoot().setLogLevel(log4cplus::DEBUG_LOG_LEVEL);
        return command.execute();
    } catch (const std::exception& exception) {
        err << "tarvctl: internal error: " << exception.what() << '\n';
        return CtlExitCode::ApiError;
    }
}
