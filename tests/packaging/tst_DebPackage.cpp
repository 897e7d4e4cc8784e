// The Debian package as an integrator uses it: built by CPack from this build,
// installed with dpkg into a root of its own (never into this machine's), the
// installed host run from there with the installed configuration as the tarv
// user in a sandbox like its unit's, then removed and purged.

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include "Command.h"
#include "HostProcess.h"
#include "InstalledRoot.h"

namespace {

const QString packageName = QStringLiteral("tarv-host");
const QString architecture = QStringLiteral(TARV_LIBRARY_ARCHITECTURE);

// Every file and symbolic link under `root`, relative to it, sorted; dpkg's
// own database is left out.
QStringList filesUnder(const QString& root)
{
    QStringList files;
    QDirIterator it(root, QDir::Files | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = QDir(root).relativeFilePath(it.next());
        if (!path.startsWith(QLatin1String("var/lib/dpkg/")))
            files << path;
    }
    files.sort();
    return files;
}

// The paths a package holds, from `dpkg-deb -c` (a listing line ends with
// "./path" or "./path -> target").
QStringList packagePaths(const QString& listing)
{
    QStringList paths;
    static const QRegularExpression entry(QStringLiteral(" \\./(\\S*)( -> .*)?$"), QRegularExpression::MultilineOption);
    for (auto it = entry.globalMatch(listing); it.hasNext();) {
        const QString path = it.next().captured(1);
        if (!path.isEmpty() && !path.endsWith(QLatin1Char('/')))
            paths << path;
    }
    paths.sort();
    return paths;
}

bool installedHere(const QString& package)
{
    return Command::run(QStringLiteral("dpkg-query"), {QStringLiteral("-W"), QStringLiteral("-f=${Status}"), package})
        .output.endsWith(QLatin1String("install ok installed"));
}

// The [Service] keys of a unit, the last value of each.
QHash<QString, QString> serviceKeys(const QString& unit)
{
    QHash<QString, QString> keys;
    bool inService = false;
    for (const QString& line : unit.split(QLatin1Char('\n'))) {
        if (line.startsWith(QLatin1Char('[')))
            inService = line == QLatin1String("[Service]");
        else if (inService && !line.startsWith(QLatin1Char('#')) && line.contains(QLatin1Char('=')))
            keys.insert(line.section(QLatin1Char('='), 0, 0), line.section(QLatin1Char('='), 1));
    }
    return keys;
}

} // namespace

