#include <QtTest>

#include <model/cmrequest>
#include <model/cmrowsclone>
#include <tarv>

#include "RecordChecks.h"

// Records a clone's signals in order as text, each with the clone's size at
// that moment: "loading true", "item a|- size=1" ("-" is an empty row).
class CloneLog : public QObject
{
public:
    explicit CloneLog(CMRowsClone* clone)
    {
        tarvConnect(clone, &CMRowsClone::loadingChanged, this, [this, clone](bool loading) {
            entries << QStringLiteral("loading %1 size=%2").arg(loading ? "true" : "false").arg(clone->size());
        });
        tarvConnect(clone, &CMRowsClone::itemChanged, this, [this, clone](const TarvRoles& newRoles, const TarvRoles& oldRoles) {
            entries << QStringLiteral("item %1|%2 size=%3")
                           .arg(newRoles.isEmpty() ? QStringLiteral("-") : newRoles.id(),
                                oldRoles.isEmpty() ? QStringLiteral("-") : oldRoles.id())
                           .arg(clone->size());
            newRows << newRoles;
            oldRows << oldRoles;
        });
    }
    void clear()
    {
        entries.clear();
        newRows.clear();
        oldRows.clear();
    }
    QStringList entries;
    QList<TarvRoles> newRows;
    QList<TarvRoles> oldRows;
};

class tst_CMRowsClone : public QObject
{
    Q_OBJECT

private:
    static TarvRoles row(const QString& id, TarvRolesType::Enum type = TarvRolesType::GroupingMember,
                         const QString& name = QString())
    {
        return TarvRoles().setId(id).setType(type).setValue(
            TarvValue().setSystemMember(TarvSystemMember().setId(id).setName(name)));
    }
    static QStringList ids(const CMRowsClone& clone)
    {
        QStringList result;
        for (const TarvRoles& r : clone.rows())
            result << r.id();
        return result;
    }

private Q_SLOTS:
    void startsEmptyThenLoadsExistingRowsOnTheNextPass()
    {
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/c/members"));
        list->rowsAppend(row("a"));
        list->rowsAppend(row("b"));
        CMRowsClone clone(nullptr, CMPath("/c/members"), -1);
        CloneLog log(&clone);
        QCOMPARE(clone.size(), 0);
        QVERIFY(!clone.isLoading());
        QCOMPARE(clone.path(), CMPath("/c/members"));
        QVERIFY(log.entries.isEmpty());
        QTRY_COMPARE_WITH_TIMEOUT(log.entries.size(), 4, 2000);
        QCOMPARE(log.entries, QStringList({"loading true size=0", "item a|- size=1", "item b|- size=2",
                                           "loading false size=2"}));
        QCOMPARE(log.newRows.at(0), row("a"));
        QVERIFY(log.oldRows.at(0).isEmpty());
        QVERIFY(!clone.isLoading());
    }

    void loadingAnEmptyListReportsOnlyLoading()
    {
        CMNodes nodes;
        CMListRowsNode::create(&nodes, CMPath("/c/empty"));
        CMRowsClone clone(nullptr, CMPath("/c/empty"), -1);
        CloneLog log(&clone);
        QTRY_COMPARE_WITH_TIMEOUT(log.entries.size(), 2, 2000);
        QCOMPARE(log.entries, QStringList({"loading true size=0", "loading false size=0"}));
    }

    void waitsForANodeCreatedLater()
    {
        CMRowsClone clone(nullptr, CMPath("/c/later"), -1);
        CloneLog log(&clone);
        QTRY_COMPARE_WITH_TIMEOUT(log.entries.size(), 1, 2000);
        QCOMPARE(log.entries, QStringList({"loading true size=0"}));
        QVERIFY(clone.isLoading());
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/c/later"));
        QCOMPARE(log.entries, QStringList({"loading true size=0", "loading false size=0"}));
        list->rowsAppend(row("a"));
        QCOMPARE(log.entries.last(), QStringLiteral("item a|- size=1"));
        QCOMPARE(log.entries.size(), 3);
        QCOMPARE(clone.rowById(QStringLiteral("a")), row("a"));
    }

    void waitsForALoadingNode()
    {
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/c/loading"));
        list->setLoading(true);
        list->rowsAppend(row("a"));
        CMRowsClone clone(nullptr, CMPath("/c/loading"), -1);
        CloneLog log(&clone);
        QTRY_COMPARE_WITH_TIMEOUT(log.entries.size(), 2, 2000);
        QCOMPARE(log.entries, QStringList({"loading true size=0", "item a|- size=1"}));
        QVERIFY(clone.isLoading());
        list->rowsAppend(row("b"));
        QCOMPARE(log.entries.last(), QStringLiteral("item b|- size=2"));
        list->setLoading(false);
        QCOMPARE(log.entries.last(), QStringLiteral("loading false size=2"));
        QCOMPARE(log.entries.size(), 4);
        QVERIFY(!clone.isLoading());
    }

