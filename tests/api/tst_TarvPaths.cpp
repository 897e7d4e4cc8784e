#include <QUdpSocket>
#include <QtTest>

#include <tarv>

#include "RecordChecks.h"

class tst_TarvPaths : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void everyPathHasItsFixedString_data()
    {
        QTest::addColumn<CMPath>("path");
        QTest::addColumn<QString>("text");
        QTest::newRow("TarvSystemMemberPath") << TarvSystemMemberPath() << "/system/member";
        QTest::newRow("TarvSystemMemberIdPath") << TarvSystemMemberIdPath() << "/system/member/id";
        QTest::newRow("TarvSystemMembersPath") << TarvSystemMembersPath() << "/system/members";
        QTest::newRow("TarvDeviceStatePath") << TarvDeviceStatePath() << "/system/deviceState";
        QTest::newRow("TarvGroupingMembersPath") << TarvGroupingMembersPath() << "/grouping/members";
        QTest::newRow("TarvGroupingMembersRemoveReceiverPath")
            << TarvGroupingMembersRemoveReceiverPath() << "/grouping/removeReceiver";
        QTest::newRow("TarvGroupingRequestPath") << TarvGroupingRequestPath() << "/grouping/request";
        QTest::newRow("TarvGroupingPersistentGroupSettingsPath")
            << TarvGroupingPersistentGroupSettingsPath() << "/settings/grouping/persistentGroup";
        QTest::newRow("TarvGroupingPersistentGroupSavePath")
            << TarvGroupingPersistentGroupSavePath() << "/grouping/persistentGroup/save";
        QTest::newRow("TarvGroupingUIPath") << TarvGroupingUIPath() << "/ui/grouping";
        QTest::newRow("TarvGroupingUILeavePath") << TarvGroupingUILeavePath() << "/ui/grouping/leave";
        QTest::newRow("TarvStopStreamingTimeoutPath")
            << TarvStopStreamingTimeoutPath() << "/settings/streaming/stopTimeout";
        QTest::newRow("TarvRequestStreamingTimeoutPath")
            << TarvRequestStreamingTimeoutPath() << "/settings/streaming/requestTimeout";
        QTest::newRow("TarvDeviceNameSettingsPath") << TarvDeviceNameSettingsPath() << "/settings/device/name";
        QTest::newRow("TarvPlayerDataPath") << TarvPlayerDataPath() << "/player/data";
        QTest::newRow("simple-grouping worker prefix")
            << CMWorker::prefixForName(QStringLiteral("SimpleGroupingWorker")) << "/modules/simpleGrouping";
    }
    void everyPathHasItsFixedString()
    {
        QFETCH(CMPath, path);
        QFETCH(QString, text);
        QCOMPARE(path.toString(), text);
    }

    void requestPortDefaultsToTheFixedPort()
    {
        QCOMPARE(TarvDefaultRequestPort, quint16(41230));
        QCOMPARE(TarvRequestPort(), TarvDefaultRequestPort);
    }

    void requestPortCanBeOverridden()
    {
        // What tests do: take a free port from the system.
        QUdpSocket probe;
        QVERIFY(probe.bind(QHostAddress(QHostAddress::LocalHost), 0));
        const quint16 freePort = probe.localPort();
        probe.close();
        TarvSetRequestPort(freePort);
        QCOMPARE(TarvRequestPort(), freePort);
        TarvSetRequestPort(TarvDefaultRequestPort);
        QCOMPARE(TarvRequestPort(), TarvDefaultRequestPort);
    }
};

QTEST_GUILESS_MAIN(tst_TarvPaths)
#include "tst_TarvPaths.moc"