class tst_DebPackage : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_work;
    QString m_deb;
    QString m_root;
    uint m_uid = 0;
    uint m_gid = 0;

    // dpkg on the fresh root. Maintainer scripts run without chroot (the
    // root has no shell) and find the root in DPKG_ROOT.
    Command::Result dpkg(const QStringList& arguments)
    {
        return Command::run(QStringLiteral("dpkg"),
                            QStringList{QStringLiteral("--root=") + m_root, QStringLiteral("--force-script-chrootless")}
                                + arguments,
                            60000);
    }

    QString packageStatus()
    {
        return dpkg({QStringLiteral("--status"), packageName}).output.section(QStringLiteral("Status: "), 1).section(QLatin1Char('\n'), 0, 0);
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (::geteuid() != 0)
            QSKIP("needs root: dpkg installs into a root of its own and the maintainer scripts change owners");
        for (const char* tool : {"dpkg", "dpkg-deb", "dpkg-shlibdeps", "file", "systemd-analyze", "systemd-sysusers",
                                 "systemd-tmpfiles", "deb-systemd-helper", "setpriv", "unshare"}) {
            if (QStandardPaths::findExecutable(QLatin1String(tool)).isEmpty())
                QSKIP(qPrintable(QStringLiteral("%1 is missing (scripts/install-deps installs it)").arg(QLatin1String(tool))));
        }
        QVERIFY(m_work.isValid());
        // The installed host runs as the tarv user, which must reach its root.
        QVERIFY(QFile::setPermissions(m_work.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner
                                                         | QFile::ReadGroup | QFile::ExeGroup | QFile::ReadOther
                                                         | QFile::ExeOther));
        m_root = m_work.filePath(QStringLiteral("root"));
    }

    void packageIsBuiltByCPack()
    {
        const QString out = m_work.filePath(QStringLiteral("package"));
        const Command::Result built = Command::run(QStringLiteral(TARV_CPACK_COMMAND),
                                                   {QStringLiteral("--config"), QStringLiteral(TARV_BINARY_DIR "/CPackConfig.cmake"),
                                                    QStringLiteral("-B"), out},
                                                   300000);
        QVERIFY2(built.succeeded(), qPrintable(built.report));
        const QString debArchitecture =
            Command::run(QStringLiteral("dpkg"), {QStringLiteral("--print-architecture")}).output.trimmed();
        const QStringList debs = QDir(out).entryList({QStringLiteral("*.deb")}, QDir::Files);
        QCOMPARE(debs, QStringList{QStringLiteral("tarv-host_%1_%2.deb").arg(QStringLiteral(TARV_VERSION), debArchitecture)});
        m_deb = QDir(out).filePath(debs.first());
    }

    void packageDependsOnTheRuntimeLibrariesAndMarksTheConffiles()
    {
        QVERIFY(!m_deb.isEmpty());
        const QString depends =
            Command::run(QStringLiteral("dpkg-deb"), {QStringLiteral("--field"), m_deb, QStringLiteral("Depends")}).output.trimmed();
        // Versioned entries come from dpkg-shlibdeps, which read the binaries.
        for (const char* expected : {"libqt5core5a \\(>= [^)]+\\)", "libqt5network5 \\(>= [^)]+\\)",
                                     "liblog4cplus-[0-9.]+ \\(>= [^)]+\\)", "libcpp-httplib[0-9.]+ \\(>= [^)]+\\)",
                                     "libc6 \\(>= [^)]+\\)", "libstdc\\+\\+6 \\(>= [^)]+\\)", "systemd", "init-system-helpers"})
            QVERIFY2(QRegularExpression(QStringLiteral("(^|, )%1(,|$)").arg(QLatin1String(expected))).match(depends).hasMatch(),
                     qPrintable(QStringLiteral("%1 not in Depends: %2").arg(QLatin1String(expected), depends)));
        // The fresh root below has none of them; this machine, where the
        // installed programs run, has every one.
        for (const QString& dependency : depends.split(QStringLiteral(", "))) {
            bool satisfied = false;
            for (const QString& alternative : dependency.split(QStringLiteral(" | ")))
                satisfied = satisfied || installedHere(alternative.section(QLatin1Char(' '), 0, 0));
            QVERIFY2(satisfied, qPrintable(QStringLiteral("not installed here: ") + dependency));
        }

        const QString control = m_work.filePath(QStringLiteral("control"));
        const Command::Result extracted = Command::run(QStringLiteral("dpkg-deb"), {QStringLiteral("--control"), m_deb, control});
        QVERIFY2(extracted.succeeded(), qPrintable(extracted.report));
        QCOMPARE(InstalledRoot::readFile(control + QStringLiteral("/conffiles")),
                 QStringLiteral("/etc/tarv/tarv-host.json\n/etc/tarv/log4cplus.properties\n"));
        for (const char* script : {"postinst", "prerm", "postrm"})
            QVERIFY2(QFileInfo(control + QLatin1Char('/') + QLatin1String(script)).isExecutable(), script);
    }

    void packageHoldsTheDeviceLayout()
    {
        QVERIFY(!m_deb.isEmpty());
        const QStringList paths =
            packagePaths(Command::run(QStringLiteral("dpkg-deb"), {QStringLiteral("--contents"), m_deb}).output);
        const QString lib = QStringLiteral("usr/lib/") + architecture;
        const QStringList expected{
            QStringLiteral("usr/bin/tarv-host"),
            QStringLiteral("usr/bin/tarvctl"),
            lib + QStringLiteral("/libtarv_api.so.%1").arg(QStringLiteral(TARV_VERSION)),
            lib + QStringLiteral("/libtarv_api.so.0"),
            lib + QStringLiteral("/libtarv_api.so"),
            lib + QStringLiteral("/tarv/modules/libtarv_simpleGrouping.so"),
            lib + QStringLiteral("/cmake/TarvApi/TarvApiConfig.cmake"),
            lib + QStringLiteral("/cmake/TarvApi/TarvApiConfigVersion.cmake"),
            lib + QStringLiteral("/cmake/TarvApi/TarvApiTargets.cmake"),
            QStringLiteral("usr/include/tarv/tarv"),
            QStringLiteral("usr/include/tarv/model/cmrequest"),
            QStringLiteral("usr/include/tarv/model/cmrowsclone"),
            QStringLiteral("usr/include/tarv/CMRootWorker.h"),
            QStringLiteral("etc/tarv/tarv-host.json"),
            QStringLiteral("etc/tarv/log4cplus.properties"),
            QStringLiteral("lib/systemd/system/tarv-host.service"),
            QStringLiteral("usr/lib/sysusers.d/tarv-host.conf"),
            QStringLiteral("usr/lib/tmpfiles.d/tarv-host.conf"),
        };
        for (const QString& path : expected)
            QVERIFY2(paths.contains(path), qPrintable(path + QStringLiteral(" not in the package")));
        // Nothing else but headers and the exported targets' per-build file.
        for (const QString& path : paths) {
            const bool known = expected.contains(path) || path.startsWith(QLatin1String("usr/include/tarv/"))
                || QRegularExpression(QStringLiteral("^%1/cmake/TarvApi/TarvApiTargets-\\w+\\.cmake$").arg(lib)).match(path).hasMatch();
            QVERIFY2(known, qPrintable(path + QStringLiteral(" should not be in the package")));
        }
    }

    void unitPassesSystemdAnalyze()
    {
        QVERIFY(!m_deb.isEmpty());
        // The package's files next to this machine's own units (the targets
        // the unit names), as a root systemd-analyze checks offline: the
        // unit's syntax and values and that ExecStart is an executable there.
        const QString verifyRoot = m_work.filePath(QStringLiteral("verify"));
        Command::Result step = Command::run(QStringLiteral("dpkg-deb"), {QStringLiteral("--extract"), m_deb, verifyRoot});
        QVERIFY2(step.succeeded(), qPrintable(step.report));
        step = Command::run(QStringLiteral("cp"), {QStringLiteral("-a"), QStringLiteral("/lib/systemd/system/."),
                                                   verifyRoot + QStringLiteral("/lib/systemd/system/")});
        QVERIFY2(step.succeeded(), qPrintable(step.report));
        const QStringList rootArgument{QStringLiteral("--root=") + verifyRoot};

        // Unknown keys and bad values are only warnings, so any output fails.
        step = Command::run(QStringLiteral("systemd-analyze"),
                            QStringList{QStringLiteral("verify")} + rootArgument + QStringList{QStringLiteral("tarv-host.service")});
        QVERIFY2(step.succeeded() && step.output.isEmpty(), qPrintable(step.report));

        step = Command::run(QStringLiteral("systemd-analyze"),
                            QStringList{QStringLiteral("security"), QStringLiteral("--offline=true")} + rootArgument
                                + QStringList{QStringLiteral("tarv-host.service")});
        QVERIFY2(step.succeeded(), qPrintable(step.report));
        const QRegularExpressionMatch exposure =
            QRegularExpression(QStringLiteral("Overall exposure level for tarv-host.service: ([0-9.]+)")).match(step.output);
        QVERIFY2(exposure.hasMatch(), qPrintable(step.report));
        qInfo("systemd-analyze security: exposure %s", qPrintable(exposure.captured(1)));
        QVERIFY2(exposure.captured(1).toDouble() <= 2.0, qPrintable(step.report));

        // What systemd cannot be asked here without running the unit.
        const QHash<QString, QString> keys =
            serviceKeys(InstalledRoot::readFile(verifyRoot + QStringLiteral("/lib/systemd/system/tarv-host.service")));
        QCOMPARE(keys.value(QStringLiteral("ExecStart")),
                 QStringLiteral("/usr/bin/tarv-host --config /etc/tarv/tarv-host.json --data-dir /var/lib/tarv-host"));
        QCOMPARE(keys.value(QStringLiteral("User")), QStringLiteral("tarv"));
        QCOMPARE(keys.value(QStringLiteral("Restart")), QStringLiteral("on-failure"));
        QCOMPARE(keys.value(QStringLiteral("StateDirectory")), QStringLiteral("tarv-host"));
        QCOMPARE(keys.value(QStringLiteral("ProtectSystem")), QStringLiteral("strict"));
        QCOMPARE(keys.value(QStringLiteral("NoNewPrivileges")), QStringLiteral("yes"));
        QVERIFY(!keys.contains(QStringLiteral("ExecReload")));
        QVERIFY(!keys.contains(QStringLiteral("PrivateNetwork")));
        const QStringList families = keys.value(QStringLiteral("RestrictAddressFamilies")).split(QLatin1Char(' '));
        QVERIFY(families.contains(QStringLiteral("AF_INET")) && families.contains(QStringLiteral("AF_NETLINK")));
    }

    void installsIntoAFreshRootWithItsUserAndDataDirectory()
    {
        QVERIFY(!m_deb.isEmpty());
        QVERIFY(QDir().mkpath(m_root + QStringLiteral("/var/lib/dpkg")));
        QVERIFY(QFile(m_root + QStringLiteral("/var/lib/dpkg/status")).open(QIODevice::WriteOnly));
        // The root's empty database knows none of the dependencies; they
        // were checked against this machine, where the programs run.
        const Command::Result installed = dpkg({QStringLiteral("--force-depends"), QStringLiteral("--install"), m_deb});
        QVERIFY2(installed.succeeded(), qPrintable(installed.report));
        QCOMPARE(packageStatus(), QStringLiteral("install ok installed"));

        const QRegularExpressionMatch user =
            QRegularExpression(QStringLiteral("^tarv:x:(\\d+):(\\d+):[^:]*:/var/lib/tarv-host:/usr/sbin/nologin$"),
                               QRegularExpression::MultilineOption)
                .match(InstalledRoot::readFile(m_root + QStringLiteral("/etc/passwd")));
        QVERIFY2(user.hasMatch(), qPrintable(InstalledRoot::readFile(m_root + QStringLiteral("/etc/passwd"))));
        m_uid = user.captured(1).toUInt();
        m_gid = user.captured(2).toUInt();
        QVERIFY2(m_uid > 0 && m_uid < 1000, "a system user");
        QVERIFY(InstalledRoot::readFile(m_root + QStringLiteral("/etc/group")).contains(QStringLiteral("tarv:x:%1:").arg(m_gid)));

        struct stat data;
        QCOMPARE(::stat(QFile::encodeName(m_root + QStringLiteral("/var/lib/tarv-host")).constData(), &data), 0);
        QVERIFY(S_ISDIR(data.st_mode));
        QCOMPARE(data.st_mode & 07777, mode_t(0750));
        QCOMPARE(uint(data.st_uid), m_uid);
        QCOMPARE(uint(data.st_gid), m_gid);

        QCOMPARE(QFileInfo(m_root + QStringLiteral("/etc/systemd/system/multi-user.target.wants/tarv-host.service")).symLinkTarget(),
                 QStringLiteral("/lib/systemd/system/tarv-host.service"));
    }

    void installedHostLoadsTheInstalledModuleAndAnswersTarvctl()
    {
        QVERIFY(m_uid != 0);
        InstalledRoot installed(m_root);
        const QString dataDir = installed.path(QStringLiteral("/var/lib/tarv-host"));
        // As its unit runs it: as tarv, without privileges or capabilities,
        // everything read-only but the data directory (this machine's root
        // stands in for the device's, which ProtectSystem=strict protects).
        const QString sandbox =
            QStringLiteral("unshare --mount --propagation private sh -c 'mount --bind \"$0\" \"$0\" && mount -o remount,bind,ro / "
                           "&& exec setpriv --reuid=%1 --regid=%2 --clear-groups --no-new-privs --inh-caps=-all "
                           "--bounding-set=-all \"$@\"' '%3'")
                .arg(m_uid)
                .arg(m_gid)
                .arg(dataDir);
        const QString launcher = installed.writeLauncher(QStringLiteral("tarv-host"), m_work.filePath(QStringLiteral("run-host")), sandbox);
        QVERIFY(QDir().mkpath(m_work.filePath(QStringLiteral("host"))));
        // No --module: the host finds the installed one by itself.
        HostProcess host(launcher, QString(), m_work.filePath(QStringLiteral("host")));
        host.setDataDirectory(dataDir);
        QString error;
        QVERIFY2(host.start({QStringLiteral("--config"), installed.path(QStringLiteral("/etc/tarv/tarv-host.json"))}, &error, 20000),
                 qPrintable(error));

        const QString status = InstalledRoot::readFile(QStringLiteral("/proc/%1/status").arg(host.processId()));
        QVERIFY2(status.contains(QStringLiteral("\nUid:\t%1\t%1\t%1\t%1\n").arg(m_uid)), qPrintable(status));
        QVERIFY2(status.contains(QStringLiteral("\nNoNewPrivs:\t1\n")), qPrintable(status));
        QVERIFY2(status.contains(QStringLiteral("\nCapEff:\t0000000000000000\n")), qPrintable(status));

        // The installed log4cplus.properties lays out the lines; stderr is
        // not the journal here, so they are dated (under the unit the
        // journal keeps the time and the date is left out, see
        // tst_TarvJournalLayout).
        const QString module = installed.moduleDir() + QStringLiteral("/libtarv_simpleGrouping.so");
        const QRegularExpression loaded(QStringLiteral("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} INFO  ModuleLoader \\[ModuleLoader\\.cpp:\\d+ [^\\]]*\\] Loaded module %1 \\(worker ")
                                            .arg(QRegularExpression::escape(module)),
                                        QRegularExpression::MultilineOption);
        QVERIFY2(loaded.match(host.output()).hasMatch(), qPrintable(host.output()));
        QCOMPARE(host.output().count(QStringLiteral("Loaded module ")), 1);

        struct stat id;
        QCOMPARE(::stat(QFile::encodeName(dataDir + QStringLiteral("/device-id")).constData(), &id), 0);
        QCOMPARE(uint(id.st_uid), m_uid);
        QCOMPARE(InstalledRoot::readFile(dataDir + QStringLiteral("/device-id")).trimmed(), host.id());

        const Command::Result answer = installed.tarvctl({QStringLiteral("--api"), host.api(), QStringLiteral("host")});
        QVERIFY2(answer.succeeded() && answer.output.contains(host.id()), qPrintable(answer.report));
        const Command::Result tree = installed.tarvctl({QStringLiteral("--api"), host.api(), QStringLiteral("--json"), QStringLiteral("tree")});
        QVERIFY2(tree.succeeded() && tree.output.contains(QStringLiteral("\"/modules/simpleGrouping\"")), qPrintable(tree.report));

        QVERIFY2(host.stop(SIGTERM, 10000), qPrintable(host.output()));
        QVERIFY2(host.output().contains(QStringLiteral("Received SIGTERM, shutting down")), qPrintable(host.output()));
        QVERIFY2(QRegularExpression(QStringLiteral("^[-0-9]{10} [:.0-9]{12} INFO  tarv-host \\[main\\.cpp:\\d+ [^\\]]*\\] Stopped$"),
                                    QRegularExpression::MultilineOption)
                     .match(host.output())
                     .hasMatch(),
                 qPrintable(host.output()));
    }

    void removeLeavesTheConffilesTheDevicesDataAndTheServiceState()
    {
        QCOMPARE(packageStatus(), QStringLiteral("install ok installed"));
        const Command::Result removed = dpkg({QStringLiteral("--remove"), packageName});
        QVERIFY2(removed.succeeded(), qPrintable(removed.report));
        QCOMPARE(packageStatus(), QStringLiteral("deinstall ok config-files"));
        const QStringList expected{
            // The tarv user, made by systemd-sysusers, stays for good (and
            // the lock file the tool leaves).
            QStringLiteral("etc/.pwd.lock"), QStringLiteral("etc/group"), QStringLiteral("etc/gshadow"),
            QStringLiteral("etc/passwd"), QStringLiteral("etc/shadow"),
            // Until purge: the conffiles,
            QStringLiteral("etc/tarv/log4cplus.properties"), QStringLiteral("etc/tarv/tarv-host.json"),
            // whether the service was enabled (restored on reinstallation),
            // masked while its unit is gone,
            QStringLiteral("etc/systemd/system/multi-user.target.wants/tarv-host.service"),
            QStringLiteral("etc/systemd/system/tarv-host.service"),
            QStringLiteral("var/lib/systemd/deb-systemd-helper-enabled/multi-user.target.wants/tarv-host.service"),
            QStringLiteral("var/lib/systemd/deb-systemd-helper-enabled/tarv-host.service.dsh-also"),
            QStringLiteral("var/lib/systemd/deb-systemd-helper-masked/tarv-host.service"),
            // and the device's id and settings.
            QStringLiteral("var/lib/tarv-host/device-id"),
        };
        QStringList sortedExpected = expected;
        sortedExpected.sort();
        QCOMPARE(filesUnder(m_root), sortedExpected);
    }

    void reinstallKeepsTheDeviceTheEditedConfigurationAndTheEnabling()
    {
        QCOMPARE(packageStatus(), QStringLiteral("deinstall ok config-files"));
        const QString idFile = m_root + QStringLiteral("/var/lib/tarv-host/device-id");
        const QString id = InstalledRoot::readFile(idFile);
        QVERIFY(!id.isEmpty());
        // An administrator opened the control API to the LAN.
        const QString config = m_root + QStringLiteral("/etc/tarv/tarv-host.json");
        QString edited = InstalledRoot::readFile(config);
        QVERIFY(edited.contains(QStringLiteral("\"127.0.0.1:8080\"")));
        edited.replace(QStringLiteral("\"127.0.0.1:8080\""), QStringLiteral("\"0.0.0.0:8080\""));
        QFile file(config);
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(edited.toUtf8());
        file.close();

        Command::Result step = dpkg({QStringLiteral("--force-depends"), QStringLiteral("--install"), m_deb});
        QVERIFY2(step.succeeded(), qPrintable(step.report));
        QCOMPARE(packageStatus(), QStringLiteral("install ok installed"));
        QCOMPARE(InstalledRoot::readFile(config), edited);
        QCOMPARE(InstalledRoot::readFile(idFile), id);
        QCOMPARE(QFileInfo(m_root + QStringLiteral("/etc/systemd/system/multi-user.target.wants/tarv-host.service")).symLinkTarget(),
                 QStringLiteral("/lib/systemd/system/tarv-host.service"));
        // No longer masked.
        QVERIFY(!QFileInfo(m_root + QStringLiteral("/etc/systemd/system/tarv-host.service")).isSymLink());

        step = dpkg({QStringLiteral("--remove"), packageName});
        QVERIFY2(step.succeeded(), qPrintable(step.report));
    }

    void purgeLeavesOnlyTheUser()
    {
        QCOMPARE(packageStatus(), QStringLiteral("deinstall ok config-files"));
        const Command::Result purged = dpkg({QStringLiteral("--purge"), packageName});
        QVERIFY2(purged.succeeded(), qPrintable(purged.report));
        QVERIFY(packageStatus().isEmpty());
        QCOMPARE(filesUnder(m_root), QStringList({QStringLiteral("etc/.pwd.lock"), QStringLiteral("etc/group"),
                                                  QStringLiteral("etc/gshadow"), QStringLiteral("etc/passwd"),
                                                  QStringLiteral("etc/shadow")}));
        for (const char* dir : {"etc/tarv", "var/lib/tarv-host", "usr", "lib"})
            QVERIFY2(!QFileInfo::exists(m_root + QLatin1Char('/') + QLatin1String(dir)), dir);
    }
};

QTEST_GUILESS_MAIN(tst_DebPackage)
#include "tst_DebPackage.moc"
