#include <cstdio>
#include <sstream>

#include <sys/socket.h>
#include <unistd.h>

#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <log4cplus/consoleappender.h>

#include <tarv>

#include "ChildProcess.h"

// Writes a log4cplus properties file into `dir`; its path, empty on failure.
static QString writeProperties(const QTemporaryDir& dir, const QByteArray& content)
{
    const QString path = dir.filePath(QStringLiteral("log.properties"));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        return QString();
    return path;
}

class tst_TarvLog : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void loggerIsNamedAfterTheClass()
    {
        const log4cplus::Logger logger = TarvLog::logger("SimpleGroupingCtrl");
        QCOMPARE(QString::fromStdString(logger.getName()), QStringLiteral("SimpleGroupingCtrl"));
        QCOMPARE(QString::fromStdString(TarvLog::logger("SimpleGroupingCtrl").getName()),
                 QStringLiteral("SimpleGroupingCtrl"));
    }

    void streamsQtValuesIntoLogMessages()
    {
        std::ostringstream out;
        out << QStringLiteral("Küche") << '|' << QByteArray("add {}") << '|' << QByteArray("a\0b", 3) << '|'
            << QVariant(5000) << '|' << QVariant(QStringLiteral("v"));
        QCOMPARE(QByteArray::fromStdString(out.str()), QByteArray("K\xc3\xbc" "che|add {}|a\0b|5000|v", 24));
    }

    void defaultConfigurationIsInfoToStderr()
    {
        TarvLog::init();
        log4cplus::Logger root = log4cplus::Logger::getRoot();
        QCOMPARE(root.getLogLevel(), log4cplus::INFO_LOG_LEVEL);
        const log4cplus::SharedAppenderPtrList appenders = root.getAllAppenders();
        QCOMPARE(int(appenders.size()), 1);
        QVERIFY(dynamic_cast<log4cplus::ConsoleAppender*>(appenders.front().get()));
        QVERIFY(TarvLog::defaultPattern().contains(QStringLiteral("%b:%L %M")));
        // Running init again keeps one appender.
        TarvLog::init();
        QCOMPARE(int(log4cplus::Logger::getRoot().getAllAppenders().size()), 1);
    }

    // A line is written to stderr whole, in one write: cheap under a flood
    // of lines, and never split by another process's lines on a shared
    // stream. A sequenced-packet socket keeps each write a record of its own.
    void eachLineReachesStderrInOneWrite()
    {
        TarvLog::init();
        int pair[2];
        QCOMPARE(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair), 0);
        std::fflush(stderr);
        const int saved = ::dup(STDERR_FILENO);
        QVERIFY(saved >= 0);
        QVERIFY(::dup2(pair[0], STDERR_FILENO) >= 0);
        const log4cplus::Logger probe = TarvLog::logger("Probe");
        LOG4CPLUS_ERROR(probe, "first line, " << 42 << " pieces");
        LOG4CPLUS_WARN(probe, "second line");
        std::fflush(stderr);
        ::dup2(saved, STDERR_FILENO);
        ::close(saved);
        ::close(pair[0]);

        QStringList records;
        char buffer[8192];
        ssize_t size = 0;
        while ((size = ::recv(pair[1], buffer, sizeof buffer, MSG_DONTWAIT)) > 0)
            records.append(QString::fromUtf8(buffer, int(size)));
        ::close(pair[1]);
        QCOMPARE(records.size(), 2);
        QVERIFY2(records.at(0).contains(QStringLiteral(" ERROR Probe [tst_TarvLog.cpp:")), qPrintable(records.at(0)));
        QVERIFY2(records.at(0).endsWith(QStringLiteral("] first line, 42 pieces\n")), qPrintable(records.at(0)));
        QVERIFY2(records.at(1).endsWith(QStringLiteral("] second line\n")), qPrintable(records.at(1)));
    }

    void defaultConfigurationWritesLevelLoggerFileLineAndFunction()
    {
        const ChildResult child = runChildScenario(QStringLiteral("default"));
        QVERIFY(child.finished);
        QCOMPARE(child.status, QProcess::NormalExit);
        QCOMPARE(child.exitCode, 0);
        const QRegularExpression info(
            QStringLiteral("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} INFO  Probe \\[tst_TarvLog\\.cpp:\\d+ [^\\]]*childMain[^\\]]*\\] "
                           "shown info$"),
            QRegularExpression::MultilineOption);
        QVERIFY2(info.match(child.stderrText).hasMatch(), qPrintable(child.stderrText));
        QVERIFY2(child.stderrText.contains(QStringLiteral("ERROR Probe [tst_TarvLog.cpp:")), qPrintable(child.stderrText));
        QVERIFY(!child.stderrText.contains(QStringLiteral("hidden debug")));
        QVERIFY(child.stdoutText.isEmpty());
    }

    void qtMessagesGoThroughTheLoggerQt()
    {
        const ChildResult child = runChildScenario(QStringLiteral("qt"));
        QVERIFY(child.finished);
        QCOMPARE(child.exitCode, 0);
        const QRegularExpression warning(
            QStringLiteral("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} WARN  Qt \\[[^\\]]*\\] qt warning 5$"),
            QRegularExpression::MultilineOption);
        QVERIFY2(warning.match(child.stderrText).hasMatch(), qPrintable(child.stderrText));
        QVERIFY2(child.stderrText.contains(QStringLiteral("ERROR Qt [")), qPrintable(child.stderrText));
        QVERIFY2(!child.stderrText.contains(QStringLiteral("qt debug")), qPrintable(child.stderrText));
        // Exactly the three lines above the root level: nothing printed twice by Qt itself.
        QCOMPARE(child.stderrText.count(QLatin1Char('\n')), 3);
    }

    void levelNamesAreReadAsLog4cplusWritesThem_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("valid");
        QTest::addColumn<int>("level");
        QTest::newRow("TRACE") << "TRACE" << true << int(log4cplus::TRACE_LOG_LEVEL);
        QTest::newRow("debug") << "debug" << true << int(log4cplus::DEBUG_LOG_LEVEL);
        QTest::newRow("Info") << "Info" << true << int(log4cplus::INFO_LOG_LEVEL);
        QTest::newRow("WARN") << "WARN" << true << int(log4cplus::WARN_LOG_LEVEL);
        QTest::newRow("error") << "error" << true << int(log4cplus::ERROR_LOG_LEVEL);
        QTest::newRow("FATAL") << "FATAL" << true << int(log4cplus::FATAL_LOG_LEVEL);
        QTest::newRow("off") << "off" << true << int(log4cplus::OFF_LOG_LEVEL);
        QTest::newRow("WARNING") << "WARNING" << false << 0;
        QTest::newRow("empty") << "" << false << 0;
        QTest::newRow("number") << "20000" << false << 0;
    }

    void levelNamesAreReadAsLog4cplusWritesThem()
    {
        QFETCH(QString, name);
        QFETCH(bool, valid);
        QFETCH(int, level);
        log4cplus::LogLevel parsed = log4cplus::NOT_SET_LOG_LEVEL;
        QCOMPARE(TarvLog::parseLevel(name, &parsed), valid);
        if (valid)
            QCOMPARE(int(parsed), level);
        else
            QCOMPARE(parsed, log4cplus::NOT_SET_LOG_LEVEL);
    }

    void rootLevelSetAfterInitRules()
    {
        const ChildResult child = runChildScenario(QStringLiteral("level:WARN"));
        QVERIFY(child.finished);
        QCOMPARE(child.exitCode, 0);
        QVERIFY2(!child.stderrText.contains(QStringLiteral("shown info")), qPrintable(child.stderrText));
        QVERIFY2(child.stderrText.contains(QStringLiteral("ERROR Probe [tst_TarvLog.cpp:")), qPrintable(child.stderrText));
    }

    void propertiesFileSetsTheLevels()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QString path = writeProperties(dir, "log4cplus.rootLogger=WARN, STDERR\n"
                                                  "log4cplus.logger.Verbose=TRACE\n"
                                                  "log4cplus.appender.STDERR=log4cplus::ConsoleAppender\n"
                                                  "log4cplus.appender.STDERR.logToStdErr=true\n"
                                                  "log4cplus.appender.STDERR.layout=log4cplus::PatternLayout\n"
                                                  "log4cplus.appender.STDERR.layout.ConversionPattern=%p %c %m%n\n");
        QVERIFY(!path.isEmpty());
        const ChildResult child = runChildScenario(QStringLiteral("properties:") + path);
        QVERIFY(child.finished);
        QCOMPARE(child.exitCode, 0);
        const QStringList lines = child.stderrText.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        QCOMPARE(lines, QStringList({"WARN Probe probe warn", "DEBUG Verbose verbose debug"}));
    }

    void propertiesFileWithoutRootLevelIsRefusedAndLoggingStaysSafe()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QString path = writeProperties(dir, "log4cplus.rootLogger=BOGUS, STDERR\n"
                                                  "log4cplus.appender.STDERR=log4cplus::ConsoleAppender\n");
        QVERIFY(!path.isEmpty());
        const ChildResult child = runChildScenario(QStringLiteral("properties:") + path);
        QVERIFY2(child.finished, qPrintable(child.stderrText));
        QCOMPARE(child.status, QProcess::NormalExit);
        QCOMPARE(child.exitCode, 3);
        QVERIFY2(child.stdoutText.contains(path + QStringLiteral(" gives the root logger no valid level")),
                 qPrintable(child.stdoutText));
        // The default configuration took over: INFO and above reach stderr.
        QVERIFY2(child.stderrText.contains(QStringLiteral("] probe info")), qPrintable(child.stderrText));
        QVERIFY(!child.stderrText.contains(QStringLiteral("verbose debug")));
    }

    void unreadablePropertiesFileFallsBackToTheDefault()
    {
        const ChildResult child = runChildScenario(QStringLiteral("properties:/nonexistent/log.properties"));
        QVERIFY(child.finished);
        QCOMPARE(child.exitCode, 0);
        QVERIFY2(child.stderrText.contains(QStringLiteral("WARN  Probe [tst_TarvLog.cpp:")), qPrintable(child.stderrText));
        QVERIFY2(child.stderrText.contains(QStringLiteral("] probe info")), qPrintable(child.stderrText));
        QVERIFY(!child.stderrText.contains(QStringLiteral("verbose debug")));
    }
};

