#include <csignal>
#include <cstdio>

#include <QCoreApplication>

#include <log4cplus/logger.h>

#include "HostConfig.h"
#include "HostDaemon.h"
#include "TarvConnect.h"
#include "TarvLog.h"
#include "UnixSignalWatcher.h"

namespace {

log4cplus::Logger logger()
{
    return TarvLog::logger("tarv-host");
}

} // namespace

int main(int argc, char** argv)
{
    // Qt's own event dispatcher, not GLib's: only it leaves sockets alone
    // while the modules start (HostDaemon::runModuleStartUp).
    qputenv("QT_NO_GLIB", "1");
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("tarv-host"));
    QCoreApplication::setApplicationVersion(QStringLiteral(TARV_HOST_VERSION));

    HostConfig config;
    QString error;
    if (!config.parse(QCoreApplication::arguments(), &error)) {
        std::fprintf(stderr, "tarv-host: %s\nTry 'tarv-host --help'.\n", qPrintable(error));
        return 2;
    }
    if (config.helpRequested()) {
        std::fputs(qPrintable(HostConfig::helpText()), stdout);
        return 0;
    }
    if (config.versionRequested()) {
        std::printf("tarv-host %s\n", TARV_HOST_VERSION);
        return 0;
    }
    QString logProblem;
    if (!TarvLog::init(config.logConfig(), &logProblem)) {
        std::fprintf(stderr, "tarv-host: --log-config: %s\nTry 'tarv-host --help'.\n", qPrintable(logProblem));
        return 2;
    }
    if (config.logLevel() != log4cplus::NOT_SET_LOG_LEVEL)
        TarvLog::setRootLevel(config.logLevel());
    TarvLog::installQtMessageHandler();

    UnixSignalWatcher signalWatcher({SIGINT, SIGTERM});
    tarvConnect(&signalWatcher, &UnixSignalWatcher::signalReceived, &app, [](int number) {
        LOG4CPLUS_INFO(logger(), "Received " << (number == SIGINT ? "SIGINT" : "SIGTERM") << ", shutting down");
        QCoreApplication::quit();
    });

    HostDaemon daemon(config);
    if (!daemon.start(&error)) {
        LOG4CPLUS_ERROR(logger(), "Cannot start: " << error);
        std::fprintf(stderr, "tarv-host: %s\n", qPrintable(error));
        daemon.stop();
        return 1;
    }
    // Printed, not logged: scripts wait for this exact line on stderr
    // whatever the log configuration, and with the default one a logged
    // copy would show it twice.
    const QString ready = QStringLiteral("tarv-host ready: api %1 id %2").arg(daemon.apiUrl(), daemon.id());
    std::fprintf(stderr, "%s\n", qPrintable(ready));
    std::fflush(stderr);

    const int code = QCoreApplication::exec();
    daemon.stop();
    LOG4CPLUS_INFO(logger(), "Stopped");
    return code;
}
