#include <memory>

#include <QFile>
#include <QJsonDocument>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include "CMListRowsNode.h"
#include "CMNodes.h"
#include "CMRootWorker.h"
#include "HostConfig.h"
#include "HostSettingsStore.h"
#include "HostWorker.h"
#include "HouseList.h"
#include "LogCapture.h"
#include "TarvPaths.h"
#include "TarvValue.h"
#include "Unprivileged.h"

class tst_HostWorker : public QObject
{
    Q_OBJECT

private:
    static HostConfig config(const QStringList& arguments = QStringList())
    {
        HostConfig result;
        QString error;
        if (!result.parse(QStringList{QStringLiteral("tarv-host")} + arguments, &error))
            qFatal("bad test arguments: %s", qPrintable(error));
        return result;
    }

    static std::unique_ptr<HostWorker> makeWorker(const QStringList& arguments = QStringList(),
                                                  const QVariantHash& persisted = QVariantHash(),
                                                  HostSettingsStore* store = nullptr)
    {
        return std::make_unique<HostWorker>(config(arguments), QStringLiteral("dev-1"), persisted, store);
    }

    static QVariant value(const CMPath& path) { return CMRoot()->getValue(path); }
    static TarvSystemMember record() { return TarvValue(value(TarvSystemMemberPath()).toHash()).systemMember(); }

    static QVariant state(int type)
    {
        return TarvValue()
            .setSystemMemberTranscoderState(TarvSystemMemberTranscoderState().setId(QStringLiteral("dev-1")).setType(
                static_cast<TarvTranscoderState::Enum>(type)))
            .toVariant();
    }
    static QVariant name(const QString& text) { return TarvValue().setString_(text).toVariant(); }
    static QVariant ms(int value) { return TarvValue().setI32_(value).toVariant(); }
    static QVariant group(const QStringList& members, qint64 timestamp)
    {
        return TarvValue()
            .setGroupingPersistentGroup(
                TarvGroupingPersistentGroup().setName(QStringLiteral("Party")).setMembers(members).setTimestamp(timestamp))
            .toVariant();
    }
    static QVariant json(const char* text) { return QJsonDocument::fromJson(text).toVariant(); }

    static QVariantHash ownHouseRow()
    {
        auto* house = qobject_cast<CMListRowsNode*>(CMRoot()->findNode(HostWorker::housePath()));
        return house ? house->rowsGetById(QStringLiteral("dev-1")).value().value(HouseList::HouseMember()).toHash()
                     : QVariantHash();
    }

    // The module's own row of the grouping members, as the grouping module
    // writes it.
    static TarvRoles groupingRow(const QString& id, const QString& masterId)
    {
        TarvGroupingMember member;
        member.setMaster(TarvSystemMember().setId(masterId)).setFollower(TarvSystemMember().setId(id));
        TarvRoles row;
        row.setId(id).setType(TarvRolesType::GroupingMember).setTitle(id).setValue(TarvValue().setGroupingMember(member));
        return row;
    }

    static QVariantHash savedValues(const HostSettingsStore& store)
    {
        QFile file(store.settingsFile());
        if (!file.open(QIODevice::ReadOnly))
            return QVariantHash();
        return QJsonDocument::fromJson(file.readAll()).object().toVariantHash().value(QStringLiteral("values")).toHash();
    }

private Q_SLOTS:
    void everyValueStartsWithItsInitialValue()
    {
        const auto worker = makeWorker({"--host-name", "10.1.2.3", "--address", "127.0.0.1", "--name", "Kitchen"});
        QCOMPARE(value(TarvSystemMemberIdPath()), name(QStringLiteral("dev-1")));
        QCOMPARE(value(TarvDeviceStatePath()), QVariant(QVariantHash()));
        QCOMPARE(value(TarvRequestStreamingTimeoutPath()), ms(1000));
        QCOMPARE(value(TarvStopStreamingTimeoutPath()), ms(5000));
        QCOMPARE(value(TarvGroupingPersistentGroupSettingsPath()),
                 json(R"({"groupingPersistentGroup": {}})"));
        QCOMPARE(value(TarvDeviceNameSettingsPath()), name(QStringLiteral("Kitchen")));
        QCOMPARE(value(TarvPlayerDataPath()), QVariant(QVariantHash{{QStringLiteral("state"), 0}}));

        TarvSystemMember expected;
        expected.setId(QStringLiteral("dev-1"))
            .setName(QStringLiteral("Kitchen"))
            .setHost(QStringLiteral("10.1.2.3"))
            .setIpAddress(QStringLiteral("127.0.0.1"))
            .setTranscoder(false)
            .setPersistentGroupMembers({})
            .setPersistentGroupTimestamp(0);
        QCOMPARE(record(), expected);
        QCOMPARE(value(TarvSystemMemberPath()), TarvValue().setSystemMember(expected).toVariant());
        QCOMPARE(worker->record(), expected);
    }

