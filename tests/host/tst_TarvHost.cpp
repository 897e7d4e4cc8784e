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
#include <QUdpSocket>
#include <QUrl>
#include <QtTest>

#include <httplib.h>

// The real tarv-host binary, started and stopped as scripts do.
class tst_TarvHost : public QObject
{
    Q_OBJECT

private:
    struct Host
    {
        ~Host()
        {
            // A failed test must not leave a host behind.
            if (process && process->state() != QProcess::NotRunning) {
                process->kill();
                process->waitForFinished(5000);
            }
        }

        std::unique_ptr<QProcess> process;
        QString url;
        QString id;
        quint16 port = 0;
        QString errors() const { return QString::fromUtf8(process->readAllStandardError()); }
    };

    quint16 m_discoveryPort = 0;
    quint16 m_requestPort = 0;

    static quint16 freeUdpPort()
    {
        QUdpSocket probe;
        probe.bind(QHostAddress(QHostAddress::LocalHost), 0);
        return probe.localPort();
    }

    QStringList loopbackArgs(const QString& dataDir, quint16 requestPort = 0) const
    {
        return {"--data-dir", dataDir, "--api", "127.0.0.1:0", "--address", "127.0.0.1", "--host-name", "127.0.0.1",
                "--request-port", QString::number(requestPort ? requestPort : m_requestPort), "--discovery-ms", "100",
                "--discovery-group",
                QStringLiteral("239.255.77.79:%1").arg(m_discoveryPort)};
    }

    // Starts the host and waits for its ready line; the process's stderr is
    // kept in `log`.
    static bool start(Host& host, const QStringList& arguments, QString* log)
    {
        host.process = std::make_unique<QProcess>();
        host.process->setProgram(QStringLiteral(TARV_HOST_BINARY));
        host.process->setArguments(arguments);
        host.process->start();
        if (!host.process->waitForStarted(5000))
            return false;
        static const QRegularExpression ready(QStringLiteral("tarv-host ready: api (http://127\\.0\\.0\\.1:(\\d+)) id (\\S+)\\n"));
        QDeadlineTimer deadline(10000);
        QString text;
        while (!deadline.hasExpired()) {
            host.process->waitForReadyRead(100);
            const QString more = QString::fromUtf8(host.process->readAllStandardError());
            text += more;
            *log += more;
            const QRegularExpressionMatch match = ready.match(text);
            if (match.hasMatch()) {
                host.url = match.captured(1);
                host.port = static_cast<quint16>(match.captured(2).toUInt());
                host.id = match.captured(3);
                return true;
            }
            if (host.process->state() == QProcess::NotRunning)
                return false;
        }
        return false;
    }

    // Signals the host and waits for it to end; its remaining stderr goes to `log`.
    static bool stop(Host& host, int signalNumber, QString* log)
    {
        ::kill(static_cast<pid_t>(host.process->processId()), signalNumber);
        const bool finished = host.process->waitForFinished(5000);
        *log += QString::fromUtf8(host.process->readAllStandardError());
        return finished;
    }

    static QJsonObject get(const Host& host, const std::string& target, int* status = nullptr)
    {
        httplib::Client client("127.0.0.1", host.port);
        client.set_read_timeout(5);
        auto result = client.Get(target.c_str());
        if (status)
            *status = result ? result->status : -1;
        return result ? QJsonDocument::fromJson(QByteArray::fromStdString(result->body)).object() : QJsonObject();
    }

