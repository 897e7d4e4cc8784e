#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QtTest>

#include <log4cplus/nullappender.h>
#include <log4cplus/spi/loggingevent.h>

#include <tarv>

#include "LogCapture.h"
#include "TarvRepeatFilter.h"

namespace {

const log4cplus::Logger& probe()
{
    static const log4cplus::Logger instance = TarvLog::logger("RepeatProbe");
    return instance;
}

int evaluations = 0;

// Streamed into a message: counts how often a message is actually built.
int counted(int value)
{
    ++evaluations;
    return value;
}

// One call site, logged `count` times with a changing number.
int logFromSiteA(int count)
{
    for (int i = 0; i < count; ++i)
        LOG4CPLUS_INFO(probe(), "Dropping packet " << counted(i));
    return __LINE__ - 1;
}

void logFromSiteB(int count)
{
    for (int i = 0; i < count; ++i)
        LOG4CPLUS_INFO(probe(), "Same text");
}

void logFromSiteC(int count)
{
    for (int i = 0; i < count; ++i)
        LOG4CPLUS_INFO(probe(), "Same text");
}

void logErrorsFromSiteD(int count)
{
    for (int i = 0; i < count; ++i)
        LOG4CPLUS_ERROR(probe(), "Same text");
}

// A line without a call site, as Qt's messages come in a release build.
void logWithoutSite(log4cplus::LogLevel level, const std::string& message)
{
    probe().forcedLog(level, message, "", -1, "");
}

QString writeProperties(const QTemporaryDir& dir, const QByteArray& content)
{
    const QString path = dir.filePath(QStringLiteral("log.properties"));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        return QString();
    return path;
}

const TarvRepeatFilter* rootFilter()
{
    const log4cplus::SharedAppenderPtrList appenders = log4cplus::Logger::getRoot().getAllAppenders();
    if (appenders.size() != 1)
        return nullptr;
    return dynamic_cast<const TarvRepeatFilter*>(appenders.front()->getFilter().get());
}

} // namespace

class tst_TarvRepeatFilter : public QObject
{
    Q_OBJECT

private:
    // Puts a filter on the capture's appender; `gated` as the host's
    // configuration has it (the only appender), else with the call-site gate
    // off, so that both ways of suppressing are held to the same results.
    TarvRepeatFilter* limit(LogCapture& capture, int maxPerInterval, int intervalMs, bool gated)
    {
        auto* filter = new TarvRepeatFilter(maxPerInterval, intervalMs);
        capture.appender()->addFilter(log4cplus::spi::FilterPtr(filter));
        if (gated)
            TarvRepeatFilter::attachToAppenders();
        else
            filter->attach(capture.appender().get());
        return filter;
    }

private Q_SLOTS:
    void init() { evaluations = 0; }

    void linesBeyondTheLimitAreSuppressedThenCountedAtTheSameLevel_data()
    {
        QTest::addColumn<bool>("gated");
        QTest::newRow("only appender: call sites gated") << true;
        QTest::newRow("filter alone") << false;
    }
    void linesBeyondTheLimitAreSuppressedThenCountedAtTheSameLevel()
    {
        QFETCH(bool, gated);
        LogCapture capture;
        limit(capture, 3, 300, gated);
        QElapsedTimer clock;
        clock.start();
        const int line = logFromSiteA(10);

        QCOMPARE(capture.messages(log4cplus::INFO_LOG_LEVEL),
                 QStringList({QStringLiteral("Dropping packet 0"), QStringLiteral("Dropping packet 1"),
                              QStringLiteral("Dropping packet 2")}));
        // Gated, a suppressed line's message is not even built: the 4th
        // line reaches the filter and blocks its site.
        QCOMPARE(evaluations, gated ? 4 : 10);

        // No further line comes: the summary still does, once the window
        // has ended, and not before.
        const QString summary = QStringLiteral("Suppressed 7 similar lines in 300 ms: Dropping packet 0");
        QTRY_COMPARE_WITH_TIMEOUT(capture.count(log4cplus::INFO_LOG_LEVEL, summary, QStringLiteral("RepeatProbe")), 1,
                                  3000);
        QVERIFY2(clock.elapsed() >= 300, qPrintable(QString::number(clock.elapsed())));
        const CapturedLog last = capture.events().last();
        QCOMPARE(last.message, summary);
        QCOMPARE(last.line, line);
        QVERIFY(last.file.endsWith(QLatin1String("tst_TarvRepeatFilter.cpp")));
        QCOMPARE(capture.events().size(), 4);

        // A new window: lines are written again, the count starts over.
        logFromSiteA(4);
        QCOMPARE(capture.countStartingWith(log4cplus::INFO_LOG_LEVEL, QStringLiteral("Dropping packet")), 6);
        QTRY_COMPARE_WITH_TIMEOUT(capture.count(log4cplus::INFO_LOG_LEVEL,
                                                QStringLiteral("Suppressed 1 similar lines in 300 ms: Dropping packet 0")),
                                  1, 3000);
    }

