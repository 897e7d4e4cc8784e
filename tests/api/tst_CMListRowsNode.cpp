#include <QtTest>

#include <model/cmrequest>
#include <tarv>

#include "RecordChecks.h"

// Records every rowChanged as "new|old" ids ("-" for an empty row) together
// with the list's size at the moment of the signal.
class RowLog : public QObject
{
public:
    explicit RowLog(CMListRowsNode* list) : m_list(list)
    {
        tarvConnect(list, &CMListRowsNode::rowChanged, this, [this](const TarvRoles& newRow, const TarvRoles& oldRow) {
            entries << QStringLiteral("%1|%2 size=%3")
                           .arg(newRow.isEmpty() ? QStringLiteral("-") : newRow.id(),
                                oldRow.isEmpty() ? QStringLiteral("-") : oldRow.id())
                           .arg(m_list->rowsSize());
            newRows << newRow;
            oldRows << oldRow;
        });
    }
    QStringList entries;
    QList<TarvRoles> newRows;
    QList<TarvRoles> oldRows;

private:
    CMListRowsNode* m_list;
};

class tst_CMListRowsNode : public QObject
{
    Q_OBJECT

private:
    static TarvRoles row(const QString& id, const QString& title = QString())
    {
        return TarvRoles().setId(id).setType(TarvRolesType::GroupingMember).setTitle(TrString(title.isEmpty() ? id : title))
            .setValue(TarvValue().setGroupingMember(
                TarvGroupingMember().setFollower(TarvSystemMember().setId(id))));
    }
    static QStringList ids(const CMListRowsNode* list)
    {
        QStringList result;
        for (const TarvRoles& r : list->rolesList())
            result << r.id();
        return result;
    }

private Q_SLOTS:
    void startsEmptyAndNotLoading()
    {
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/l/a"));
        QCOMPARE(list->rowsSize(), 0);
        QVERIFY(list->rows().isEmpty());
        QVERIFY(!list->isLoading());
        QVERIFY(list->getRowRoles(0).isEmpty());
        QVERIFY(list->rowsGetById(QStringLiteral("x")).isEmpty());
    }

    void rowsAppendAddsInOrderAndReportsEachAddition()
    {
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/l/a"));
        RowLog log(list);
        list->rowsAppend(row("a"));
        list->rowsAppend(row("b"));
        list->rowsAppend(row("c"));
        QCOMPARE(log.entries, QStringList({"a|- size=1", "b|- size=2", "c|- size=3"}));
        QCOMPARE(ids(list), QStringList({"a", "b", "c"}));
        QCOMPARE(list->rowsSize(), 3);
        QCOMPARE(log.newRows.at(1), row("b"));
        QVERIFY(log.oldRows.at(1).isEmpty());
    }

    void rowsGiveTheRowHashesInOrder()
    {
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/l/a"));
        list->rowsAppend(row("a"));
        list->rowsAppend(row("b"));
        const QList<QVariant> rows = list->rows();
        QCOMPARE(rows.size(), 2);
        QCOMPARE(rows.at(0).userType(), int(QMetaType::QVariantHash));
        QCOMPARE(TarvRoles(rows.at(0).toHash()), row("a"));
        QCOMPARE(TarvRoles(rows.at(1).toHash()), row("b"));
    }

    void getRowRolesByIndex()
    {
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/l/a"));
        list->rowsAppend(row("a"));
        list->rowsAppend(row("b"));
        QCOMPARE(list->getRowRoles(0), row("a"));
        QCOMPARE(list->getRowRoles(1), row("b"));
        QVERIFY(list->getRowRoles(2).isEmpty());
        QVERIFY(list->getRowRoles(-1).isEmpty());
    }

    void rowsGetByIdFindsTheRowOrGivesEmpty()
    {
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/l/a"));
        list->rowsAppend(row("a"));
        list->rowsAppend(row("b"));
        QCOMPARE(list->rowsGetById(QStringLiteral("b")), row("b"));
        QVERIFY(list->rowsGetById(QStringLiteral("z")).isEmpty());
        QVERIFY(list->rowsGetById(QString()).isEmpty());
    }

    void rowsSetByIdAddsAMissingRow()
    {
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/l/a"));
        list->rowsAppend(row("a"));
        RowLog log(list);
        list->rowsSetById(row("b"));
        QCOMPARE(log.entries, QStringList({"b|- size=2"}));
        QCOMPARE(ids(list), QStringList({"a", "b"}));
    }

    void rowsSetByIdReplacesInPlaceAndReportsOldRow()
    {
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/l/a"));
        list->rowsAppend(row("a"));
        list->rowsAppend(row("b"));
        list->rowsAppend(row("c"));
        RowLog log(list);
        list->rowsSetById(row("b", "renamed"));
        QCOMPARE(log.entries, QStringList({"b|b size=3"}));
        QCOMPARE(log.newRows.first().title().toString(), QStringLiteral("renamed"));
        QCOMPARE(log.oldRows.first(), row("b"));
        QCOMPARE(ids(list), QStringList({"a", "b", "c"}));
        QCOMPARE(list->getRowRoles(1).title().toString(), QStringLiteral("renamed"));
    }

    void writingAnEqualRowReportsNothing()
    {
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/l/a"));
        list->rowsAppend(row("a"));
        RowLog log(list);
        list->rowsSetById(row("a"));
        list->rowsAppend(row("a"));
        QVERIFY(log.entries.isEmpty());
        QCOMPARE(list->rowsSize(), 1);
    }