    static int put(const Host& host, const std::string& target, const std::string& body)
    {
        httplib::Client client("127.0.0.1", host.port);
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
    void init()
    {
        m_discoveryPort = freeUdpPort();
        m_requestPort = freeUdpPort();
    }

    void helpListsTheOptionsAndExitsCleanly()
    {
        const auto [code, out, err] = run({"--help"});
        QCOMPARE(code, 0);
        QVERIFY(out.startsWith("Usage: tarv-host [options]\n"));
        QVERIFY(out.contains("--discovery-group ADDR:PORT"));
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

    void aModuleThatCannotLoadStopsTheHostNamingFileAndReason()
    {
        QTemporaryDir dir;
        const auto [code, out, err] = run(loopbackArgs(dir.path()) + QStringList{"--module", "/nonexistent/libgone.so"});
        QCOMPARE(code, 1);
        QVERIFY2(err.endsWith(QStringLiteral("tarv-host: cannot load module /nonexistent/libgone.so: cannot open shared "
                                             "object file: No such file or directory\n")),
                 qPrintable(err));
        QVERIFY(!err.contains("tarv-host ready"));
    }

    void aSettingWrittenThroughTheApiSurvivesARestart()
    {
        QTemporaryDir dir;
        const QStringList arguments = loopbackArgs(dir.path()) + QStringList{"--module", TARV_TEST_GROUPING_MODULE};
        QString log;
        Host first;
        QVERIFY2(start(first, arguments, &log), qPrintable(log));
        QVERIFY(!first.id.isEmpty());

        // The module is in the tree.
        bool found = false;
        for (const QJsonValue& node : get(first, "/api/v1/tree").value("nodes").toArray()) {
            if (node.toObject().value("path").toString() == QLatin1String("/modules/simpleGrouping")) {
                QCOMPARE(node.toObject().value("title").toString(), QStringLiteral("VopGrouping"));
                found = true;
            }
        }
        QVERIFY(found);

        QCOMPARE(put(first, valueOf("/settings/device/name"), R"({"string_": "Survivor"})"), 200);
        QCOMPARE(put(first, valueOf("/settings/streaming/stopTimeout"), R"({"i32_": 4321})"), 200);
        QVERIFY(stop(first, SIGTERM, &log));
        QCOMPARE(first.process->exitStatus(), QProcess::NormalExit);
        QCOMPARE(first.process->exitCode(), 0);
        QVERIFY2(log.contains("Received SIGTERM, shutting down"), qPrintable(log));

        log.clear();
        Host second;
        QVERIFY2(start(second, arguments, &log), qPrintable(log));
        QCOMPARE(second.id, first.id);
        QCOMPARE(get(second, valueOf("/settings/device/name")).value("value").toObject().value("string_").toString(),
                 QStringLiteral("Survivor"));
        QCOMPARE(get(second, valueOf("/settings/streaming/stopTimeout")).value("value").toObject().value("i32_").toInt(), 4321);
        QCOMPARE(get(second, valueOf("/system/member")).value("value").toObject().value("systemMember").toObject().value("name").toString(),
                 QStringLiteral("Survivor"));
        QCOMPARE(get(second, "/api/v1/host").value("name").toString(), QStringLiteral("Survivor"));
        QVERIFY(stop(second, SIGINT, &log));
        QCOMPARE(second.process->exitCode(), 0);
        QVERIFY2(log.contains("Received SIGINT, shutting down"), qPrintable(log));
    }

    void aNameOnTheCommandLineWinsOverThePersistedOne()
    {
        QTemporaryDir dir;
        QString log;
        Host first;
        QVERIFY2(start(first, loopbackArgs(dir.path()), &log), qPrintable(log));
        QCOMPARE(put(first, valueOf("/settings/device/name"), R"({"string_": "Persisted"})"), 200);
        QVERIFY(stop(first, SIGTERM, &log));
        Host second;
        QVERIFY2(start(second, loopbackArgs(dir.path()) + QStringList{"--name", "Flag"}, &log), qPrintable(log));
        QCOMPARE(get(second, "/api/v1/host").value("name").toString(), QStringLiteral("Flag"));
        QVERIFY(stop(second, SIGTERM, &log));
    }

    void twoHostsCannotShareADataDirectory()
    {
        QTemporaryDir dir;
        QString log;
        Host first;
        QVERIFY2(start(first, loopbackArgs(dir.path()), &log), qPrintable(log));
        const auto [code, out, err] = run(loopbackArgs(dir.path()));
        QCOMPARE(code, 1);
        QVERIFY2(err.endsWith(QStringLiteral("tarv-host: the data directory %1 is in use by another tarv-host (pid %2)\n")
                                  .arg(QDir::cleanPath(dir.path()))
                                  .arg(first.process->processId())),
                 qPrintable(err));
        QVERIFY(stop(first, SIGTERM, &log));
    }

    void aTakenApiPortIsAClearError()
    {
        QTcpServer taken;
        QVERIFY(taken.listen(QHostAddress(QHostAddress::LocalHost), 0));
        QTemporaryDir dir;
        QStringList arguments = loopbackArgs(dir.path());
        arguments[arguments.indexOf("127.0.0.1:0")] = QStringLiteral("127.0.0.1:%1").arg(taken.serverPort());
        const auto [code, out, err] = run(arguments);
        QCOMPARE(code, 1);
        QVERIFY2(err.endsWith(QStringLiteral("tarv-host: cannot listen on 127.0.0.1:%1 for the control API: Address "
                                             "already in use\n")
                                  .arg(taken.serverPort())),
                 qPrintable(err));
    }

    void aCorruptSettingsFileIsSetAsideAndTheHostStarts()
    {
        QTemporaryDir dir;
        {
            QFile file(dir.filePath("settings.json"));
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write("{\"format\": 1, \"values\": {\"/settings/device/name\": {\"string_\": \"Half");
        }
        QString log;
        Host host;
        QVERIFY2(start(host, loopbackArgs(dir.path()), &log), qPrintable(log));
        QVERIFY2(log.contains(QStringLiteral("Settings file %1 is unusable (it is not valid JSON")
                                  .arg(dir.filePath("settings.json"))),
                 qPrintable(log));
        QCOMPARE(QDir(dir.path()).entryList({"settings.json.corrupt-*"}).size(), 1);
        QVERIFY(stop(host, SIGTERM, &log));
        QCOMPARE(host.process->exitCode(), 0);
    }

    void twoHostsOnOneLoopbackFindEachOther()
    {
        QTemporaryDir dirA;
        QTemporaryDir dirB;
        QString log;
        Host a;
        Host b;
        QVERIFY2(start(a, loopbackArgs(dirA.path()) + QStringList{"--name", "A"}, &log), qPrintable(log));
        QVERIFY2(start(b, loopbackArgs(dirB.path(), freeUdpPort()) + QStringList{"--name", "B"}, &log),
                 qPrintable(log));
        const auto names = [](const Host& host) {
            QStringList result;
            for (const QJsonValue& row : get(host, "/api/v1/rows?path=/system/members").value("rows").toArray())
                result << row.toObject().value("title").toString();
            result.sort();
            return result;
        };
        QTRY_COMPARE_WITH_TIMEOUT(names(a), QStringList({"A", "B"}), 5000);
        QTRY_COMPARE_WITH_TIMEOUT(names(b), QStringList({"A", "B"}), 5000);
        // B leaves: A drops it after three silent periods.
        QVERIFY(stop(b, SIGTERM, &log));
        QTRY_COMPARE_WITH_TIMEOUT(names(a), QStringList({"A"}), 5000);
        QVERIFY(stop(a, SIGTERM, &log));
    }
};

QTEST_GUILESS_MAIN(tst_TarvHost)
#include "tst_TarvHost.moc"
