#include <csignal>
#include <memory>

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QUrl>
#include <QtTest>

#include <httplib.h>

#include "HostProcess.h"

// The real tarv-host binary, started and stopped as scripts do.
class tst_TarvHost : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_work;

    // A host of its own under the test's directory (`name` tells hosts of
    // one test apart); no module unless given.
    std::unique_ptr<HostProcess> makeHost(const QString& name, const QString& module = QString())
    {
        const QString directory = m_work.filePath(QTest::currentTestFunction() + QLatin1Char('-') + name);
        QDir().mkpath(directory);
        return std::make_unique<HostProcess>(QStringLiteral(TARV_HOST_BINARY), module, directory);
    }

    static QJsonObject get(const HostProcess& host, const std::string& target, int* status = nullptr)
    {
        httplib::Client client("127.0.0.1", host.apiPort());
        client.set_read_timeout(5);
        auto result = client.Get(target.c_str());
        if (status)
            *status = result ? result->status : -1;
        return result ? QJsonDocument::fromJson(QByteArray::fromStdString(result->body)).object() : QJsonObject();
    }

    static int put(const HostProcess& host, const std::string& target, const std::string& body)
    {
        httplib::Client client("127.0.0.1", host.apiPort());
        client.set_read_timeout(5);
        auto result = client.Put(target.c_str(), body, "application/json");
        return result ? result->status : -1;
    }

    static std::string valueOf(const char* path)
    {
        return std::string("/api/v1/value?path=") + QUrl::toPercentEncoding(QString::fromUtf8(path)).toStdString();
    }

    // Runs the binary to its end and gives (exit code, stdout, stderr).
    static std::tuple<int, QString, QString> run(const QStringList& arguments)
    {
        QProcess process;
        process.start(QStringLiteral(TARV_HOST_BINARY), arguments);
        if (!process.waitForFinished(10000))
            return {-1, QString(), QString()};
        return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
                QString::fromUtf8(process.readAllStandardOutput()), QString::fromUtf8(process.readAllStandardError())};
    }

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_work.isValid()); }

    void helpListsTheOptionsAndExitsCleanly()
    {
        const auto [code, out, err] = run({"--help"});
        QCOMPARE(code, 0);
        QVERIFY(out.startsWith("Usage: tarv-host [options]\n"));
        QVERIFY(out.contains("--discovery-group ADDR:PORT"));
        QVERIFY(err.isEmpty());
    }

    void versionPrintsTheVersionAndExitsCleanly()
    {
        const auto [code, out, err] = run({"--version"});
        QCOMPARE(code, 0);
        QCOMPARE(out, QStringLiteral("tarv-host %1\n").arg(QStringLiteral(TARV_HOST_VERSION)));
        QVERIFY(err.isEmpty());
    }

    void aBadOptionIsAClearErrorWithExitCodeTwo()
    {
        const auto [code, out, err] = run({"--request-port", "abc"});
        QCOMPARE(code, 2);
        QCOMPARE(err, QStringLiteral("tarv-host: --request-port: 'abc' is not a port number (1-65535)\n"
                                     "Try 'tarv-host --help'.\n"));
        QVERIFY(out.isEmpty());
    }

    void aLogConfigWithoutAValidRootLevelIsAClearError()
    {
        const auto host = makeHost(QStringLiteral("a"));
        const QString file = m_work.filePath(QStringLiteral("bad-level.properties"));
        {
            QFile out(file);
            QVERIFY(out.open(QIODevice::WriteOnly));
            out.write("log4cplus.rootLogger=LOUD, STDERR\n"
                      "log4cplus.appender.STDERR=log4cplus::ConsoleAppender\n");
        }
        const auto [code, out, err] = run(host->arguments({"--log-config", file}));
        QCOMPARE(code, 2);
        QVERIFY2(err.endsWith(QStringLiteral("tarv-host: --log-config: %1 gives the root logger no valid level (e.g. "
                                             "log4cplus.rootLogger=INFO, STDERR)\nTry 'tarv-host --help'.\n")
                                  .arg(file)),
                 qPrintable(err));
        QVERIFY(!err.contains("tarv-host ready"));
    }

    void aModuleThatCannotLoadStopsTheHostNamingFileAndReason()
    {
        const auto host = makeHost(QStringLiteral("a"), QStringLiteral("/nonexistent/libgone.so"));
        const auto [code, out, err] = run(host->arguments());
        QCOMPARE(code, 1);
        QVERIFY2(err.endsWith(QStringLiteral("tarv-host: cannot load module /nonexistent/libgone.so: cannot open shared "
                                             "object file: No such file or directory\n")),
                 qPrintable(err));
        QVERIFY(!err.contains("tarv-host ready"));
    }

    void aSettingWrittenThroughTheApiSurvivesARestart()
    {
        const auto host = makeHost(QStringLiteral("a"), QStringLiteral(TARV_TEST_GROUPING_MODULE));
        QString error;
        QVERIFY2(host->start({"--discovery-ms", "100"}, &error), qPrintable(error));
        const QString firstId = host->id();
        QVERIFY(!firstId.isEmpty());

        // The module is in the tree.
        bool found = false;
        for (const QJsonValue& node : get(*host, "/api/v1/tree").value("nodes").toArray()) {
            if (node.toObject().value("path").toString() == QLatin1String("/modules/simpleGrouping")) {
                QCOMPARE(node.toObject().value("title").toString(), QStringLiteral("VopGrouping"));
                found = true;
            }
        }
        QVERIFY(found);

        QCOMPARE(put(*host, valueOf("/settings/device/name"), R"({"string_": "Survivor"})"), 200);
        QCOMPARE(put(*host, valueOf("/settings/streaming/stopTimeout"), R"({"i32_": 4321})"), 200);
        QVERIFY2(host->stop(SIGTERM), qPrintable(host->output()));
        QVERIFY2(host->output().contains("Received SIGTERM, shutting down"), qPrintable(host->output()));

        QVERIFY2(host->start({"--discovery-ms", "100"}, &error), qPrintable(error));
        QCOMPARE(host->id(), firstId);
        QCOMPARE(get(*host, valueOf("/settings/device/name")).value("value").toObject().value("string_").toString(),
                 QStringLiteral("Survivor"));
        QCOMPARE(get(*host, valueOf("/settings/streaming/stopTimeout")).value("value").toObject().value("i32_").toInt(), 4321);
        QCOMPARE(get(*host, valueOf("/system/member")).value("value").toObject().value("systemMember").toObject().value("name").toString(),
                 QStringLiteral("Survivor"));
        QCOMPARE(get(*host, "/api/v1/host").value("name").toString(), QStringLiteral("Survivor"));
        QVERIFY2(host->stop(SIGINT), qPrintable(host->output()));
        QVERIFY2(host->output().contains("Received SIGINT, shutting down"), qPrintable(host->output()));
    }

    void aNameOnTheCommandLineWinsOverThePersistedOne()
    {
        const auto host = makeHost(QStringLiteral("a"));
        QString error;
        QVERIFY2(host->start({}, &error), qPrintable(error));
        QCOMPARE(put(*host, valueOf("/settings/device/name"), R"({"string_": "Persisted"})"), 200);
        QVERIFY2(host->stop(), qPrintable(host->output()));
        QVERIFY2(host->start({"--name", "Flag"}, &error), qPrintable(error));
        QCOMPARE(get(*host, "/api/v1/host").value("name").toString(), QStringLiteral("Flag"));
        QVERIFY2(host->stop(), qPrintable(host->output()));
    }

    void twoHostsCannotShareADataDirectory()
    {
        const auto first = makeHost(QStringLiteral("a"));
        QString error;
        QVERIFY2(first->start({}, &error), qPrintable(error));
        const auto [code, out, err] = run(first->arguments());
        QCOMPARE(code, 1);
        QVERIFY2(err.endsWith(QStringLiteral("tarv-host: the data directory %1 is in use by another tarv-host (pid %2)\n")
                                  .arg(QDir::cleanPath(first->dataDirectory()))
                                  .arg(first->processId())),
                 qPrintable(err));
        QVERIFY2(first->stop(), qPrintable(first->output()));
    }

    void aTakenApiPortIsAClearError()
    {
        QTcpServer taken;
        QVERIFY(taken.listen(QHostAddress(QHostAddress::LocalHost), 0));
        const auto host = makeHost(QStringLiteral("a"));
        QStringList arguments = host->arguments();
        arguments[arguments.indexOf("127.0.0.1:0")] = QStringLiteral("127.0.0.1:%1").arg(taken.serverPort());
        const auto [code, out, err] = run(arguments);
        QCOMPARE(code, 1);
        QVERIFY2(err.endsWith(QStringLiteral("tarv-host: cannot listen on 127.0.0.1:%1 for the control API: Address "
                                             "already in use\n")
                                  .arg(taken.serverPort())),
                 qPrintable(err));
    }

    // A QTcpServer does not set SO_REUSEPORT; a second tarv-host would, and
    // with it both would listen and share the requests.
    void aSecondHostOnTheSameApiPortExitsAndTheFirstKeepsEveryRequest()
    {
        const auto first = makeHost(QStringLiteral("a"));
        QString error;
        QVERIFY2(first->start({}, &error), qPrintable(error));
        const auto second = makeHost(QStringLiteral("b"));
        QStringList arguments = second->arguments();
        arguments[arguments.indexOf("127.0.0.1:0")] = QStringLiteral("127.0.0.1:%1").arg(first->apiPort());
        const auto [code, out, err] = run(arguments);
        QCOMPARE(code, 1);
        QVERIFY2(err.endsWith(QStringLiteral("tarv-host: cannot listen on 127.0.0.1:%1 for the control API: Address "
                                             "already in use\n")
                                  .arg(first->apiPort())),
                 qPrintable(err));
        for (int i = 0; i < 8; ++i)
            QCOMPARE(get(*first, "/api/v1/host").value("id").toString(), first->id());
        QVERIFY2(first->stop(), qPrintable(first->output()));
    }

    // The module's listener cannot bind a taken port and says nothing, so
    // the host itself refuses to run with it, before any module is loaded.
    void aSecondHostOnTheSameRequestPortExitsNamingThePortAndTheWayOut()
    {
        const int requestPort = HostProcess::freeUdpPort();
        const auto first = makeHost(QStringLiteral("a"), QStringLiteral(TARV_TEST_GROUPING_MODULE));
        const auto second = makeHost(QStringLiteral("b"), QStringLiteral(TARV_TEST_GROUPING_MODULE));
        first->setRequestPort(requestPort);
        second->setRequestPort(requestPort);
        QString error;
        QVERIFY2(first->start({}, &error), qPrintable(error));
        const auto [code, out, err] = run(second->arguments());
        QCOMPARE(code, 1);
        QVERIFY2(err.endsWith(QStringLiteral("tarv-host: cannot bind the receiver-link port %1 (UDP): The bound address "
                                             "is already in use; it is most likely another tarv-host's: run one "
                                             "tarv-host per network namespace (scripts/lab runs several devices on "
                                             "one machine)\n")
                                  .arg(requestPort)),
                 qPrintable(err));
        QVERIFY2(!err.contains("Loaded module"), qPrintable(err));
        QVERIFY2(first->stop(), qPrintable(first->output()));
    }

    void logLinesCarryTheDate_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("default") << QStringList();
        QTest::newRow("shipped log.properties") << QStringList{"--log-config", TARV_SHIPPED_LOG_PROPERTIES};
    }

    // Date, time, level, logger, [file:line function], message: the form
    // the lab's log reader parses too.
    void logLinesCarryTheDate()
    {
        QFETCH(QStringList, arguments);
        const auto host = makeHost(QStringLiteral("a"));
        QString error;
        QVERIFY2(host->start(arguments, &error), qPrintable(error));
        const QRegularExpression line(QStringLiteral("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} INFO  "
                                                     "HostDaemon \\[HostDaemon\\.cpp:\\d+ [^\\]]+\\] Data directory "),
                                      QRegularExpression::MultilineOption);
        QVERIFY2(line.match(host->output()).hasMatch(), qPrintable(host->output()));
        QCOMPARE(host->output().count(QStringLiteral("tarv-host ready")), 1);
        QVERIFY2(host->stop(), qPrintable(host->output()));
    }

    void logLevelOverridesTheRootLevel()
    {
        const auto host = makeHost(QStringLiteral("a"));
        QString error;
        QVERIFY2(host->start({"--log-config", TARV_SHIPPED_LOG_PROPERTIES, "--log-level", "warn"}, &error),
                 qPrintable(error));
        QVERIFY2(!host->output().contains(QStringLiteral("Data directory")), qPrintable(host->output()));
        QCOMPARE(host->output().count(QStringLiteral("tarv-host ready")), 1);
        QVERIFY2(host->stop(), qPrintable(host->output()));
        QVERIFY2(host->start({"--log-level", "DEBUG"}, &error), qPrintable(error));
        QVERIFY2(host->output().contains(QStringLiteral("Data directory")), qPrintable(host->output()));
        QVERIFY2(host->stop(), qPrintable(host->output()));
    }

    void aCorruptSettingsFileIsSetAsideAndTheHostStarts()
    {
        const auto host = makeHost(QStringLiteral("a"));
        QVERIFY(QDir().mkpath(host->dataDirectory()));
        const QString settings = QDir(host->dataDirectory()).filePath("settings.json");
        {
            QFile file(settings);
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write("{\"format\": 1, \"values\": {\"/settings/device/name\": {\"string_\": \"Half");
        }
        QString error;
        QVERIFY2(host->start({}, &error), qPrintable(error));
        QVERIFY2(host->output().contains(QStringLiteral("Settings file %1 is unusable (it is not valid JSON").arg(settings)),
                 qPrintable(host->output()));
        QCOMPARE(QDir(host->dataDirectory()).entryList({"settings.json.corrupt-*"}).size(), 1);
        QVERIFY2(host->stop(), qPrintable(host->output()));
    }

    void twoHostsOnOneLoopbackFindEachOther()
    {
        const int discoveryPort = HostProcess::freeUdpPort();
        const auto a = makeHost(QStringLiteral("a"));
        const auto b = makeHost(QStringLiteral("b"));
        a->setDiscoveryPort(discoveryPort);
        b->setDiscoveryPort(discoveryPort);
        QString error;
        QVERIFY2(a->start({"--discovery-ms", "100", "--name", "A"}, &error), qPrintable(error));
        QVERIFY2(b->start({"--discovery-ms", "100", "--name", "B"}, &error), qPrintable(error));
        const auto names = [](const HostProcess& host) {
            QStringList result;
            for (const QJsonValue& row : get(host, "/api/v1/rows?path=/system/members").value("rows").toArray())
                result << row.toObject().value("title").toString();
            result.sort();
            return result;
        };
        QTRY_COMPARE_WITH_TIMEOUT(names(*a), QStringList({"A", "B"}), 5000);
        QTRY_COMPARE_WITH_TIMEOUT(names(*b), QStringList({"A", "B"}), 5000);
        // B leaves: A drops it after three silent periods.
        QVERIFY2(b->stop(), qPrintable(b->output()));
        QTRY_COMPARE_WITH_TIMEOUT(names(*a), QStringList({"A"}), 5000);
        QVERIFY2(a->stop(), qPrintable(a->output()));
    }
};

QTEST_GUILESS_MAIN(tst_TarvHost)
#include "tst_TarvHost.moc"