    void theMembersListStartsLoading()
    {
        const auto worker = makeWorker();
        auto* members = qobject_cast<CMListRowsNode*>(CMRoot()->findNode(TarvSystemMembersPath()));
        QVERIFY(members);
        QCOMPARE(members, worker->membersNode());
        QVERIFY(members->isLoading());
        QCOMPARE(members->rowsSize(), 0);
    }

    void theRecordIsATranscoderExactlyWhileTheStateIsTwo_data()
    {
        QTest::addColumn<QVariant>("stateValue");
        QTest::addColumn<bool>("transcoder");
        QTest::newRow("receiver") << state(1) << false;
        QTest::newRow("transcoder") << state(2) << true;
        QTest::newRow("unknown") << state(0) << false;
        QTest::newRow("from JSON") << json(R"({"systemMemberTranscoderState": {"id": "dev-1", "type": 2}})") << true;
        QTest::newRow("emptied") << QVariant(QVariantHash()) << false;
    }

    void theRecordIsATranscoderExactlyWhileTheStateIsTwo()
    {
        QFETCH(QVariant, stateValue);
        QFETCH(bool, transcoder);
        const auto worker = makeWorker();
        // Start from the opposite so that every row is a change.
        QCOMPARE(CMRoot()->storeValue(TarvDeviceStatePath(), state(transcoder ? 1 : 2)), QString());
        QCOMPARE(record().transcoder(), !transcoder);
        QSignalSpy changed(worker.get(), &HostWorker::recordChanged);
        QCOMPARE(CMRoot()->storeValue(TarvDeviceStatePath(), stateValue), QString());
        QCOMPARE(record().transcoder(), transcoder);
        QCOMPARE(changed.count(), 1);
        QCOMPARE(changed.first().first().value<TarvSystemMember>().transcoder(), transcoder);
    }

    void theRecordFollowsTheName()
    {
        const auto worker = makeWorker();
        QSignalSpy changed(worker.get(), &HostWorker::recordChanged);
        QCOMPARE(CMRoot()->storeValue(TarvDeviceNameSettingsPath(), name(QStringLiteral("Living room"))), QString());
        QCOMPARE(record().name(), QStringLiteral("Living room"));
        QCOMPARE(changed.count(), 1);
        // The same name again is no change.
        QCOMPARE(CMRoot()->storeValue(TarvDeviceNameSettingsPath(), name(QStringLiteral("Living room"))), QString());
        QCOMPARE(changed.count(), 1);
    }

    void theRecordFollowsTheSavedGroup()
    {
        const auto worker = makeWorker();
        QSignalSpy changed(worker.get(), &HostWorker::recordChanged);
        QCOMPARE(CMRoot()->storeValue(TarvGroupingPersistentGroupSettingsPath(),
                                      group({QStringLiteral("dev-1"), QStringLiteral("dev-2")}, 1700000000123)),
                 QString());
        QCOMPARE(record().persistentGroupMembers(), TarvList<QString>({QStringLiteral("dev-1"), QStringLiteral("dev-2")}));
        QCOMPARE(record().persistentGroupTimestamp(), qint64(1700000000123));
        QCOMPARE(changed.count(), 1);

        // Cleared through the API's JSON form.
        QCOMPARE(CMRoot()->storeValue(TarvGroupingPersistentGroupSettingsPath(),
                                      json(R"({"groupingPersistentGroup": {"name": "", "members": [], "timestamp": 1700000000999}})")),
                 QString());
        QVERIFY(record().persistentGroupMembers().isEmpty());
        QCOMPARE(record().persistentGroupTimestamp(), qint64(1700000000999));
        QCOMPARE(changed.count(), 2);
    }

