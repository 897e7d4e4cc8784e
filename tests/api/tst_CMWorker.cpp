#include <QtTest>

#include <model/cmrequest>
#include <tarv>

#include "RecordChecks.h"

class tst_CMWorker : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup()
    {
        CMRoot()->clearValues();
    }

    void prefixForName_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("prefix");
        QTest::newRow("simple grouping") << "SimpleGroupingWorker" << "/modules/simpleGrouping";
        QTest::newRow("one word") << "PlayerWorker" << "/modules/player";
        QTest::newRow("no Worker suffix") << "Settings" << "/modules/settings";
        QTest::newRow("only Worker") << "Worker" << "/modules/worker";
        QTest::newRow("empty") << "" << "/modules";
    }
    void prefixForName()
    {
        QFETCH(QString, name);
        QFETCH(QString, prefix);
        QCOMPARE(CMWorker::prefixForName(name), CMPath(prefix));
        QCOMPARE(CMWorker(QVariantHash(), name).prefix(), CMPath(prefix));
    }

    void keepsNameAndSettings()
    {
        const QVariantHash settings{{QStringLiteral("key"), 1}};
        const CMWorker worker(settings, QStringLiteral("SimpleGroupingWorker"));
        QCOMPARE(worker.name(), QStringLiteral("SimpleGroupingWorker"));
        QCOMPARE(worker.objectName(), QStringLiteral("SimpleGroupingWorker"));
        QCOMPARE(worker.settings(), settings);
    }

    void addPrefix_data()
    {
        QTest::addColumn<QString>("suffix");
        QTest::addColumn<QString>("path");
        QTest::newRow("empty gives the prefix") << "" << "/modules/simpleGrouping";
        QTest::newRow("segment") << "members" << "/modules/simpleGrouping/members";
        QTest::newRow("several segments") << "a/b" << "/modules/simpleGrouping/a/b";
        QTest::newRow("leading slash") << "/a" << "/modules/simpleGrouping/a";
    }
    void addPrefix()
    {
        QFETCH(QString, suffix);
        QFETCH(QString, path);
        const CMWorker worker(QVariantHash(), QStringLiteral("SimpleGroupingWorker"));
        QCOMPARE(worker.addPrefix(suffix), CMPath(path));
    }

    void readsAndWritesThroughTheRoot()
    {
        CMRoot()->defineValue(CMPath("/w/value"), TarvValue().setI32_(1));
        CMWorker worker(QVariantHash(), QStringLiteral("TestWorker"));
        CMAbstractWorker* asWorker = &worker;
        QCOMPARE(TarvValue(asWorker->getValue(CMPath("/w/value")).toHash()).i32_(), 1);
        const CMReply<QVariant> reply;
        QVERIFY(asWorker->setValue(CMPath("/w/value"), TarvValue().setI32_(2), reply).isFinished());
        QVERIFY(!reply.hasError());
        QCOMPARE(TarvValue(CMRoot()->getValue(CMPath("/w/value")).toHash()).i32_(), 2);
        CMNodes nodes;
        CMListRowsNode::create(&nodes, CMPath("/w/list"));
        const CMReply<QVariant> refused;
        asWorker->setValue(CMPath("/w/list"), TarvValue(), refused);
        QCOMPARE(refused.error().message(), QStringLiteral("Not a value: /w/list"));
    }

    void invokesThroughTheRoot()
    {
        CMNodes nodes;
        CMActivateNode* action = CMActivateNode::create(&nodes, CMPath("/w/action"));
        QObject handler;
        QList<QVariant> values;
        action->setInvoke(&handler, [&values](const CMSetDataRequest& request) {
            values << request.value();
            request.setResult(true);
        });
        CMWorker worker(QVariantHash(), QStringLiteral("TestWorker"));
        const CMReply<QVariant> reply;
        worker.invoke(CMPath("/w/action"), TarvSystemMember().setId(QStringLiteral("x")), reply);
        QTRY_VERIFY_WITH_TIMEOUT(reply.isFinished(), 2000);
        QCOMPARE(reply.result(), QVariant(true));
        QCOMPARE(values.size(), 1);
        QCOMPARE(TarvSystemMember(values.first().toHash()).id(), QStringLiteral("x"));
        const CMReply<QVariant> unknown;
        worker.invoke(CMPath("/w/none"), TarvHash(), unknown);
        QCOMPARE(unknown.error().message(), QStringLiteral("No such action: /w/none"));
    }
};

QTEST_GUILESS_MAIN(tst_CMWorker)
#include "tst_CMWorker.moc"
