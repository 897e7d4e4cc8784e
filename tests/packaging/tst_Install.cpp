// The install rules as integrators use them: `cmake --install` under a prefix
// of their own, and staged with DESTDIR under /usr for a device image; then a
// module built elsewhere against the installed headers and CMake package,
// installed into the module folder and loaded by the installed host.

#include <csignal>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include "Command.h"
#include "HostProcess.h"
#include "InstalledRoot.h"

namespace {

const QString architecture = QStringLiteral(TARV_LIBRARY_ARCHITECTURE);

} // namespace

class tst_Install : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_work;

    QString prefixDir() const { return m_work.filePath(QStringLiteral("prefix")); }
    QString stageDir() const { return m_work.filePath(QStringLiteral("stage")); }

    static Command::Result install(const QString& prefix, const QString& destDir)
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.remove(QStringLiteral("DESTDIR"));
        if (!destDir.isEmpty())
            environment.insert(QStringLiteral("DESTDIR"), destDir);
        return Command::run(QStringLiteral(TARV_CMAKE_COMMAND),
                            {QStringLiteral("--install"), QStringLiteral(TARV_BINARY_DIR), QStringLiteral("--prefix"), prefix},
                            120000, environment);
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_work.isValid());
        Command::Result step = install(prefixDir(), QString());
        QVERIFY2(step.succeeded(), qPrintable(step.report));
        step = install(QStringLiteral("/usr"), stageDir());
        QVERIFY2(step.succeeded(), qPrintable(step.report));
    }

    void installPlacesEveryFile_data()
    {
        // Where the files are (inside the root), how the unit names the
        // installed paths, and the root.
        QTest::addColumn<QString>("root");
        QTest::addColumn<QString>("prefix");
        QTest::addColumn<QString>("etc");
        QTest::addColumn<QString>("unitDir");
        QTest::newRow("--prefix DIR") << QString() << prefixDir() << prefixDir() + QStringLiteral("/etc")
                                      << prefixDir() + QStringLiteral("/lib/systemd/system");
        // /usr is the system's: its configuration is in /etc.
        QTest::newRow("DESTDIR and --prefix /usr") << stageDir() << QStringLiteral("/usr") << QStringLiteral("/etc")
                                                   << QStringLiteral("/lib/systemd/system");
    }

    void installPlacesEveryFile()
    {
        QFETCH(QString, root);
        QFETCH(QString, prefix);
        QFETCH(QString, etc);
        QFETCH(QString, unitDir);
        const InstalledRoot installed(root.isEmpty() ? QStringLiteral("/") : root, prefix);
        const QString lib = installed.libraryDir();
        for (const QString& file :
             {installed.binary(QStringLiteral("tarv-host")), installed.binary(QStringLiteral("tarvctl")),
              lib + QStringLiteral("/libtarv_api.so.0"), installed.moduleDir() + QStringLiteral("/libtarv_simpleGrouping.so"),
              lib + QStringLiteral("/cmake/TarvApi/TarvApiConfig.cmake"),
              installed.path(prefix + QStringLiteral("/include/tarv/tarv")),
              installed.path(prefix + QStringLiteral("/include/tarv/model/cmrequest")),
              installed.path(etc + QStringLiteral("/tarv/tarv-host.json")),
              installed.path(etc + QStringLiteral("/tarv/log4cplus.properties")),
              installed.path(prefix + QStringLiteral("/lib/sysusers.d/tarv-host.conf")),
              installed.path(prefix + QStringLiteral("/lib/tmpfiles.d/tarv-host.conf"))})
            QVERIFY2(QFileInfo(file).isFile(), qPrintable(file + QStringLiteral(" is missing")));

        const QString unit = InstalledRoot::readFile(installed.path(unitDir + QStringLiteral("/tarv-host.service")));
        // The host's stderr is the journal, which takes each line's priority
        // from the "<N>" prefix the installed layout writes there.
        QVERIFY2(unit.contains(QStringLiteral("\nStandardError=journal\n")), qPrintable(unit));
        QVERIFY2(unit.contains(QStringLiteral("\nSyslogLevelPrefix=yes\n")), qPrintable(unit));
        const QString logConfig = InstalledRoot::readFile(installed.path(etc + QStringLiteral("/tarv/log4cplus.properties")));
        QVERIFY2(logConfig.contains(QStringLiteral("\nlog4cplus.appender.STDERR.layout=TarvJournalLayout\n")), qPrintable(logConfig));
        QVERIFY2(logConfig.contains(QStringLiteral("\nlog4cplus.appender.STDERR.filters.1=TarvRepeatFilter\n")), qPrintable(logConfig));
        QVERIFY2(unit.contains(QStringLiteral("\nExecStart=%1/bin/tarv-host --config %2/tarv/tarv-host.json --data-dir /var/lib/tarv-host\n")
                                   .arg(prefix, etc)),
                 qPrintable(unit));

        // Nothing installed points back into the build tree; the library
        // is found by its SONAME.
        for (const QString& file : {installed.binary(QStringLiteral("tarv-host")), installed.binary(QStringLiteral("tarvctl")),
                                    lib + QStringLiteral("/libtarv_api.so.0"),
                                    installed.moduleDir() + QStringLiteral("/libtarv_simpleGrouping.so")}) {
            const Command::Result dynamic = Command::run(QStringLiteral("readelf"), {QStringLiteral("--dynamic"), file});
            QVERIFY2(dynamic.succeeded(), qPrintable(dynamic.report));
            QVERIFY2(!dynamic.output.contains(QStringLiteral("RPATH")) && !dynamic.output.contains(QStringLiteral("RUNPATH")),
                     qPrintable(dynamic.report));
            if (!file.contains(QStringLiteral("libtarv_api")))
                QVERIFY2(dynamic.output.contains(QStringLiteral("Shared library: [libtarv_api.so.0]")), qPrintable(dynamic.report));
        }

        // The installed host looks for modules next to itself.
        const Command::Result help =
            Command::run(installed.binary(QStringLiteral("tarv-host")), {QStringLiteral("--help")}, 10000, installed.environment());
        QVERIFY2(help.succeeded() && help.output.contains(QStringLiteral("file in %1 is loaded").arg(installed.moduleDir())),
                 qPrintable(help.report));
    }

    void moduleBuiltElsewhereLoadsInTheInstalledHost()
    {
        const InstalledRoot installed(stageDir());
        const QString build = m_work.filePath(QStringLiteral("hello-build"));
        const QString usr = installed.path(QStringLiteral("/usr"));
        Command::Result step = Command::run(QStringLiteral(TARV_CMAKE_COMMAND),
                                            {QStringLiteral("-S"), QStringLiteral(TARV_HELLO_MODULE_SOURCE_DIR),
                                             QStringLiteral("-B"), build, QStringLiteral("-DCMAKE_BUILD_TYPE=Release"),
                                             QStringLiteral("-DCMAKE_PREFIX_PATH=") + usr,
                                             QStringLiteral("-DCMAKE_INSTALL_PREFIX=") + usr},
                                            120000);
        QVERIFY2(step.succeeded(), qPrintable(step.report));
        // The package found is the installed one.
        QVERIFY2(InstalledRoot::readFile(build + QStringLiteral("/CMakeCache.txt"))
                     .contains(QStringLiteral("TarvApi_DIR:PATH=%1/cmake/TarvApi\n").arg(installed.libraryDir())),
                 qPrintable(InstalledRoot::readFile(build + QStringLiteral("/CMakeCache.txt"))));
        step = Command::run(QStringLiteral(TARV_CMAKE_COMMAND), {QStringLiteral("--build"), build}, 180000);
        QVERIFY2(step.succeeded(), qPrintable(step.report));
        step = Command::run(QStringLiteral(TARV_CMAKE_COMMAND), {QStringLiteral("--install"), build}, 60000);
        QVERIFY2(step.succeeded(), qPrintable(step.report));
        const QString hello = installed.moduleDir() + QStringLiteral("/libtarv_hello.so");
        QVERIFY2(QFileInfo(hello).isFile(), qPrintable(hello));

        const QString launcher = installed.writeLauncher(QStringLiteral("tarv-host"), m_work.filePath(QStringLiteral("run-host")));
        QVERIFY(QDir().mkpath(m_work.filePath(QStringLiteral("host"))));
        HostProcess host(launcher, QString(), m_work.filePath(QStringLiteral("host")));
        QString error;
        QVERIFY2(host.start({QStringLiteral("--config"), installed.path(QStringLiteral("/etc/tarv/tarv-host.json"))}, &error, 20000),
                 qPrintable(error));
        // Every module in the folder, by name.
        const QRegularExpression loaded(QStringLiteral("Loaded module (\\S+) \\(worker (\\w+)\\)"));
        QStringList modules;
        for (auto it = loaded.globalMatch(host.output()); it.hasNext();) {
            const QRegularExpressionMatch match = it.next();
            modules << match.captured(1) + QLatin1Char(' ') + match.captured(2);
        }
        QCOMPARE(modules, QStringList({hello + QStringLiteral(" HelloWorker"),
                                       installed.moduleDir() + QStringLiteral("/libtarv_simpleGrouping.so SimpleGroupingWorker")}));

        const Command::Result greeting =
            installed.tarvctl({QStringLiteral("--api"), host.api(), QStringLiteral("get"), QStringLiteral("/hello/greeting")});
        QVERIFY2(greeting.succeeded(), qPrintable(greeting.report));
        QCOMPARE(greeting.output, QStringLiteral("hello from a module built against TarvApi %1\n").arg(QStringLiteral(TARV_VERSION)));
        QVERIFY2(host.stop(SIGTERM, 10000), qPrintable(host.output()));
    }
};

QTEST_GUILESS_MAIN(tst_Install)
#include "tst_Install.moc"