static int childMain(const QString& scenario)
{
    const log4cplus::Logger probe = TarvLog::logger("Probe");
    if (scenario == QLatin1String("default")) {
        TarvLog::init();
        LOG4CPLUS_DEBUG(probe, "hidden debug");
        LOG4CPLUS_INFO(probe, "shown info");
        LOG4CPLUS_ERROR(probe, "shown error");
    } else if (scenario == QLatin1String("qt")) {
        TarvLog::init();
        TarvLog::installQtMessageHandler();
        qDebug("qt debug %d", 1);
        qInfo("qt info %d", 2);
        qWarning("qt warning %d", 5);
        qCritical("qt critical %d", 6);
    } else if (scenario.startsWith(QLatin1String("level:"))) {
        TarvLog::init();
        log4cplus::LogLevel level = log4cplus::NOT_SET_LOG_LEVEL;
        if (!TarvLog::parseLevel(scenario.mid(int(strlen("level:"))), &level))
            return 4;
        TarvLog::setRootLevel(level);
        LOG4CPLUS_INFO(probe, "shown info");
        LOG4CPLUS_ERROR(probe, "shown error");
    } else if (scenario.startsWith(QLatin1String("properties:"))) {
        QString problem;
        const bool accepted = TarvLog::init(scenario.mid(int(strlen("properties:"))), &problem);
        LOG4CPLUS_INFO(probe, "probe info");
        LOG4CPLUS_WARN(probe, "probe warn");
        LOG4CPLUS_DEBUG(TarvLog::logger("Verbose"), "verbose debug");
        if (!accepted) {
            std::printf("%s\n", qPrintable(problem));
            return 3;
        }
    }
    return 0;
}

TARV_TEST_MAIN_WITH_CHILDREN(tst_TarvLog, childMain)
#include "tst_TarvLog.moc"
