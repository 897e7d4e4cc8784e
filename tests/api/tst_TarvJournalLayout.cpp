#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>

#include <QtTest>

#include <log4cplus/helpers/property.h>
#include <log4cplus/spi/loggingevent.h>

#include <tarv>

#include "TarvJournalLayout.h"

namespace {

std::string format(TarvJournalLayout& layout, log4cplus::LogLevel level, const std::string& message)
{
    const log4cplus::spi::InternalLoggingEvent event("Probe", level, message, "Probe.cpp", 12, "run");
    std::ostringstream out;
    layout.formatAndAppend(out, event);
    return out.str();
}

// JOURNAL_STREAM as systemd sets it for a unit whose stderr is the journal,
// naming this process's stderr (or, `offset` off, some other stream).
QByteArray journalStreamOfStderr(int offset)
{
    struct stat status {};
    if (fstat(STDERR_FILENO, &status) != 0)
        return QByteArray();
    return QByteArray::number(qulonglong(status.st_dev)) + ':' + QByteArray::number(qulonglong(status.st_ino) + offset);
}

} // namespace

class tst_TarvJournalLayout : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { qunsetenv("JOURNAL_STREAM"); }

    void eachLevelGetsItsSyslogPriority_data()
    {
        QTest::addColumn<int>("level");
        QTest::addColumn<QString>("line");
        QTest::newRow("TRACE") << int(log4cplus::TRACE_LOG_LEVEL) << "<7>TRACE Probe [Probe.cpp:12] m\n";
        QTest::newRow("DEBUG") << int(log4cplus::DEBUG_LOG_LEVEL) << "<7>DEBUG Probe [Probe.cpp:12] m\n";
        QTest::newRow("INFO") << int(log4cplus::INFO_LOG_LEVEL) << "<6>INFO  Probe [Probe.cpp:12] m\n";
        QTest::newRow("WARN") << int(log4cplus::WARN_LOG_LEVEL) << "<4>WARN  Probe [Probe.cpp:12] m\n";
        QTest::newRow("ERROR") << int(log4cplus::ERROR_LOG_LEVEL) << "<3>ERROR Probe [Probe.cpp:12] m\n";
        QTest::newRow("FATAL") << int(log4cplus::FATAL_LOG_LEVEL) << "<2>FATAL Probe [Probe.cpp:12] m\n";
    }
    void eachLevelGetsItsSyslogPriority()
    {
        QFETCH(int, level);
        QFETCH(QString, line);
        TarvJournalLayout layout("%D{%Y} %-5p %c %m%n", "%-5p %c [%b:%L] %m%n", TarvJournalLayout::Journal::Yes);
        QVERIFY(layout.forJournal());
        QCOMPARE(QString::fromStdString(format(layout, level, "m")), line);
    }

    void outsideTheJournalLinesArePlainWithTheirDate()
    {
        TarvJournalLayout layout("%D{%Y} %-5p %c %m%n", "%-5p %c %m%n", TarvJournalLayout::Journal::No);
        QVERIFY(!layout.forJournal());
        const QString line = QString::fromStdString(format(layout, log4cplus::ERROR_LOG_LEVEL, "m"));
        QVERIFY2(QRegularExpression(QStringLiteral("^\\d{4} ERROR Probe m\n$")).match(line).hasMatch(), qPrintable(line));
    }

    void journalIsDetectedFromJournalStream_data()
    {
        QTest::addColumn<QByteArray>("journalStream");
        QTest::addColumn<bool>("detected");
        QTest::newRow("unset") << QByteArray() << false;
        QTest::newRow("this stderr") << journalStreamOfStderr(0) << true;
        QTest::newRow("another stream (stderr redirected)") << journalStreamOfStderr(1) << false;
        QTest::newRow("garbage") << QByteArray("journal") << false;
        QTest::newRow("trailing garbage") << journalStreamOfStderr(0) + "x" << false;
    }
    void journalIsDetectedFromJournalStream()
    {
        QFETCH(QByteArray, journalStream);
        QFETCH(bool, detected);
        if (!journalStream.isEmpty())
            qputenv("JOURNAL_STREAM", journalStream);
        QCOMPARE(TarvJournalLayout::stderrIsJournal(), detected);
        TarvJournalLayout layout("%D{%Y} %-5p %m%n", "%-5p %m%n");
        QCOMPARE(layout.forJournal(), detected);
        QCOMPARE(QString::fromStdString(format(layout, log4cplus::ERROR_LOG_LEVEL, "m")).startsWith(QLatin1String("<3>ERROR m")),
                 detected);
    }

    void propertiesChooseThePatternsAndTheJournal()
    {
        log4cplus::helpers::Properties properties;
        properties.setProperty("ConversionPattern", "%D{%Y} %p %m%n");
        properties.setProperty("JournalConversionPattern", "%p %m%n");
        properties.setProperty("Journal", "true");
        TarvJournalLayout journal(properties);
        QCOMPARE(QString::fromStdString(format(journal, log4cplus::WARN_LOG_LEVEL, "m")), QStringLiteral("<4>WARN m\n"));
        properties.setProperty("Journal", "false");
        TarvJournalLayout plain(properties);
        QVERIFY(!plain.forJournal());
        // Auto (the default) follows JOURNAL_STREAM.
        properties.removeProperty("Journal");
        qputenv("JOURNAL_STREAM", journalStreamOfStderr(0));
        QVERIFY(TarvJournalLayout(properties).forJournal());
    }

    void defaultAndInstalledConfigurationsWriteForTheJournalUnderSystemd_data()
    {
        QTest::addColumn<QString>("propertiesFile");
        QTest::newRow("default") << QString();
        QTest::newRow("installed") << QStringLiteral(TARV_SOURCE_DIR "/packaging/log4cplus.properties");
    }
    void defaultAndInstalledConfigurationsWriteForTheJournalUnderSystemd()
    {
        QFETCH(QString, propertiesFile);
        qputenv("JOURNAL_STREAM", journalStreamOfStderr(0));
        QVERIFY(TarvLog::init(propertiesFile));
        const log4cplus::SharedAppenderPtrList appenders = log4cplus::Logger::getRoot().getAllAppenders();
        QCOMPARE(int(appenders.size()), 1);
        auto* layout = dynamic_cast<TarvJournalLayout*>(appenders.front()->getLayout());
        QVERIFY(layout);
        QVERIFY(layout->forJournal());
        // No date: the journal stamps each line itself.
        QCOMPARE(QString::fromStdString(format(*layout, log4cplus::ERROR_LOG_LEVEL, "m")),
                 QStringLiteral("<3>ERROR Probe [Probe.cpp:12 run] m\n"));
        qunsetenv("JOURNAL_STREAM");
        QVERIFY(TarvLog::init(propertiesFile));
        layout = dynamic_cast<TarvJournalLayout*>(log4cplus::Logger::getRoot().getAllAppenders().front()->getLayout());
        QVERIFY(layout);
        QVERIFY(!layout->forJournal());
        TarvLog::init();
    }
};

QTEST_GUILESS_MAIN(tst_TarvJournalLayout)
#include "tst_TarvJournalLayout.moc"
