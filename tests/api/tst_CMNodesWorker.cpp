#include <QPointer>
#include <QtTest>

#include <model/cmrequest>
#include <tarv>

#include "RecordChecks.h"

class tst_CMNodesWorker : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void ownsARegistryKnownToTheRoot()
    {
        CMNodesWorker worker(QVariantHash(), QStringLiteral("SimpleGroupingWorker"));
        QVERIFY(worker.nodes());
        QCOMPARE(worker.nodes()->parent(), &worker);
        CMListRowsNode* list = CMListRowsNode::create(worker.nodes(), worker.addPrefix(QString()));
        QCOMPARE(list->path(), CMPath("/modules/simpleGrouping"));
        QCOMPARE(CMRoot()->findNode(CMPath("/modules/simpleGrouping")), static_cast<CMNode*>(list));
        QVERIFY(worker.nodes()->isNodeAtPath(CMPath("/modules/simpleGrouping")));
    }

    void nodesGoWithTheWorker()
    {
        QPointer<CMNodes> nodes;
        QPointer<CMListRowsNode> list;
        {
            CMNodesWorker worker(QVariantHash(), QStringLiteral("GoneWorker"));
            nodes = worker.nodes();
            list = CMListRowsNode::create(worker.nodes(), worker.addPrefix(QStringLiteral("list")));
            QCOMPARE(list->path(), CMPath("/modules/gone/list"));
        }
        QVERIFY(nodes.isNull());
        QVERIFY(list.isNull());
        QCOMPARE(CMRoot()->findNode(CMPath("/modules/gone/list")), nullptr);
    }

    void isAWorkerWithNameSettingsAndPrefix()
    {
        const QVariantHash settings{{QStringLiteral("x"), QStringLiteral("y")}};
        CMNodesWorker worker(settings, QStringLiteral("SimpleGroupingWorker"));
        CMWorker* asWorker = &worker;
        QCOMPARE(asWorker->name(), QStringLiteral("SimpleGroupingWorker"));
        QCOMPARE(asWorker->settings(), settings);
        QCOMPARE(asWorker->prefix(), CMPath("/modules/simpleGrouping"));
        QVERIFY(qobject_cast<CMAbstractWorker*>(&worker));
    }
};

QTEST_GUILESS_MAIN(tst_CMNodesWorker)
#include "tst_CMNodesWorker.moc"
