#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QUuid>
#include <QtTest>

#include "HostSettingsStore.h"
#include "LogCapture.h"
#include "Unprivileged.h"

class tst_HostSettingsStore : public QObject
{
    Q_OBJECT

private:
    static QVariantHash sample(const QString& name)
    {
        QVariantHash values;
        values.insert(QStringLiteral("/settings/device/name"), QVariantHash{{QStringLiteral("string_"), name}});
        values.insert(QStringLiteral("/settings/streaming/stopTimeout"), QVariantHash{{QStringLiteral("i32_"), 700}});
        return values;
    }

    static QString acceptAll(const CMPath&, const QVariant&) { return QString(); }

    static QByteArray read(const QString& path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    static void write(const QString& path, const QByteArray& contents)
    {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(contents);
    }

    static QStringList corruptCopies(const QString& dir, const QString& name)
    {
        return QDir(dir).entryList({name + QStringLiteral(".corrupt-*")}, QDir::Files);
    }

private Q_SLOTS:
    void savedValuesLoadBackUnchanged()
    {
        QTemporaryDir dir;
        HostSettingsStore store(dir.path());
        QString error;
        QVERIFY2(store.open(&error), qPrintable(error));
        QVERIFY2(store.save(sample(QStringLiteral("Kitchen")), &error), qPrintable(error));
        QVERIFY(!QFile::exists(store.settingsFile() + QStringLiteral(".tmp")));

        QVariantHash loaded;
        QString report;
        QCOMPARE(store.load(&acceptAll, &loaded, &report), HostSettingsStore::LoadResult::Loaded);
        QVERIFY(report.isEmpty());
        QCOMPARE(loaded, sample(QStringLiteral("Kitchen")));
    }

    void aMissingFileMeansNothingPersisted()
    {
        QTemporaryDir dir;
        HostSettingsStore store(dir.path());
        QVariantHash loaded{{QStringLiteral("stale"), 1}};
        QString report;
        QCOMPARE(store.load(&acceptAll, &loaded, &report), HostSettingsStore::LoadResult::Missing);
        QVERIFY(loaded.isEmpty());
    }

    void openCreatesTheDirectory()
    {
        QTemporaryDir dir;
        const QString nested = dir.filePath(QStringLiteral("a/b/c"));
        HostSettingsStore store(nested);
        QString error;
        QVERIFY2(store.open(&error), qPrintable(error));
        QVERIFY(QFileInfo(nested).isDir());
    }

    void aWriteCutShortBeforeItsRenameLeavesTheOldFile()
    {
        QTemporaryDir dir;
        HostSettingsStore store(dir.path());
        QString error;
        QVERIFY(store.save(sample(QStringLiteral("Old")), &error));
        // What a crash between writing and renaming leaves behind.
        write(store.settingsFile() + QStringLiteral(".tmp"), "{\"format\": 1, \"values\": {\"/settings/dev");

        LogCapture log;
        QVariantHash loaded;
        QString report;
        QCOMPARE(store.load(&acceptAll, &loaded, &report), HostSettingsStore::LoadResult::Loaded);
        QCOMPARE(loaded, sample(QStringLiteral("Old")));
        QVERIFY(!QFile::exists(store.settingsFile() + QStringLiteral(".tmp")));
        QCOMPARE(log.count(log4cplus::WARN_LOG_LEVEL,
                           QStringLiteral("Discarded unfinished settings write %1.tmp; %1 holds the last complete settings")
                               .arg(store.settingsFile()),
                           QStringLiteral("HostSettingsStore")),
                 1);
    }

    void anUnusableFileIsSetAsideAndReported_data()
    {
        QTest::addColumn<QByteArray>("contents");
        QTest::addColumn<QString>("reason");
        QTest::newRow("torn") << QByteArray("{\"format\": 1, \"values\": {") << "it is not valid JSON (at byte 25: unterminated object)";
        QTest::newRow("array") << QByteArray("[]") << "it does not hold a JSON object";
        QTest::newRow("no format") << QByteArray("{\"values\": {}}") << "its \"format\" is not 1";
        QTest::newRow("future format") << QByteArray("{\"format\": 2, \"values\": {}}") << "its \"format\" is not 1";
        QTest::newRow("no values") << QByteArray("{\"format\": 1}") << "it has no \"values\" object";
        QTest::newRow("refused value")
            << QByteArray("{\"format\": 1, \"values\": {\"/bad\": {\"i32_\": 1}}}")
            << "value \"/bad\" is unusable: refused /bad";
    }

    void anUnusableFileIsSetAsideAndReported()
    {
        QFETCH(QByteArray, contents);
        QFETCH(QString, reason);
        QTemporaryDir dir;
        HostSettingsStore store(dir.path());
        write(store.settingsFile(), contents);

        LogCapture log;
        QVariantHash loaded;
        QString report;
        const auto refuseBad = [](const CMPath& path, const QVariant&) {
            return path == CMPath("/bad") ? QStringLiteral("refused /bad") : QString();
        };
        QCOMPARE(store.load(refuseBad, &loaded, &report), HostSettingsStore::LoadResult::SetAside);
        QVERIFY(loaded.isEmpty());
        QVERIFY(!QFile::exists(store.settingsFile()));
        const QStringList copies = corruptCopies(dir.path(), QStringLiteral("settings.json"));
        QCOMPARE(copies.size(), 1);
        // Nothing is lost: the unusable file is kept byte for byte.
        QCOMPARE(read(dir.filePath(copies.first())), contents);
        const QString expected = QStringLiteral("Settings file %1 is unusable (%2); moved it to %3 and started from the defaults")
                                     .arg(store.settingsFile(), reason, dir.filePath(copies.first()));
        QCOMPARE(report, expected);
        QCOMPARE(log.count(log4cplus::ERROR_LOG_LEVEL, expected, QStringLiteral("HostSettingsStore")), 1);

        // The next save starts a new file and leaves the copy alone.
        QString error;
        QVERIFY(store.save(sample(QStringLiteral("New")), &error));
        QCOMPARE(corruptCopies(dir.path(), QStringLiteral("settings.json")).size(), 1);
    }

    void aDirectoryInPlaceOfTheFileIsSetAside()
    {
        QTemporaryDir dir;
        HostSettingsStore store(dir.path());
        QVERIFY(QDir().mkpath(store.settingsFile()));
        QVariantHash loaded;
        QString report;
        QCOMPARE(store.load(&acceptAll, &loaded, &report), HostSettingsStore::LoadResult::SetAside);
        QVERIFY2(report.contains(QStringLiteral("(it is not a regular file)")), qPrintable(report));
    }

    void anOversizedFileIsSetAside()
    {
        QTemporaryDir dir;
        HostSettingsStore store(dir.path());
        write(store.settingsFile(), QByteArray(HostSettingsStore::MaxFileSize + 1, ' '));
        QVariantHash loaded;
        QString report;
        QCOMPARE(store.load(&acceptAll, &loaded, &report), HostSettingsStore::LoadResult::SetAside);
        QVERIFY2(report.contains(QStringLiteral("(it is larger than 1048576 bytes)")), qPrintable(report));
    }

    void anUnusableFileThatCannotBeSetAsideStopsTheHost()
    {
        QTemporaryDir dir;
        QVERIFY(Unprivileged::makeReachable(dir.path()));
        HostSettingsStore store(dir.path());
        write(store.settingsFile(), "not json");
        QVERIFY(Unprivileged::makeReadOnly(dir.path()));

        HostSettingsStore::LoadResult result;
        QString report;
        {
            const Unprivileged nobody;
            QVariantHash loaded;
            result = store.load(&acceptAll, &loaded, &report);
        }
        QVERIFY(Unprivileged::makeReachable(dir.path()));
        QCOMPARE(result, HostSettingsStore::LoadResult::Failed);
        QVERIFY2(report.endsWith(QStringLiteral("and cannot be moved aside (Permission denied); refusing to start so "
                                                "that it is not overwritten")),
                 qPrintable(report));
        QCOMPARE(read(store.settingsFile()), QByteArray("not json"));
    }

    void aReadOnlyDirectoryRefusesToSaveAndKeepsTheOldFile()
    {
        QTemporaryDir dir;
        QVERIFY(Unprivileged::makeReachable(dir.path()));
        HostSettingsStore store(dir.path());
        QString error;
        QVERIFY(store.save(sample(QStringLiteral("Old")), &error));
        const QByteArray before = read(store.settingsFile());
        QVERIFY(Unprivileged::makeReadOnly(dir.path()));

        bool saved = true;
        QVariantHash loaded;
        QString report;
        HostSettingsStore::LoadResult result;
        {
            const Unprivileged nobody;
            saved = store.save(sample(QStringLiteral("New")), &error);
            result = store.load(&acceptAll, &loaded, &report);
        }
        QVERIFY(Unprivileged::makeReachable(dir.path()));
        QVERIFY(!saved);
        QCOMPARE(error, QStringLiteral("cannot write %1.tmp: Permission denied").arg(store.settingsFile()));
        QCOMPARE(read(store.settingsFile()), before);
        QCOMPARE(result, HostSettingsStore::LoadResult::Loaded);
        QCOMPARE(loaded, sample(QStringLiteral("Old")));
    }

    void theDeviceIdIsMadeOnceAndKept()
    {
        QTemporaryDir dir;
        QString error;
        QString first;
        {
            HostSettingsStore store(dir.path());
            LogCapture log;
            first = store.loadOrCreateId(&error);
            QVERIFY2(!first.isEmpty(), qPrintable(error));
            QVERIFY(!QUuid::fromString(first).isNull());
            QCOMPARE(log.count(log4cplus::INFO_LOG_LEVEL,
                               QStringLiteral("New device id %1 kept in %2").arg(first, dir.filePath(QStringLiteral("device-id"))),
                               QStringLiteral("HostSettingsStore")),
                     1);
        }
        HostSettingsStore again(dir.path());
        QCOMPARE(again.loadOrCreateId(&error), first);
    }

    void anUnusableIdFileIsSetAsideAndReplaced()
    {
        QTemporaryDir dir;
        write(dir.filePath(QStringLiteral("device-id")), "not an id!\n");
        HostSettingsStore store(dir.path());
        LogCapture log;
        QString error;
        const QString id = store.loadOrCreateId(&error);
        QVERIFY(!QUuid::fromString(id).isNull());
        const QStringList copies = corruptCopies(dir.path(), QStringLiteral("device-id"));
        QCOMPARE(copies.size(), 1);
        QCOMPARE(read(dir.filePath(copies.first())), QByteArray("not an id!\n"));
        QCOMPARE(log.countStartingWith(log4cplus::ERROR_LOG_LEVEL,
                                       QStringLiteral("Device id file %1 is unusable (a device id consists of")
                                           .arg(dir.filePath(QStringLiteral("device-id"))),
                                       QStringLiteral("HostSettingsStore")),
                 1);
    }

    void noIdCanBeKeptInAReadOnlyDirectory()
    {
        QTemporaryDir dir;
        QVERIFY(Unprivileged::makeReadOnly(dir.path()));
        QString id;
        QString error;
        {
            const Unprivileged nobody;
            HostSettingsStore store(dir.path());
            id = store.loadOrCreateId(&error);
        }
        QVERIFY(Unprivileged::makeReachable(dir.path()));
        QVERIFY(id.isEmpty());
        QCOMPARE(error, QStringLiteral("cannot keep a new device id: cannot write %1.tmp: Permission denied")
                            .arg(dir.filePath(QStringLiteral("device-id"))));
    }

    void twoStoresCannotShareADirectory()
    {
        QTemporaryDir dir;
        HostSettingsStore first(dir.path());
        QString error;
        QVERIFY2(first.open(&error), qPrintable(error));
        HostSettingsStore second(dir.path());
        QVERIFY(!second.open(&error));
        QCOMPARE(error, QStringLiteral("the data directory %1 is in use by another tarv-host (pid %2)")
                            .arg(QDir::cleanPath(dir.path()))
                            .arg(QCoreApplication::applicationPid()));
    }
};

QTEST_GUILESS_MAIN(tst_HostSettingsStore)
#include "tst_HostSettingsStore.moc"