    void otherValuesLeaveTheRecordAlone()
    {
        const auto worker = makeWorker();
        QSignalSpy changed(worker.get(), &HostWorker::recordChanged);
        QCOMPARE(CMRoot()->storeValue(TarvStopStreamingTimeoutPath(), ms(1234)), QString());
        QCOMPARE(CMRoot()->storeValue(TarvPlayerDataPath(), json(R"({"state": 3})")), QString());
        QCOMPARE(changed.count(), 0);
    }

    void wrongWritesAreRefusedWithAReason_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QVariant>("written");
        QTest::addColumn<QString>("reason");
        QTest::newRow("name as number")
            << "/settings/device/name" << json(R"({"string_": 5})")
            << R"(/settings/device/name takes {"string_": <device name>}; got {"string_":5})";
        QTest::newRow("empty name")
            << "/settings/device/name" << json(R"({"string_": ""})")
            << R"(/settings/device/name: a device name must not be empty; got {"string_":""})";
        QTest::newRow("name in wrong view")
            << "/settings/device/name" << json(R"({"i32_": 5})")
            << R"(/settings/device/name takes {"string_": <device name>}; got {"i32_":5})";
        QTest::newRow("timeout as text")
            << "/settings/streaming/stopTimeout" << json(R"({"i32_": "5000"})")
            << R"(/settings/streaming/stopTimeout takes {"i32_": <milliseconds from 1 to 3600000>}; got {"i32_":"5000"})";
        QTest::newRow("timeout zero")
            << "/settings/streaming/requestTimeout" << json(R"({"i32_": 0})")
            << R"(/settings/streaming/requestTimeout takes {"i32_": <milliseconds from 1 to 3600000>}; got {"i32_":0})";
        QTest::newRow("timeout fraction")
            << "/settings/streaming/requestTimeout" << json(R"({"i32_": 10.5})")
            << R"(/settings/streaming/requestTimeout takes {"i32_": <milliseconds from 1 to 3600000>}; got {"i32_":10.5})";
        QTest::newRow("group members not a list")
            << "/settings/grouping/persistentGroup" << json(R"({"groupingPersistentGroup": {"members": "dev-2"}})")
            << R"(/settings/grouping/persistentGroup takes {"groupingPersistentGroup": {"name": <text>, "members": [<device id>...], "timestamp": <milliseconds since the epoch>}}; "members" must be a list of device ids; got {"groupingPersistentGroup":{"members":"dev-2"}})";
        QTest::newRow("group unknown field")
            << "/settings/grouping/persistentGroup" << json(R"({"groupingPersistentGroup": {"memebrs": []}})")
            << R"(/settings/grouping/persistentGroup takes {"groupingPersistentGroup": {"name": <text>, "members": [<device id>...], "timestamp": <milliseconds since the epoch>}}; unknown field "memebrs"; got {"groupingPersistentGroup":{"memebrs":[]}})";
        QTest::newRow("group bare")
            << "/settings/grouping/persistentGroup" << json(R"({"name": "x"})")
            << R"(/settings/grouping/persistentGroup takes {"groupingPersistentGroup": {"name": <text>, "members": [<device id>...], "timestamp": <milliseconds since the epoch>}}; got {"name":"x"})";
        QTest::newRow("state type 3")
            << "/system/deviceState" << json(R"({"systemMemberTranscoderState": {"id": "dev-1", "type": 3}})")
            << R"(/system/deviceState takes {"systemMemberTranscoderState": {"id": <device id>, "type": 0, 1 or 2}}; "type" must be 0, 1 or 2; got {"systemMemberTranscoderState":{"id":"dev-1","type":3}})";
        QTest::newRow("state without type")
            << "/system/deviceState" << json(R"({"systemMemberTranscoderState": {"id": "dev-1"}})")
            << R"(/system/deviceState takes {"systemMemberTranscoderState": {"id": <device id>, "type": 0, 1 or 2}}; "type" is missing; got {"systemMemberTranscoderState":{"id":"dev-1"}})";
        QTest::newRow("player data state text")
            << "/player/data" << json(R"({"state": "idle"})")
            << R"(/player/data takes {"state": <whole number>}; got {"state":"idle"})";
        QTest::newRow("own record")
            << "/system/member" << json(R"({"systemMember": {"id": "x"}})")
            << "/system/member is read-only: this device's record follows /system/deviceState, /settings/device/name "
               "and /settings/grouping/persistentGroup";
        QTest::newRow("own id")
            << "/system/member/id" << json(R"({"string_": "x"})")
            << "/system/member/id is read-only: the device id is set when the host starts (--id)";
        QTest::newRow("discovery counters")
            << "/system/discovery/stats" << json(R"({"dropped": 0})")
            << "/system/discovery/stats is read-only: discovery keeps these counters";
    }

    void wrongWritesAreRefusedWithAReason()
    {
        QFETCH(QString, path);
        QFETCH(QVariant, written);
        QFETCH(QString, reason);
        const auto worker = makeWorker();
        const QVariant before = value(CMPath(path));
        QSignalSpy changed(worker.get(), &HostWorker::recordChanged);
        QCOMPARE(CMRoot()->storeValue(CMPath(path), written), reason);
        QCOMPARE(value(CMPath(path)), before);
        QCOMPARE(changed.count(), 0);
    }

    void aPersistedSettingWinsOverTheConfigFileButNotOverTheCommandLine()
    {
        QTemporaryDir dir;
        const QString file = dir.filePath(QStringLiteral("host.json"));
        {
            QFile out(file);
            QVERIFY(out.open(QIODevice::WriteOnly));
            out.write(R"({"name": "From file", "timeout-ms": 800})");
        }
        QVariantHash persisted;
        persisted.insert(TarvDeviceNameSettingsPath().toString(), name(QStringLiteral("Persisted")));
        persisted.insert(TarvStopStreamingTimeoutPath().toString(), json(R"({"i32_": 4321})"));
        persisted.insert(TarvRequestStreamingTimeoutPath().toString(), ms(777));
        persisted.insert(TarvGroupingPersistentGroupSettingsPath().toString(), group({QStringLiteral("dev-1")}, 5));
        {
            const auto worker = makeWorker({"--config", file}, persisted);
            QCOMPARE(value(TarvDeviceNameSettingsPath()), name(QStringLiteral("Persisted")));
            QCOMPARE(TarvValue(value(TarvStopStreamingTimeoutPath()).toHash()).i32_(), 4321);
            QCOMPARE(value(TarvRequestStreamingTimeoutPath()), ms(777));
            QCOMPARE(record().persistentGroupTimestamp(), qint64(5));
            QCOMPARE(record().name(), QStringLiteral("Persisted"));
        }
        {
            const auto worker = makeWorker({"--config", file, "--name", "Flag", "--resend-ms", "250"}, persisted);
            QCOMPARE(value(TarvDeviceNameSettingsPath()), name(QStringLiteral("Flag")));
            QCOMPARE(value(TarvRequestStreamingTimeoutPath()), ms(250));
            QCOMPARE(TarvValue(value(TarvStopStreamingTimeoutPath()).toHash()).i32_(), 4321);
            QCOMPARE(record().name(), QStringLiteral("Flag"));
        }
    }

    void everyChangeOfASettingIsSaved()
    {
        QTemporaryDir dir;
        HostSettingsStore store(dir.path());
        const auto worker = makeWorker({}, {}, &store);
        QVERIFY(!QFile::exists(store.settingsFile()));

        // Not a setting: nothing is written.
        QCOMPARE(CMRoot()->storeValue(TarvDeviceStatePath(), state(2)), QString());
        QVERIFY(!QFile::exists(store.settingsFile()));

        QCOMPARE(CMRoot()->storeValue(TarvDeviceNameSettingsPath(), name(QStringLiteral("Saved"))), QString());
        QCOMPARE(savedValues(store).value(TarvDeviceNameSettingsPath().toString()), name(QStringLiteral("Saved")));
        QCOMPARE(CMRoot()->storeValue(TarvStopStreamingTimeoutPath(), ms(1500)), QString());
        QCOMPARE(savedValues(store).value(TarvStopStreamingTimeoutPath().toString()), ms(1500));
        QCOMPARE(CMRoot()->storeValue(TarvGroupingPersistentGroupSettingsPath(), group({QStringLiteral("dev-1")}, 9)),
                 QString());
        QCOMPARE(savedValues(store).value(TarvGroupingPersistentGroupSettingsPath().toString()),
                 json(R"({"groupingPersistentGroup": {"name": "Party", "members": ["dev-1"], "timestamp": 9}})"));
        QCOMPARE(savedValues(store).size(), HostWorker::persistedPaths().size());

        // What was saved is what the next start loads.
        QVariantHash loaded;
        QString report;
        QCOMPARE(store.load(&HostWorker::checkPersisted, &loaded, &report), HostSettingsStore::LoadResult::Loaded);
        QCOMPARE(loaded.size(), HostWorker::persistedPaths().size());
    }

    void aReadOnlyDataDirectoryKeepsTheValueAndSavesItLater()
    {
        QTemporaryDir dir;
        QVERIFY(Unprivileged::makeReachable(dir.path()));
        HostSettingsStore store(dir.path());
        const auto worker = makeWorker({}, {}, &store);
        worker->setSaveRetryInterval(50);
        QCOMPARE(CMRoot()->storeValue(TarvDeviceNameSettingsPath(), name(QStringLiteral("First"))), QString());
        const QByteArray before = [&] {
            QFile file(store.settingsFile());
            return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
        }();
        QVERIFY(!before.isEmpty());

        LogCapture log;
        QVERIFY(Unprivileged::makeReadOnly(dir.path()));
        {
            const Unprivileged nobody;
            QCOMPARE(CMRoot()->storeValue(TarvDeviceNameSettingsPath(), name(QStringLiteral("Second"))), QString());
        }
        QCOMPARE(log.count(log4cplus::ERROR_LOG_LEVEL,
                           QStringLiteral("Cannot save settings: cannot write %1.tmp: Permission denied; they are kept in "
                                          "memory and saving is retried in 50 ms")
                               .arg(store.settingsFile()),
                           QStringLiteral("HostWorker")),
                 1);
        QVERIFY(worker->hasUnsavedSettings());
        QCOMPARE(value(TarvDeviceNameSettingsPath()), name(QStringLiteral("Second")));
        QCOMPARE(record().name(), QStringLiteral("Second"));
        {
            QFile file(store.settingsFile());
            QVERIFY(file.open(QIODevice::ReadOnly));
            QCOMPARE(file.readAll(), before);
        }

        // Writable again: the retry saves what was kept in memory.
        QVERIFY(Unprivileged::makeReachable(dir.path()));
        QTRY_VERIFY_WITH_TIMEOUT(!worker->hasUnsavedSettings(), 2000);
        QCOMPARE(savedValues(store).value(TarvDeviceNameSettingsPath().toString()), name(QStringLiteral("Second")));
        QCOMPARE(log.count(log4cplus::INFO_LOG_LEVEL,
                           QStringLiteral("Settings saved to %1 after an earlier failure").arg(store.settingsFile()),
                           QStringLiteral("HostWorker")),
                 1);
    }

    void persistedValuesAreCheckedLikeWrites()
    {
        QCOMPARE(HostWorker::checkPersisted(TarvDeviceNameSettingsPath(), name(QStringLiteral("ok"))), QString());
        QCOMPARE(HostWorker::checkPersisted(TarvPlayerDataPath(), json(R"({"state": 0})")),
                 QStringLiteral("/player/data is not a persisted setting"));
        QCOMPARE(HostWorker::checkPersisted(TarvStopStreamingTimeoutPath(), json(R"({"i32_": -1})")),
                 QStringLiteral(R"(/settings/streaming/stopTimeout takes {"i32_": <milliseconds from 1 to 3600000>}; got {"i32_":-1})"));
    }

    void discoveryCountersArePublished()
    {
        const auto worker = makeWorker();
        QVariantHash stats{{QStringLiteral("dropped"), 2}, {QStringLiteral("malformed"), 2}};
        worker->setDiscoveryStats(stats);
        QCOMPARE(value(HostWorker::discoveryStatsPath()), QVariant(stats));
    }

    void theHouseListStartsLoadingWithTheOwnRow()
    {
        const auto worker = makeWorker({"--host-name", "kitchen.local", "--address", "10.1.2.3", "--name", "Kitchen"});
        auto* house = qobject_cast<CMListRowsNode*>(CMRoot()->findNode(HostWorker::housePath()));
        QVERIFY(house);
        QCOMPARE(HostWorker::housePath().toString(), QStringLiteral("/system/house"));
        QCOMPARE(house, worker->houseNode());
        QVERIFY(house->isLoading());
        QCOMPARE(house->rowsSize(), 1);
        QCOMPARE(house->getRowRoles(0).title().toString(), QStringLiteral("Kitchen"));
        QCOMPARE(QVariant(ownHouseRow()), json(R"({"id": "dev-1", "name": "Kitchen", "host": "kitchen.local",
            "ipAddress": "10.1.2.3", "transcoder": false, "master": "",
            "savedGroup": {"name": "", "members": [], "timestamp": 0}, "api": null})"));
        // It loads while the members list does.
        worker->membersNode()->setLoading(false);
        QVERIFY(!house->isLoading());
    }

    void theOwnRowFollowsTheRecord()
    {
        const auto worker = makeWorker();
        QCOMPARE(CMRoot()->storeValue(TarvDeviceNameSettingsPath(), name(QStringLiteral("Living room"))), QString());
        QCOMPARE(CMRoot()->storeValue(TarvDeviceStatePath(), state(2)), QString());
        QCOMPARE(ownHouseRow().value(QStringLiteral("name")).toString(), QStringLiteral("Living room"));
        QCOMPARE(ownHouseRow().value(QStringLiteral("transcoder")).toBool(), true);
    }

    // The module's list may come after the host's worker, or never.
    void theOwnMasterFollowsTheModulesOwnGroupingRow()
    {
        const auto worker = makeWorker();
        QSignalSpy changed(worker.get(), &HostWorker::ownHouseChanged);
        QCOMPARE(worker->ownHouse().master, QString());
        auto module = std::make_unique<CMNodes>();
        CMListRowsNode* grouping = CMListRowsNode::create(module.get(), TarvGroupingMembersPath());
        grouping->rowsSetById(groupingRow(QStringLiteral("dev-1"), QStringLiteral("dev-1")));
        QTRY_COMPARE_WITH_TIMEOUT(worker->ownHouse().master, QStringLiteral("dev-1"), 2000);
        QCOMPARE(ownHouseRow().value(QStringLiteral("master")).toString(), QStringLiteral("dev-1"));
        QCOMPARE(changed.count(), 1);
        QCOMPARE(changed.first().first().value<Discovery::House>().master, QStringLiteral("dev-1"));

        // Another device's row (a receiver of this transcoder) is not ours.
        grouping->rowsSetById(groupingRow(QStringLiteral("dev-7"), QStringLiteral("dev-9")));
        grouping->rowsSetById(groupingRow(QStringLiteral("dev-1"), QStringLiteral("dev-2")));
        QTRY_COMPARE_WITH_TIMEOUT(worker->ownHouse().master, QStringLiteral("dev-2"), 2000);
        QCOMPARE(ownHouseRow().value(QStringLiteral("master")).toString(), QStringLiteral("dev-2"));
        QCOMPARE(changed.count(), 2);

        grouping->rowsRemoveById(QStringLiteral("dev-1"));
        QTRY_COMPARE_WITH_TIMEOUT(worker->ownHouse().master, QString(), 2000);
        QCOMPARE(ownHouseRow().value(QStringLiteral("master")).toString(), QString());
        QCOMPARE(changed.count(), 3);
    }

    void theSavedGroupNameFollowsTheSetting_data()
    {
        QTest::addColumn<QString>("groupName");
        QTest::addColumn<QString>("announced");
        QTest::addColumn<bool>("warned");
        QTest::newRow("a name") << QStringLiteral("Party") << QStringLiteral("Party") << false;
        QTest::newRow("none") << QString() << QString() << false;
        QTest::newRow("too long to announce") << QString(65, QLatin1Char('g')) << QString() << true;
        QTest::newRow("blank") << QStringLiteral("   ") << QString() << true;
    }

    void theSavedGroupNameFollowsTheSetting()
    {
        QFETCH(QString, groupName);
        QFETCH(QString, announced);
        QFETCH(bool, warned);
        const auto worker = makeWorker();
        LogCapture log;
        QSignalSpy changed(worker.get(), &HostWorker::ownHouseChanged);
        const QVariant saved = TarvValue()
                                   .setGroupingPersistentGroup(TarvGroupingPersistentGroup()
                                                                   .setName(groupName)
                                                                   .setMembers({QStringLiteral("dev-1"), QStringLiteral("dev-2")})
                                                                   .setTimestamp(1700000000123))
                                   .toVariant();
        QCOMPARE(CMRoot()->storeValue(TarvGroupingPersistentGroupSettingsPath(), saved), QString());
        QCOMPARE(worker->ownHouse().savedGroupName, announced);
        QCOMPARE(changed.count(), announced.isEmpty() ? 0 : 1);
        QCOMPARE(ownHouseRow().value(QStringLiteral("savedGroup")),
                 QVariant(QVariantHash{{QStringLiteral("name"), announced},
                                       {QStringLiteral("members"), QVariantList{QStringLiteral("dev-1"), QStringLiteral("dev-2")}},
                                       {QStringLiteral("timestamp"), qint64(1700000000123)}}));
        QCOMPARE(log.countStartingWith(log4cplus::WARN_LOG_LEVEL, QStringLiteral("The saved group's name "),
                                       QStringLiteral("HostWorker")),
                 warned ? 1 : 0);
    }

    void theApiIsReachableUnlessItListensOnLoopback_data()
    {
        QTest::addColumn<QString>("listening");
        QTest::addColumn<int>("port");
        QTest::addColumn<QVariant>("api");
        const QVariant null = QVariant::fromValue(nullptr);
        QTest::newRow("loopback") << QStringLiteral("127.0.0.1") << 8080 << null;
        QTest::newRow("IPv6 loopback") << QStringLiteral("::1") << 8080 << null;
        QTest::newRow("any IPv4: the announced address") << QStringLiteral("0.0.0.0") << 8080
                                                        << json(R"({"address": "10.1.2.3", "port": 8080})");
        QTest::newRow("any IPv6: the announced address") << QStringLiteral("::") << 8081
                                                        << json(R"({"address": "10.1.2.3", "port": 8081})");
        QTest::newRow("one address") << QStringLiteral("10.1.2.99") << 8080
                                     << json(R"({"address": "10.1.2.99", "port": 8080})");
        QTest::newRow("not listening") << QStringLiteral("10.1.2.99") << 0 << null;
    }

    void theApiIsReachableUnlessItListensOnLoopback()
    {
        QFETCH(QString, listening);
        QFETCH(int, port);
        QFETCH(QVariant, api);
        const auto worker = makeWorker({"--address", "10.1.2.3"});
        QSignalSpy changed(worker.get(), &HostWorker::ownHouseChanged);
        worker->setApiListening(QHostAddress(listening), static_cast<quint16>(port));
        QCOMPARE(ownHouseRow().value(QStringLiteral("api")), api);
        const quint16 announced = api.isNull() ? 0 : static_cast<quint16>(port);
        QCOMPARE(worker->ownHouse().apiPort, announced);
        QCOMPARE(changed.count(), announced == 0 ? 0 : 1);
        // Told again: no change.
        worker->setApiListening(QHostAddress(listening), static_cast<quint16>(port));
        QCOMPARE(changed.count(), announced == 0 ? 0 : 1);
    }

    void valuesGoAwayWithTheWorker()
    {
        {
            const auto worker = makeWorker();
            QVERIFY(CMRoot()->hasValue(TarvSystemMemberPath()));
        }
        QVERIFY(!CMRoot()->hasValue(TarvSystemMemberPath()));
        QVERIFY(!CMRoot()->findNode(TarvSystemMembersPath()));
        QVERIFY(!CMRoot()->findNode(HostWorker::housePath()));
    }
};

QTEST_GUILESS_MAIN(tst_HostWorker)
#include "tst_HostWorker.moc"