    void summaryComesBeforeTheNextLinesOfItsKind()
    {
        LogCapture capture;
        limit(capture, 1, 100, true);
        logFromSiteB(3);
        QTRY_COMPARE_WITH_TIMEOUT(capture.events().size(), 2, 3000);
        logFromSiteB(1);
        QStringList expected{QStringLiteral("Same text"), QStringLiteral("Suppressed 2 similar lines in 100 ms: Same text"),
                             QStringLiteral("Same text")};
        QCOMPARE(capture.messages(log4cplus::INFO_LOG_LEVEL), expected);
    }

    void differentCallSitesAndLevelsAreNotMerged()
    {
        LogCapture capture;
        limit(capture, 2, 200, true);
        logFromSiteB(5);
        logFromSiteC(5);
        logErrorsFromSiteD(5);
        QCOMPARE(capture.count(log4cplus::INFO_LOG_LEVEL, QStringLiteral("Same text")), 4);
        QCOMPARE(capture.count(log4cplus::ERROR_LOG_LEVEL, QStringLiteral("Same text")), 2);
        const QString summary = QStringLiteral("Suppressed 3 similar lines in 200 ms: Same text");
        QTRY_COMPARE_WITH_TIMEOUT(capture.count(log4cplus::INFO_LOG_LEVEL, summary), 2, 3000);
        QTRY_COMPARE_WITH_TIMEOUT(capture.count(log4cplus::ERROR_LOG_LEVEL, summary), 1, 3000);
        QCOMPARE(capture.events().size(), 9);
    }

    void singleWarningsAndErrorsAreNeverSuppressed()
    {
        LogCapture capture;
        limit(capture, 1, 60000, true);
        logFromSiteA(100);
        LOG4CPLUS_WARN(probe(), "Member 1 dropped after 3000 ms");
        LOG4CPLUS_ERROR(probe(), "Join refused");
        logWithoutSite(log4cplus::WARN_LOG_LEVEL, "QObject: one warning");
        logWithoutSite(log4cplus::WARN_LOG_LEVEL, "QSocketNotifier: another warning");
        QCOMPARE(capture.messages(log4cplus::WARN_LOG_LEVEL),
                 QStringList({QStringLiteral("Member 1 dropped after 3000 ms"), QStringLiteral("QObject: one warning"),
                              QStringLiteral("QSocketNotifier: another warning")}));
        QCOMPARE(capture.messages(log4cplus::ERROR_LOG_LEVEL), QStringList({QStringLiteral("Join refused")}));
        QCOMPARE(capture.countStartingWith(log4cplus::INFO_LOG_LEVEL, QStringLiteral("Dropping packet")), 1);
    }

    void linesWithoutCallSiteAreKindsByTheirTextBeforeItsVariablePart()
    {
        LogCapture capture;
        limit(capture, 1, 200, true);
        logWithoutSite(log4cplus::WARN_LOG_LEVEL, "Timed out after 5 ms");
        logWithoutSite(log4cplus::WARN_LOG_LEVEL, "Timed out after 6 ms");
        logWithoutSite(log4cplus::WARN_LOG_LEVEL, "Timed out after 7 ms");
        logWithoutSite(log4cplus::WARN_LOG_LEVEL, "Socket closed: 7");
        QCOMPARE(capture.messages(log4cplus::WARN_LOG_LEVEL),
                 QStringList({QStringLiteral("Timed out after 5 ms"), QStringLiteral("Socket closed: 7")}));
        QTRY_COMPARE_WITH_TIMEOUT(
            capture.count(log4cplus::WARN_LOG_LEVEL, QStringLiteral("Suppressed 2 similar lines in 200 ms: Timed out after 5 ms")),
            1, 3000);
    }

