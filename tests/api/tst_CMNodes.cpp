#include <QPointer>
#include <QtTest>

#include <model/cmrequest>
#include <tarv>

#include "LogCapture.h"
#include "RecordChecks.h"

class tst_CMNodes : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void createdNodeIsFoundByPath()
    {
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/t/list"));
        CMActivateNode* action = CMActivateNode::create(&nodes, CMPath("/t/action"));
        QCOMPARE(nodes.node(CMPath("/t/list")), static_cast<CMNode*>(list));
        QCOMPARE(nodes.node(CMPath("t/action/")), static_cast<CMNode*>(action));
        QVERIFY(nodes.isNodeAtPath(CMPath("/t/list")));
        QVERIFY(!nodes.isNodeAtPath(CMPath("/t")));
        QVERIFY(!nodes.isNodeAtPath(CMPath("/t/other")));
        QCOMPARE(nodes.node(CMPath("/t/other")), nullptr);
        QList<CMNode*> all = nodes.allNodes();
        QCOMPARE(all.size(), 2);
        QVERIFY(all.contains(list));
        QVERIFY(all.contains(action));
    }

    void registryOwnsItsNodes()
    {
        QPointer<CMListRowsNode> list;
        {
            CMNodes nodes;
            list = CMListRowsNode::create(&nodes, CMPath("/t/owned"));
            QCOMPARE(list->parent(), &nodes);
            QCOMPARE(list->nodes(), &nodes);
        }
        QVERIFY(list.isNull());
    }

    void creatingANodeEmitsNodeAddedOnce()
    {
        CMNodes nodes;
        QSignalSpy added(&nodes, &CMNodes::nodeAdded);
        QSignalSpy removed(&nodes, &CMNodes::nodeRemoved);
        CMListRowsNode::create(&nodes, CMPath("/t/a"));
        QCOMPARE(added.count(), 1);
        QCOMPARE(added.at(0).at(0).value<CMPath>(), CMPath("/t/a"));
        QCOMPARE(removed.count(), 0);
    }

    void deletingANodeForgetsItAndEmitsNodeRemovedOnce()
    {
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/t/gone"));
        QSignalSpy removed(&nodes, &CMNodes::nodeRemoved);
        delete list;
        QCOMPARE(removed.count(), 1);
        QCOMPARE(removed.at(0).at(0).value<CMPath>(), CMPath("/t/gone"));
        QVERIFY(!nodes.isNodeAtPath(CMPath("/t/gone")));
        QVERIFY(nodes.allNodes().isEmpty());
    }

    void addingAtATakenPathReplacesTheEarlierNode()
    {
        LogCapture log;
        CMNodes nodes;
        QPointer<CMListRowsNode> first = CMListRowsNode::create(&nodes, CMPath("/t/same"));
        QStringList order;
        tarvConnect(&nodes, &CMNodes::nodeAdded, this, [&](const CMPath& p) { order << "added " + p.toString(); });
        tarvConnect(&nodes, &CMNodes::nodeRemoved, this, [&](const CMPath& p) { order << "removed " + p.toString(); });
        CMActivateNode* second = CMActivateNode::create(&nodes, CMPath("/t/same"));
        QVERIFY(first.isNull());
        QCOMPARE(nodes.node(CMPath("/t/same")), static_cast<CMNode*>(second));
        QCOMPARE(nodes.allNodes().size(), 1);
        QCOMPARE(order, QStringList({"removed /t/same", "added /t/same"}));
        QCOMPARE(log.count(log4cplus::WARN_LOG_LEVEL, QStringLiteral("Replacing node at /t/same"), QStringLiteral("CMNodes")), 1);
        // The replaced node's destruction does not remove its successor.
        QVERIFY(nodes.isNodeAtPath(CMPath("/t/same")));
    }

    void everyRegistryIsKnownToTheRoot()
    {
        QSignalSpy rootAdded(CMRoot(), &CMRootWorker::nodeAdded);
        QSignalSpy rootRemoved(CMRoot(), &CMRootWorker::nodeRemoved);
        auto* nodes = new CMNodes;
        CMListRowsNode* list = CMListRowsNode::create(nodes, CMPath("/t/rooted"));
        QCOMPARE(CMRoot()->findNode(CMPath("/t/rooted")), static_cast<CMNode*>(list));
        QVERIFY(CMRoot()->allNodes().contains(list));
        QCOMPARE(rootAdded.count(), 1);
        QCOMPARE(rootAdded.at(0).at(0).value<CMPath>(), CMPath("/t/rooted"));
        delete nodes;
        QCOMPARE(CMRoot()->findNode(CMPath("/t/rooted")), nullptr);
        QCOMPARE(rootRemoved.count(), 1);
        QCOMPARE(rootRemoved.at(0).at(0).value<CMPath>(), CMPath("/t/rooted"));
    }

    void twoRegistriesMayServeDifferentPaths()
    {
        CMNodes a;
        CMNodes b;
        CMListRowsNode* inA = CMListRowsNode::create(&a, CMPath("/t/a"));
        CMListRowsNode* inB = CMListRowsNode::create(&b, CMPath("/t/b"));
        QVERIFY(!a.isNodeAtPath(CMPath("/t/b")));
        QCOMPARE(CMRoot()->findNode(CMPath("/t/a")), static_cast<CMNode*>(inA));
        QCOMPARE(CMRoot()->findNode(CMPath("/t/b")), static_cast<CMNode*>(inB));
    }

    void registryAsChildOfAWorkerDiesWithIt()
    {
        QPointer<CMNodes> nodes;
        {
            QObject owner;
            nodes = new CMNodes(&owner);
            CMListRowsNode::create(nodes, CMPath("/t/child"));
            QVERIFY(CMRoot()->findNode(CMPath("/t/child")));
        }
        QVERIFY(nodes.isNull());
        QCOMPARE(CMRoot()->findNode(CMPath("/t/child")), nullptr);
    }
};

QTEST_GUILESS_MAIN(tst_CMNodes)
#include "tst_CMNodes.moc"