    void eachChangeIsReportedOnceAfterTheCloneIsUpdated()
    {
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/c/changes"));
        list->rowsAppend(row("a"));
        CMRowsClone clone(nullptr, CMPath("/c/changes"), -1);
        CloneLog log(&clone);
        QTRY_COMPARE_WITH_TIMEOUT(log.entries.size(), 3, 2000);
        log.clear();
        list->rowsAppend(row("b"));
        list->rowsSetById(row("a", TarvRolesType::GroupingMember, QStringLiteral("renamed")));
        list->rowsSetById(row("a", TarvRolesType::GroupingMember, QStringLiteral("renamed")));
        list->rowsRemoveById(QStringLiteral("b"));
        list->rowsRemoveById(QStringLiteral("b"));
        QCOMPARE(log.entries, QStringList({"item b|- size=2", "item a|a size=2", "item -|b size=1"}));
        QCOMPARE(log.newRows.at(1).value().systemMember().name(), QStringLiteral("renamed"));
        QVERIFY(log.oldRows.at(1).value().systemMember().name().isEmpty());
        QCOMPARE(log.oldRows.at(2), row("b"));
        QCOMPARE(clone.rowById(QStringLiteral("a")).value().systemMember().name(), QStringLiteral("renamed"));
        list->rowsClear();
        QCOMPARE(log.entries.last(), QStringLiteral("item -|a size=0"));
        QCOMPARE(clone.size(), 0);
    }

    void givesRowsInListOrderAndById()
    {
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/c/order"));
        list->rowsAppend(row("c"));
        list->rowsAppend(row("a"));
        list->rowsAppend(row("b"));
        CMRowsClone clone(nullptr, CMPath("/c/order"), -1);
        QTRY_VERIFY_WITH_TIMEOUT(clone.size() == 3 && !clone.isLoading(), 2000);
        QCOMPARE(ids(clone), QStringList({"c", "a", "b"}));
        list->rowsRemoveById(QStringLiteral("a"));
        list->rowsAppend(row("d"));
        list->rowsSetById(row("c", TarvRolesType::GroupingMember, QStringLiteral("x")));
        QCOMPARE(ids(clone), QStringList({"c", "b", "d"}));
        QCOMPARE(clone.rowById(QStringLiteral("d")), row("d"));
        QCOMPARE(clone.rowById(QStringLiteral("c")).value().systemMember().name(), QStringLiteral("x"));
        QVERIFY(clone.rowById(QStringLiteral("a")).isEmpty());
    }

    void typeFilterMirrorsOnlyRowsOfThatType()
    {
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/c/typed"));
        list->rowsAppend(row("m1", TarvRolesType::GroupingMember));
        list->rowsAppend(row("t1", TarvRolesType::GroupingTranscoder));
        CMRowsClone clone(nullptr, CMPath("/c/typed"), TarvRolesType::GroupingMember);
        CloneLog log(&clone);
        QTRY_COMPARE_WITH_TIMEOUT(log.entries.size(), 3, 2000);
        QCOMPARE(log.entries, QStringList({"loading true size=0", "item m1|- size=1", "loading false size=1"}));
        log.clear();
        list->rowsAppend(row("t2", TarvRolesType::GroupingTranscoder));
        list->rowsRemoveById(QStringLiteral("t1"));
        QVERIFY(log.entries.isEmpty());
        // A row that changes to another type leaves the clone, and comes back.
        list->rowsSetById(row("m1", TarvRolesType::Follower));
        QCOMPARE(log.entries, QStringList({"item -|m1 size=0"}));
        list->rowsSetById(row("m1", TarvRolesType::GroupingMember));
        QCOMPARE(log.entries.last(), QStringLiteral("item m1|- size=1"));
        QCOMPARE(ids(clone), QStringList({"m1"}));
    }

    void removedNodeEmptiesTheCloneAndANewOneIsLoaded()
    {
        CMRowsClone clone(nullptr, CMPath("/c/gone"), -1);
        CloneLog log(&clone);
        {
            CMNodes nodes;
            CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/c/gone"));
            list->rowsAppend(row("a"));
            list->rowsAppend(row("b"));
            QTRY_COMPARE_WITH_TIMEOUT(log.entries.size(), 4, 2000);
            log.clear();
        }
        QCOMPARE(log.entries, QStringList({"item -|b size=1", "item -|a size=0", "loading true size=0"}));
        log.clear();
        CMNodes nodes;
        CMListRowsNode* again = CMListRowsNode::create(&nodes, CMPath("/c/gone"));
        again->rowsAppend(row("z"));
        QCOMPARE(log.entries, QStringList({"loading false size=0", "item z|- size=1"}));
    }

