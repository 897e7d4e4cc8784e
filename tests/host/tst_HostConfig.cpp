#include <unistd.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHostInfo>
#include <QTemporaryDir>
#include <QtTest>

#include "HostConfig.h"

class tst_HostConfig : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;

    QString writeFile(const QString& name, const QByteArray& contents)
    {
        const QString path = m_dir.filePath(name);
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            qFatal("cannot write %s", qPrintable(path));
        file.write(contents);
        return path;
    }

    static QStringList args(const QStringList& rest) { return QStringList{QStringLiteral("tarv-host")} + rest; }

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_dir.isValid()); }

    void noArgumentsGiveTheDefaults()
    {
        HostConfig config;
        QString error;
        QVERIFY2(config.parse(args({}), &error), qPrintable(error));
        QVERIFY(!config.helpRequested());
        QVERIFY(config.modules().isEmpty());
        QVERIFY(config.id().isEmpty());
        QCOMPARE(config.hostName(), QHostInfo::localHostName());
        QCOMPARE(config.address(), QHostAddress(QHostAddress::AnyIPv4));
        QCOMPARE(config.apiAddress(), QHostAddress(QStringLiteral("127.0.0.1")));
        QCOMPARE(config.apiPort(), quint16(8080));
        QCOMPARE(config.requestPort(), quint16(41230));
        QCOMPARE(config.resendMs(), 1000);
        QCOMPARE(config.timeoutMs(), 5000);
        QCOMPARE(config.discoveryMs(), 1000);
        QCOMPARE(config.discoveryGroup(), QHostAddress(QStringLiteral("239.255.77.77")));
        QCOMPARE(config.discoveryPort(), quint16(41231));
        QCOMPARE(config.dataDir(), HostConfig::defaultDataDir());
        QVERIFY(config.logConfig().isEmpty());
        QCOMPARE(config.origin(QStringLiteral("name")), HostConfig::Origin::Default);
    }

    void defaultDataDirDependsOnTheUser()
    {
        if (::geteuid() == 0)
            QCOMPARE(HostConfig::defaultDataDir(), QStringLiteral("/var/lib/tarv-host"));
        else
            QVERIFY(HostConfig::defaultDataDir().endsWith(QStringLiteral("/tarv-host")));
    }

    void everyOptionIsParsed()
    {
        const QString logConfig = writeFile(QStringLiteral("log.properties"), "log4cplus.rootLogger=INFO\n");
        HostConfig config;
        QString error;
        QVERIFY2(config.parse(args({"--module", "/m/a.so", "--module", "b.so", "--id", "dev-1", "--name", "Kitchen",
                                    "--host-name", "10.0.0.5", "--address", "127.0.0.1", "--data-dir", "/tmp/x/",
                                    "--api", "127.0.0.1:0", "--request-port", "45000", "--resend-ms", "200",
                                    "--timeout-ms", "900", "--discovery-ms", "100", "--discovery-group",
                                    "239.1.2.3:5000", "--log-config", logConfig}),
                              &error),
                 qPrintable(error));
        QCOMPARE(config.modules(),
                 QStringList({QStringLiteral("/m/a.so"), QDir::current().absoluteFilePath(QStringLiteral("b.so"))}));
        QCOMPARE(config.id(), QStringLiteral("dev-1"));
        QCOMPARE(config.name(), QStringLiteral("Kitchen"));
        QCOMPARE(config.hostName(), QStringLiteral("10.0.0.5"));
        QCOMPARE(config.address(), QHostAddress(QStringLiteral("127.0.0.1")));
        QCOMPARE(config.announcedIpAddress(), QStringLiteral("127.0.0.1"));
        QCOMPARE(config.dataDir(), QStringLiteral("/tmp/x"));
        QCOMPARE(config.apiPort(), quint16(0));
        QCOMPARE(config.requestPort(), quint16(45000));
        QCOMPARE(config.resendMs(), 200);
        QCOMPARE(config.timeoutMs(), 900);
        QCOMPARE(config.discoveryMs(), 100);
        QCOMPARE(config.discoveryGroup(), QHostAddress(QStringLiteral("239.1.2.3")));
        QCOMPARE(config.discoveryPort(), quint16(5000));
        QCOMPARE(config.logConfig(), logConfig);
        QCOMPARE(config.origin(QStringLiteral("name")), HostConfig::Origin::CommandLine);
        QCOMPARE(config.origin(QStringLiteral("resend-ms")), HostConfig::Origin::CommandLine);
    }

    void ipv6ApiAddressIsAccepted()
    {
        HostConfig config;
        QString error;
        QVERIFY2(config.parse(args({"--api", "[::1]:9090"}), &error), qPrintable(error));
        QCOMPARE(config.apiAddress(), QHostAddress(QStringLiteral("::1")));
        QCOMPARE(config.apiPort(), quint16(9090));
    }

    void helpIsRecognisedAndListsEveryOption()
    {
        HostConfig config;
        QString error;
        QVERIFY(config.parse(args({"--help"}), &error));
        QVERIFY(config.helpRequested());
        const QString help = HostConfig::helpText();
        for (const char* option : {"--module", "--config", "--id", "--name", "--host-name", "--address", "--data-dir",
                                   "--api", "--request-port", "--resend-ms", "--timeout-ms", "--discovery-ms",
                                   "--discovery-group", "--log-config", "--log-level", "--help", "--version"})
            QVERIFY2(help.contains(QLatin1String(option)), option);
    }

    void logLevelIsReadInAnyCase()
    {
        HostConfig config;
        QString error;
        QCOMPARE(config.logLevel(), log4cplus::NOT_SET_LOG_LEVEL);
        QVERIFY2(config.parse(args({"--log-level", "debug"}), &error), qPrintable(error));
        QCOMPARE(config.logLevel(), log4cplus::DEBUG_LOG_LEVEL);
    }

    void versionIsRecognised()
    {
        HostConfig config;
        QString error;
        QVERIFY(config.parse(args({"--version"}), &error));
        QVERIFY(config.versionRequested());
        QVERIFY(!config.helpRequested());
    }

    void configFileGivesValuesAndTheCommandLineWins()
    {
        const QString file = writeFile(QStringLiteral("host.json"), R"({
            "module": ["mods/one.so", "/abs/two.so"],
            "name": "From file",
            "resend-ms": 300,
            "timeout-ms": "700",
            "data-dir": "data",
            "api": "127.0.0.1:0",
            "module-settings": {"colour": "blue"}
        })");
        HostConfig config;
        QString error;
        QVERIFY2(config.parse(args({"--config", file, "--name", "From flag"}), &error), qPrintable(error));
        QCOMPARE(config.configFile(), file);
        // Relative paths in the file are relative to the file.
        QCOMPARE(config.modules(), QStringList({m_dir.filePath(QStringLiteral("mods/one.so")), QStringLiteral("/abs/two.so")}));
        QCOMPARE(config.dataDir(), m_dir.filePath(QStringLiteral("data")));
        QCOMPARE(config.name(), QStringLiteral("From flag"));
        QCOMPARE(config.origin(QStringLiteral("name")), HostConfig::Origin::CommandLine);
        QCOMPARE(config.resendMs(), 300);
        QCOMPARE(config.origin(QStringLiteral("resend-ms")), HostConfig::Origin::ConfigFile);
        QCOMPARE(config.timeoutMs(), 700);
        QCOMPARE(config.apiPort(), quint16(0));
        QCOMPARE(config.moduleSettings().value(QStringLiteral("colour")).toString(), QStringLiteral("blue"));
    }

    void modulesOnTheCommandLineReplaceTheConfigFiles()
    {
        const QString file = writeFile(QStringLiteral("mods.json"), R"({"module": "/file/one.so"})");
        HostConfig config;
        QString error;
        QVERIFY2(config.parse(args({"--config", file, "--module", "/flag/two.so"}), &error), qPrintable(error));
        QCOMPARE(config.modules(), QStringList{QStringLiteral("/flag/two.so")});
    }

    void modulesInListsTheSharedObjectsByName()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        for (const char* name : {"zeta.so", "alpha.so", "notes.txt", "beta.so.1"})
            QVERIFY(QFile(dir.filePath(QLatin1String(name))).open(QIODevice::WriteOnly));
        QVERIFY(QDir(dir.path()).mkdir(QStringLiteral("folder.so")));
        QCOMPARE(HostConfig::modulesIn(dir.path()),
                 QStringList({dir.filePath(QStringLiteral("alpha.so")), dir.filePath(QStringLiteral("zeta.so"))}));
        QCOMPARE(HostConfig::modulesIn(dir.filePath(QStringLiteral("missing"))), QStringList());
    }

    void theModuleFolderIsNextToTheProgramsFolder()
    {
        const QString expected = QDir::cleanPath(QCoreApplication::applicationDirPath()
                                                 + QStringLiteral("/../lib/%1/tarv/modules").arg(QStringLiteral(TARV_TEST_LIBRARY_ARCHITECTURE)));
        QCOMPARE(HostConfig::defaultModuleDir(), expected);
        QVERIFY(HostConfig::helpText().contains(expected));
    }

    void withoutAModuleListEveryModuleInTheFolderLoads_data()
    {
        QTest::addColumn<QByteArray>("configFile");
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QStringList>("expected");
        const QStringList folder{QStringLiteral("a.so"), QStringLiteral("b.so")};
        QTest::newRow("nothing given") << QByteArray() << QStringList() << folder;
        QTest::newRow("config file without module") << QByteArray(R"({"name": "x"})") << QStringList() << folder;
        QTest::newRow("config file's empty list") << QByteArray(R"({"module": []})") << QStringList() << QStringList();
        QTest::newRow("config file's list") << QByteArray(R"({"module": "/file/one.so"})") << QStringList()
                                            << QStringList{QStringLiteral("/file/one.so")};
        QTest::newRow("command line") << QByteArray() << QStringList{QStringLiteral("--module"), QStringLiteral("/flag/two.so")}
                                      << QStringList{QStringLiteral("/flag/two.so")};
    }

    void withoutAModuleListEveryModuleInTheFolderLoads()
    {
        QFETCH(QByteArray, configFile);
        QFETCH(QStringList, arguments);
        QFETCH(QStringList, expected);
        // The folder an installed host would have, made next to this test's
        // folder in the build tree for the time of the test.
        const QString folder = HostConfig::defaultModuleDir();
        QString topMade = folder;
        for (QString dir = folder; !QFileInfo::exists(dir); dir = QFileInfo(dir).path())
            topMade = dir;
        QVERIFY2(!QFileInfo::exists(folder), qPrintable(folder + QStringLiteral(" exists already")));
        struct Remove
        {
            QString dir;
            ~Remove() { QDir(dir).removeRecursively(); }
        } remove{topMade};
        QVERIFY(QDir().mkpath(folder));
        for (const char* name : {"b.so", "a.so"})
            QVERIFY(QFile(QDir(folder).filePath(QLatin1String(name))).open(QIODevice::WriteOnly));

        if (!configFile.isEmpty())
            arguments << QStringLiteral("--config") << writeFile(QStringLiteral("modules.json"), configFile);
        HostConfig config;
        QString error;
        QVERIFY2(config.parse(args(arguments), &error), qPrintable(error));
        for (QString& module : expected) {
            if (!module.startsWith(QLatin1Char('/')))
                module = QDir(folder).filePath(module);
        }
        QCOMPARE(config.modules(), expected);
    }

    void badInputIsAClearError_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("expected");
        QTest::newRow("unknown option") << QStringList{"--colour", "red"} << "Unknown option 'colour'.";
        QTest::newRow("missing value") << QStringList{"--id"} << "Missing value after '--id'.";
        QTest::newRow("stray argument") << QStringList{"extra"} << "unexpected argument 'extra' (options start with --)";
        QTest::newRow("port not a number")
            << QStringList{"--request-port", "abc"} << "--request-port: 'abc' is not a port number (1-65535)";
        QTest::newRow("port too large")
            << QStringList{"--request-port", "70000"} << "--request-port: '70000' is not a port number (1-65535)";
        QTest::newRow("port zero") << QStringList{"--request-port", "0"}
                                   << "--request-port: '0' is not a port number (1-65535)";
        QTest::newRow("negative ms")
            << QStringList{"--resend-ms", "-5"}
            << "--resend-ms: '-5' is not a whole number of milliseconds from 1 to 3600000";
        QTest::newRow("fraction ms")
            << QStringList{"--timeout-ms", "1.5"}
            << "--timeout-ms: '1.5' is not a whole number of milliseconds from 1 to 3600000";
        QTest::newRow("discovery too fast")
            << QStringList{"--discovery-ms", "5"}
            << "--discovery-ms: '5' is not a whole number of milliseconds from 10 to 3600000";
        QTest::newRow("api without port")
            << QStringList{"--api", "127.0.0.1"}
            << "--api: '127.0.0.1' is not ADDR:PORT with an IP address and a port from 0 to 65535";
        QTest::newRow("api host name")
            << QStringList{"--api", "localhost:80"}
            << "--api: 'localhost:80' is not ADDR:PORT with an IP address and a port from 0 to 65535";
        QTest::newRow("group not multicast")
            << QStringList{"--discovery-group", "10.0.0.1:5000"}
            << "--discovery-group: '10.0.0.1:5000' is not ADDR:PORT with an IPv4 multicast address (224.0.0.0/4) "
               "and a port from 1 to 65535";
        QTest::newRow("address not IPv4")
            << QStringList{"--address", "::1"} << "--address: '::1' is not an IPv4 address";
        QTest::newRow("empty name") << QStringList{"--name", " "} << "--name: ' ': a device name must not be empty";
        QTest::newRow("bad id")
            << QStringList{"--id", "has space"}
            << "--id: 'has space': a device id consists of letters, digits and . _ : - and starts with a letter or "
               "digit";
        QTest::newRow("twice") << QStringList{"--id", "a", "--id", "b"} << "--id given more than once";
        QTest::newRow("missing log config")
            << QStringList{"--log-config", "/nonexistent/log.properties"}
            << "--log-config: cannot read /nonexistent/log.properties: No such file or directory";
        QTest::newRow("unknown log level")
            << QStringList{"--log-level", "LOUD"}
            << "--log-level: 'LOUD' is not a level (TRACE, DEBUG, INFO, WARN, ERROR, FATAL or OFF)";
        QTest::newRow("missing config file")
            << QStringList{"--config", "/nonexistent/host.json"}
            << "cannot read config file /nonexistent/host.json: No such file or directory";
    }

    void badInputIsAClearError()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, expected);
        HostConfig config;
        QString error;
        QVERIFY(!config.parse(args(arguments), &error));
        QCOMPARE(error, expected);
    }

    void badConfigFileIsAClearError_data()
    {
        QTest::addColumn<QByteArray>("contents");
        QTest::addColumn<QString>("expected");
        QTest::newRow("not json") << QByteArray("{\"name\": ") << "is not valid JSON (at byte 9: unterminated object)";
        QTest::newRow("not an object") << QByteArray("[1]") << "must hold one JSON object";
        QTest::newRow("unknown key") << QByteArray(R"({"colour": "red"})") << "\"colour\": unknown key";
        QTest::newRow("config inside config") << QByteArray(R"({"config": "x.json"})") << "\"config\": unknown key";
        QTest::newRow("wrong type") << QByteArray(R"({"name": true})") << "\"name\": must be a text or a number";
        QTest::newRow("fraction") << QByteArray(R"({"resend-ms": 1.5})") << "\"resend-ms\": must be a whole number";
        QTest::newRow("bad value")
            << QByteArray(R"({"request-port": 0})") << "\"request-port\": '0' is not a port number (1-65535)";
        QTest::newRow("module list of numbers")
            << QByteArray(R"({"module": [1]})") << "\"module\": must be a list of texts";
        QTest::newRow("module settings not object")
            << QByteArray(R"({"module-settings": 1})") << "\"module-settings\": must be an object";
    }

    void badConfigFileIsAClearError()
    {
        QFETCH(QByteArray, contents);
        QFETCH(QString, expected);
        const QString file = writeFile(QStringLiteral("bad.json"), contents);
        HostConfig config;
        QString error;
        QVERIFY(!config.parse(args({"--config", file}), &error));
        QVERIFY2(error.startsWith(QStringLiteral("config file ") + file), qPrintable(error));
        QVERIFY2(error.endsWith(expected), qPrintable(error));
    }
};

QTEST_GUILESS_MAIN(tst_HostConfig)
#include "tst_HostConfig.moc"