    void constantPartEndsBeforeTheFirstVariableWord_data()
    {
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("constant");
        QTest::newRow("no variable part") << "Dropping garbage packet" << "Dropping garbage packet";
        QTest::newRow("number") << "Timed out after 500 ms" << "Timed out after ";
        QTest::newRow("address") << "Received from 10.77.0.2" << "Received from ";
        QTest::newRow("identifier with digits") << "Member deadbeef-12 appeared" << "Member ";
        QTest::newRow("quote") << "Unknown key 'x'" << "Unknown key ";
        QTest::newRow("record") << "Received invalid command{\"a\":1}" << "Received invalid ";
        QTest::newRow("at once") << "42 members" << "";
        QTest::newRow("long") << QString(300, QLatin1Char('a')) << QString(120, QLatin1Char('a'));
    }
    void constantPartEndsBeforeTheFirstVariableWord()
    {
        QFETCH(QString, message);
        QFETCH(QString, constant);
        const std::string text = message.toStdString();
        QCOMPARE(QString::fromStdString(text.substr(0, TarvRepeatFilter::constantPartLength(text))), constant);
    }

    void propertiesFileConfiguresTheFilter()
    {
        QTemporaryDir dir;
        const QString path = writeProperties(dir, "log4cplus.rootLogger=INFO, A\n"
                                                  "log4cplus.appender.A=log4cplus::NullAppender\n"
                                                  "log4cplus.appender.A.filters.1=TarvRepeatFilter\n"
                                                  "log4cplus.appender.A.filters.1.MaxPerInterval=2\n"
                                                  "log4cplus.appender.A.filters.1.IntervalMs=1500\n");
        QVERIFY(!path.isEmpty());
        QVERIFY(TarvLog::init(path));
        const TarvRepeatFilter* filter = rootFilter();
        QVERIFY(filter);
        QCOMPARE(filter->maxPerInterval(), 2);
        QCOMPARE(filter->intervalMs(), 1500);
        TarvLog::init();
    }

    void badFilterSettingsFallBackToTheDefaults()
    {
        QTemporaryDir dir;
        const QString path = writeProperties(dir, "log4cplus.rootLogger=INFO, A\n"
                                                  "log4cplus.appender.A=log4cplus::NullAppender\n"
                                                  "log4cplus.appender.A.filters.1=TarvRepeatFilter\n"
                                                  "log4cplus.appender.A.filters.1.MaxPerInterval=0\n"
                                                  "log4cplus.appender.A.filters.1.IntervalMs=ten\n");
        QVERIFY(TarvLog::init(path));
        const TarvRepeatFilter* filter = rootFilter();
        QVERIFY(filter);
        QCOMPARE(filter->maxPerInterval(), int(TarvRepeatFilter::DefaultMaxPerInterval));
        QCOMPARE(filter->intervalMs(), int(TarvRepeatFilter::DefaultIntervalMs));
        TarvLog::init();
    }

    void defaultConfigurationLimitsRepeats()
    {
        TarvLog::init();
        const TarvRepeatFilter* filter = rootFilter();
        QVERIFY(filter);
        QCOMPARE(filter->maxPerInterval(), int(TarvRepeatFilter::DefaultMaxPerInterval));
        QCOMPARE(filter->intervalMs(), int(TarvRepeatFilter::DefaultIntervalMs));
    }

    void installedConfigurationLimitsRepeats()
    {
        QVERIFY(TarvLog::init(QStringLiteral(TARV_SOURCE_DIR "/packaging/log4cplus.properties")));
        const TarvRepeatFilter* filter = rootFilter();
        QVERIFY(filter);
        QCOMPARE(filter->maxPerInterval(), 10);
        QCOMPARE(filter->intervalMs(), 10000);
        TarvLog::init();
    }
};

QTEST_GUILESS_MAIN(tst_TarvRepeatFilter)
#include "tst_TarvRepeatFilter.moc"
