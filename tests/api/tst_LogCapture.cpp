#include <thread>

#include <QtTest>

#include <tarv>

#include "LogCapture.h"

class tst_LogCapture : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void capturesEveryLevelWithLoggerMessageAndSource()
    {
        LogCapture log;
        const log4cplus::Logger probe = TarvLog::logger("Probe");
        const int line = __LINE__ + 1;
        LOG4CPLUS_TRACE(probe, "t " << 1);
        LOG4CPLUS_DEBUG(probe, "d");
        LOG4CPLUS_INFO(probe, "i");
        LOG4CPLUS_WARN(probe, "w");
        LOG4CPLUS_ERROR(probe, "e " << QStringLiteral("Küche"));
        LOG4CPLUS_FATAL(probe, "f");
        const QList<CapturedLog> events = log.events();
        QCOMPARE(events.size(), 6);
        const QList<log4cplus::LogLevel> levels{log4cplus::TRACE_LOG_LEVEL, log4cplus::DEBUG_LOG_LEVEL,
                                                log4cplus::INFO_LOG_LEVEL,  log4cplus::WARN_LOG_LEVEL,
                                                log4cplus::ERROR_LOG_LEVEL, log4cplus::FATAL_LOG_LEVEL};
        const QStringList messages{"t 1", "d", "i", "w", QStringLiteral("e Küche"), "f"};
        for (int i = 0; i < events.size(); ++i) {
            QCOMPARE(events.at(i).logger, QStringLiteral("Probe"));
            QCOMPARE(events.at(i).level, levels.at(i));
            QCOMPARE(events.at(i).message, messages.at(i));
            QVERIFY(events.at(i).file.endsWith(QStringLiteral("tst_LogCapture.cpp")));
            QCOMPARE(events.at(i).line, line + i);
            QVERIFY2(events.at(i).function.contains(QStringLiteral("capturesEveryLevelWithLoggerMessageAndSource")),
                     qPrintable(events.at(i).function));
        }
    }

    void setsEveryLoggerToTrace()
    {
        LogCapture log;
        QCOMPARE(log4cplus::Logger::getRoot().getLogLevel(), log4cplus::TRACE_LOG_LEVEL);
        QVERIFY(TarvLog::logger("AnyClass").isEnabledFor(log4cplus::TRACE_LOG_LEVEL));
        LOG4CPLUS_TRACE(TarvLog::logger("AnyClass"), "deep");
        QCOMPARE(log.count(log4cplus::TRACE_LOG_LEVEL, QStringLiteral("deep")), 1);
    }

    void countsAndListsFilteredByLevelAndLogger()
    {
        LogCapture log;
        LOG4CPLUS_INFO(TarvLog::logger("A"), "Enter A::f");
        LOG4CPLUS_INFO(TarvLog::logger("B"), "Enter B::g");
        LOG4CPLUS_ERROR(TarvLog::logger("A"), "Enter A::h failed");
        QCOMPARE(log.count(log4cplus::INFO_LOG_LEVEL, QStringLiteral("Enter A::f")), 1);
        QCOMPARE(log.count(log4cplus::INFO_LOG_LEVEL, QStringLiteral("Enter A::f"), QStringLiteral("B")), 0);
        QCOMPARE(log.count(log4cplus::ERROR_LOG_LEVEL, QStringLiteral("Enter A::f")), 0);
        QCOMPARE(log.countStartingWith(log4cplus::INFO_LOG_LEVEL, QStringLiteral("Enter ")), 2);
        QCOMPARE(log.countStartingWith(log4cplus::INFO_LOG_LEVEL, QStringLiteral("Enter "), QStringLiteral("A")), 1);
        QCOMPARE(log.countContaining(log4cplus::ERROR_LOG_LEVEL, QStringLiteral("failed")), 1);
        QCOMPARE(log.countContaining(log4cplus::INFO_LOG_LEVEL, QStringLiteral("failed")), 0);
        QCOMPARE(log.messages(log4cplus::INFO_LOG_LEVEL), QStringList({"Enter A::f", "Enter B::g"}));
        QCOMPARE(log.messages(log4cplus::INFO_LOG_LEVEL, QStringLiteral("B")), QStringList({"Enter B::g"}));
        QVERIFY(log.dump().contains(QStringLiteral("A: Enter A::h failed")));
        log.clear();
        QVERIFY(log.events().isEmpty());
    }

    void capturesFromOtherThreads()
    {
        LogCapture log;
        std::thread other([] { LOG4CPLUS_INFO(TarvLog::logger("Thread"), "from another thread"); });
        other.join();
        QCOMPARE(log.count(log4cplus::INFO_LOG_LEVEL, QStringLiteral("from another thread"), QStringLiteral("Thread")), 1);
    }

    void eachCaptureSeesOnlyWhatHappensWhileItExists()
    {
        {
            LogCapture first;
            LOG4CPLUS_INFO(TarvLog::logger("P"), "first");
            QCOMPARE(first.events().size(), 1);
        }
        LogCapture second;
        QVERIFY(second.events().isEmpty());
        LOG4CPLUS_INFO(TarvLog::logger("P"), "second");
        QCOMPARE(second.messages(log4cplus::INFO_LOG_LEVEL), QStringList({"second"}));
    }
};

QTEST_GUILESS_MAIN(tst_LogCapture)
#include "tst_LogCapture.moc"