    void rowsAppendWithATakenIdReplacesThatRow()
    {
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/l/a"));
        list->rowsAppend(row("a"));
        list->rowsAppend(row("b"));
        RowLog log(list);
        list->rowsAppend(row("a", "again"));
        QCOMPARE(log.entries, QStringList({"a|a size=2"}));
        QCOMPARE(ids(list), QStringList({"a", "b"}));
        QCOMPARE(list->getRowRoles(0).title().toString(), QStringLiteral("again"));
    }

    void rowsRemoveByIdRemovesAndReportsTheRemoval()
    {
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/l/a"));
        list->rowsAppend(row("a"));
        list->rowsAppend(row("b"));
        list->rowsAppend(row("c"));
        RowLog log(list);
        list->rowsRemoveById(QStringLiteral("b"));
        QCOMPARE(log.entries, QStringList({"-|b size=2"}));
        QVERIFY(log.newRows.first().isEmpty());
        QCOMPARE(log.oldRows.first(), row("b"));
        QCOMPARE(ids(list), QStringList({"a", "c"}));
    }

    void rowsRemoveByIdOfAMissingRowReportsNothing()
    {
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/l/a"));
        list->rowsAppend(row("a"));
        RowLog log(list);
        list->rowsRemoveById(QStringLiteral("zz"));
        list->rowsRemoveById(QString());
        QVERIFY(log.entries.isEmpty());
        QCOMPARE(list->rowsSize(), 1);
    }

    void rowsClearReportsEveryRowOnce()
    {
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/l/a"));
        list->rowsAppend(row("a"));
        list->rowsAppend(row("b"));
        list->rowsAppend(row("c"));
        RowLog log(list);
        list->rowsClear();
        QCOMPARE(log.entries, QStringList({"-|a size=2", "-|b size=1", "-|c size=0"}));
        QCOMPARE(list->rowsSize(), 0);
        list->rowsClear();
        QCOMPARE(log.entries.size(), 3);
    }

    // Each change is announced by rowChanging, with the same rows and the
    // list already holding it, right before rowChanged reports it.
    void rowChangingAnnouncesEachChangeJustBeforeRowChanged()
    {
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/l/phases"));
        list->rowsAppend(row("a"));
        QStringList seen;
        QObject context;
        tarvConnect(list, &CMListRowsNode::rowChanging, &context, [&](const TarvRoles& newRow, const TarvRoles& oldRow) {
            seen << QStringLiteral("changing %1|%2 size=%3")
                           .arg(newRow.isEmpty() ? QStringLiteral("-") : newRow.id(),
                                oldRow.isEmpty() ? QStringLiteral("-") : oldRow.id())
                           .arg(list->rowsSize());
        });
        RowLog log(list);
        tarvConnect(list, &CMListRowsNode::rowChanged, &context,
                    [&](const TarvRoles&, const TarvRoles&) { seen << log.entries.last(); });
        list->rowsAppend(row("b"));
        list->rowsSetById(row("a", "renamed"));
        list->rowsSetById(row("a", "renamed"));
        list->rowsRemoveById("b");
        list->rowsClear();
        QCOMPARE(seen, QStringList({"changing b|- size=2", "b|- size=2", "changing a|a size=2", "a|a size=2",
                                       "changing -|b size=1", "-|b size=1", "changing -|a size=0", "-|a size=0"}));
    }

    void rowsAppendPathAddsARowPointingAtTheNode()
    {
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/l/a"));
        CMListRowsNode* members = CMListRowsNode::create(&nodes, CMPath("/grouping/members"));
        members->setTitle(TrString("Members"));
        RowLog log(list);
        list->rowsAppend(CMPath("/grouping/members"));
        list->rowsAppend(CMPath("/nowhere"));
        QCOMPARE(log.entries, QStringList({"/grouping/members|- size=1", "/nowhere|- size=2"}));
        const TarvRoles first = list->getRowRoles(0);
        QCOMPARE(first.id(), QStringLiteral("/grouping/members"));
        QCOMPARE(first.path(), CMPath("/grouping/members"));
        QCOMPARE(first.type(), TarvRolesType::Path);
        QCOMPARE(first.title().toString(), QStringLiteral("Members"));
        QVERIFY(list->getRowRoles(1).title().isEmpty());
        QCOMPARE(list->getRowRoles(1).path(), CMPath("/nowhere"));
        // Appending the same path again is the same row.
        list->rowsAppend(CMPath("/grouping/members"));
        QCOMPARE(log.entries.size(), 2);
    }

    void loadingFlagIsReportedOncePerChange()
    {
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/l/a"));
        QSignalSpy loading(list, &CMListRowsNode::loadingChanged);
        list->setLoading(true);
        list->setLoading(true);
        QVERIFY(list->isLoading());
        list->setLoading(false);
        list->setLoading(false);
        QVERIFY(!list->isLoading());
        QCOMPARE(loading.count(), 2);
        QCOMPARE(loading.at(0).at(0).toBool(), true);
        QCOMPARE(loading.at(1).at(0).toBool(), false);
    }

    void rowChangesReachTheRootWithThePath()
    {
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/l/rooted"));
        QSignalSpy rows(CMRoot(), &CMRootWorker::rowsChanged);
        list->rowsAppend(row("a"));
        list->rowsRemoveById(QStringLiteral("a"));
        QCOMPARE(rows.count(), 2);
        QCOMPARE(rows.at(0).at(0).value<CMPath>(), CMPath("/l/rooted"));
        QCOMPARE(rows.at(0).at(1).value<TarvRoles>(), row("a"));
        QVERIFY(rows.at(0).at(2).value<TarvRoles>().isEmpty());
        QVERIFY(rows.at(1).at(1).value<TarvRoles>().isEmpty());
        QCOMPARE(rows.at(1).at(2).value<TarvRoles>(), row("a"));
    }
};

QTEST_GUILESS_MAIN(tst_CMListRowsNode)
#include "tst_CMListRowsNode.moc"
