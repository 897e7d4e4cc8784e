#include <QtTest>

#include <model/cmrequest>
#include <tarv>

#include "RecordChecks.h"

class tst_CMNode : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void knowsItsPathAndRegistry()
    {
        CMNodes nodes;
        CMNode* node = CMListRowsNode::create(&nodes, CMPath("grouping/members/"));
        QCOMPARE(node->path(), CMPath("/grouping/members"));
        QCOMPARE(node->nodes(), &nodes);
    }

    void kindNamesTheNodeClass()
    {
        CMNodes nodes;
        CMNode* list = CMListRowsNode::create(&nodes, CMPath("/k/list"));
        CMNode* action = CMActivateNode::create(&nodes, CMPath("/k/action"));
        QCOMPARE(list->kind(), QStringLiteral("list"));
        QCOMPARE(action->kind(), QStringLiteral("action"));
    }

    void castsToItsClass()
    {
        CMNodes nodes;
        CMNode* list = CMListRowsNode::create(&nodes, CMPath("/k/list"));
        CMNode* action = CMActivateNode::create(&nodes, CMPath("/k/action"));
        QVERIFY(qobject_cast<CMListRowsNode*>(list));
        QVERIFY(!qobject_cast<CMActivateNode*>(list));
        QVERIFY(qobject_cast<CMActivateNode*>(action));
        QVERIFY(qobject_cast<CMUINode*>(action));
        QCOMPARE(QByteArray(list->metaObject()->className()), QByteArray("CMListRowsNode"));
    }
};

QTEST_GUILESS_MAIN(tst_CMNode)
#include "tst_CMNode.moc"
