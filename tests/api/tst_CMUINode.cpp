#include <QtTest>

#include <model/cmrequest>
#include <tarv>

class tst_CMUINode : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void startsWithoutTitleAndId()
    {
        CMNodes nodes;
        CMUINode* node = CMListRowsNode::create(&nodes, CMPath("/u/a"));
        QVERIFY(node->title().isEmpty());
        QCOMPARE(node->id(), QString());
    }

    void setTitleReportsEachChangeOnce()
    {
        CMNodes nodes;
        CMUINode* node = CMActivateNode::create(&nodes, CMPath("/u/b"));
        QSignalSpy changed(node, &CMUINode::titleChanged);
        node->setTitle(TrString("VopGrouping"));
        QCOMPARE(node->title().toString(), QStringLiteral("VopGrouping"));
        QCOMPARE(changed.count(), 1);
        QCOMPARE(changed.at(0).at(0).value<TrString>(), TrString("VopGrouping"));
        node->setTitle(TrString("VopGrouping"));
        QCOMPARE(changed.count(), 1);
        node->setTitle(TrString("Other"));
        QCOMPARE(changed.count(), 2);
    }

    void setIdKeepsTheId()
    {
        CMNodes nodes;
        CMUINode* node = CMListRowsNode::create(&nodes, CMPath("/u/c"));
        node->setId(QStringLiteral("row-1"));
        QCOMPARE(node->id(), QStringLiteral("row-1"));
    }
};

QTEST_GUILESS_MAIN(tst_CMUINode)
#include "tst_CMUINode.moc"