    void twoClonesOfOneListAgree()
    {
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/c/two"));
        QObject owner;
        auto* first = new CMRowsClone(&owner, CMPath("/c/two"), -1);
        auto* second = new CMRowsClone(&owner, CMPath("/c/two"), -1);
        list->rowsAppend(row("a"));
        QTRY_VERIFY_WITH_TIMEOUT(!first->isLoading() && !second->isLoading() && first->size() == 1 && second->size() == 1,
                                 2000);
        list->rowsAppend(row("b"));
        QCOMPARE(first->rows(), second->rows());
        QCOMPARE(first->parent(), &owner);
    }

    // A slot reacting to one mirror's report finds the change in every other
    // mirror of the list already, whichever mirror reports first.
    void everyMirrorHoldsAChangeBeforeAnyReportsIt()
    {
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/c/phases"));
        list->rowsAppend(row("a"));
        list->rowsAppend(row("b"));
        QObject owner;
        auto* first = new CMRowsClone(&owner, CMPath("/c/phases"), -1);
        auto* second = new CMRowsClone(&owner, CMPath("/c/phases"), -1);
        QTRY_VERIFY_WITH_TIMEOUT(first->size() == 2 && second->size() == 2, 2000);
        QStringList secondSeenByFirst;
        QStringList firstSeenBySecond;
        tarvConnect(first, &CMRowsClone::itemChanged, &owner,
                    [&](const TarvRoles&, const TarvRoles&) { secondSeenByFirst << ids(*second).join(','); });
        tarvConnect(second, &CMRowsClone::itemChanged, &owner,
                    [&](const TarvRoles&, const TarvRoles&) { firstSeenBySecond << ids(*first).join(','); });

        list->rowsRemoveById("a");
        list->rowsAppend(row("c"));
        list->rowsSetById(row("b", TarvRolesType::GroupingMember, "renamed"));
        QCOMPARE(secondSeenByFirst, QStringList({"b", "b,c", "b,c"}));
        QCOMPARE(firstSeenBySecond, QStringList({"b", "b,c", "b,c"}));
        QCOMPARE(second->rowById("b").value().systemMember().name(), QStringLiteral("renamed"));
    }

    // A change made from inside a report is reported after the change being
    // reported, by every mirror, each change once.
    void aChangeMadeWhileReportingIsReportedInOrderByEveryMirror()
    {
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/c/nested"));
        list->rowsAppend(row("s"));
        QObject owner;
        auto* first = new CMRowsClone(&owner, CMPath("/c/nested"), -1);
        auto* second = new CMRowsClone(&owner, CMPath("/c/nested"), -1);
        QTRY_VERIFY_WITH_TIMEOUT(first->size() == 1 && second->size() == 1, 2000);
        CloneLog firstLog(first);
        CloneLog secondLog(second);
        tarvConnect(first, &CMRowsClone::itemChanged, &owner, [&](const TarvRoles& newRoles, const TarvRoles&) {
            if (newRoles.id() == QLatin1String("a"))
                list->rowsAppend(row("b"));
        });

        list->rowsAppend(row("a"));
        QCOMPARE(firstLog.entries, QStringList({"item a|- size=2", "item b|- size=3"}));
        // The second mirror took in b while the first reported a.
        QCOMPARE(secondLog.entries, QStringList({"item a|- size=3", "item b|- size=3"}));
        // Nothing is left to report.
        list->rowsRemoveById("a");
        QCOMPARE(secondLog.entries.last(), QStringLiteral("item -|a size=2"));
        QCOMPARE(secondLog.entries.size(), 3);
    }

    // A change that is nothing to a mirror (filtered out) reports nothing
    // and does not shift the reports of later changes.
    void aFilteredChangeKeepsLaterReportsInStep()
    {
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/c/filtered"));
        list->rowsAppend(row("s"));
        QObject owner;
        auto* members = new CMRowsClone(&owner, CMPath("/c/filtered"), TarvRolesType::GroupingMember);
        QTRY_COMPARE_WITH_TIMEOUT(members->size(), 1, 2000);
        CloneLog log(members);
        list->rowsAppend(row("p", TarvRolesType::Path));
        list->rowsAppend(row("m"));
        list->rowsRemoveById("p");
        list->rowsRemoveById("m");
        QCOMPARE(log.entries, QStringList({"item m|- size=2", "item -|m size=1"}));
    }
};

QTEST_GUILESS_MAIN(tst_CMRowsClone)
#include "tst_CMRowsClone.moc"
