#include <sstream>

#include <QtTest>

#include <tarv>

#include "RecordChecks.h"

class tst_CMPath : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void defaultIsEmpty()
    {
        const CMPath path;
        QVERIFY(path.isEmpty());
        QCOMPARE(path.toString(), QString());
        QVERIFY(path.segments().isEmpty());
        QCOMPARE(path, CMPath(""));
    }

    void normalisation_data()
    {
        QTest::addColumn<QString>("written");
        QTest::addColumn<QString>("normal");
        QTest::newRow("already normal") << "/grouping/members" << "/grouping/members";
        QTest::newRow("no leading slash") << "grouping/members" << "/grouping/members";
        QTest::newRow("trailing slash") << "/grouping/members/" << "/grouping/members";
        QTest::newRow("doubled slashes") << "//grouping///members" << "/grouping/members";
        QTest::newRow("root only") << "/" << "";
        QTest::newRow("slashes only") << "///" << "";
        QTest::newRow("empty") << "" << "";
        QTest::newRow("one segment") << "system" << "/system";
    }
    void normalisation()
    {
        QFETCH(QString, written);
        QFETCH(QString, normal);
        QCOMPARE(CMPath(written).toString(), normal);
        QCOMPARE(CMPath(written.toUtf8().constData()).toString(), normal);
        QCOMPARE(CMPath(written).isEmpty(), normal.isEmpty());
    }

    void segments()
    {
        QCOMPARE(CMPath("/a/b/c").segments(), QStringList({"a", "b", "c"}));
    }

    void plusAppendsASegment_data()
    {
        QTest::addColumn<QString>("base");
        QTest::addColumn<QString>("segment");
        QTest::addColumn<QString>("result");
        QTest::newRow("segment") << "/modules" << "simpleGrouping" << "/modules/simpleGrouping";
        QTest::newRow("to empty path") << "" << "system" << "/system";
        QTest::newRow("several segments") << "/a" << "b/c" << "/a/b/c";
        QTest::newRow("slashes around segment") << "/a" << "/b/" << "/a/b";
        QTest::newRow("empty segment") << "/a" << "" << "/a";
    }
    void plusAppendsASegment()
    {
        QFETCH(QString, base);
        QFETCH(QString, segment);
        QFETCH(QString, result);
        QCOMPARE((CMPath(base) + segment).toString(), result);
    }

    void plusLeavesTheOriginalAlone()
    {
        const CMPath base("/a");
        const CMPath longer = base + QStringLiteral("b");
        QCOMPARE(base.toString(), QStringLiteral("/a"));
        QCOMPARE(longer.toString(), QStringLiteral("/a/b"));
    }

    void splitBase_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("base");
        QTest::addColumn<QString>("last");
        QTest::newRow("three segments") << "/a/b/c" << "/a/b" << "c";
        QTest::newRow("one segment") << "/a" << "" << "a";
        QTest::newRow("empty") << "" << "" << "";
        QTest::newRow("removeReceiver") << "/grouping/removeReceiver" << "/grouping" << "removeReceiver";
    }
    void splitBase()
    {
        QFETCH(QString, path);
        QFETCH(QString, base);
        QFETCH(QString, last);
        const QPair<CMPath, QString> split = CMPath(path).splitBase();
        QCOMPARE(split.first, CMPath(base));
        QCOMPARE(split.second, last);
        if (!path.isEmpty())
            QCOMPARE(split.first + split.second, CMPath(path));
    }

    void startsWith_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("base");
        QTest::addColumn<bool>("expected");
        QTest::newRow("itself") << "/a/b" << "/a/b" << true;
        QTest::newRow("below") << "/a/b/c" << "/a/b" << true;
        QTest::newRow("sibling with same prefix") << "/a/bc" << "/a/b" << false;
        QTest::newRow("above") << "/a" << "/a/b" << false;
        QTest::newRow("empty base") << "/a" << "" << true;
    }
    void startsWith()
    {
        QFETCH(QString, path);
        QFETCH(QString, base);
        QFETCH(bool, expected);
        QCOMPARE(CMPath(path).startsWith(CMPath(base)), expected);
    }

    void streamsItsTextIntoOstreamAndQDebug()
    {
        std::ostringstream out;
        out << CMPath("grouping//members/");
        QCOMPARE(QString::fromStdString(out.str()), QStringLiteral("/grouping/members"));
        std::ostringstream empty;
        empty << CMPath();
        QCOMPARE(empty.str(), std::string());
        QString text;
        QDebug(&text) << CMPath("/a/b");
        QCOMPARE(text.trimmed(), QStringLiteral("/a/b"));
    }

    void comparesAndHashesByText()
    {
        QVERIFY(CMPath("/a/b") == CMPath("a/b/"));
        QVERIFY(CMPath("/a/b") != CMPath("/a/c"));
        QVERIFY(CMPath("/a/b") < CMPath("/a/c"));
        QCOMPARE(qHash(CMPath("/a/b")), qHash(CMPath("a//b")));
        QHash<CMPath, int> byPath;
        byPath.insert(CMPath("/x/y"), 1);
        QCOMPARE(byPath.value(CMPath("x/y/")), 1);
    }

    void travelsInRecordsAsTextAndInVariants()
    {
        const TarvEvent event = TarvEvent().setPath(CMPath("/ui/grouping"));
        QCOMPARE(event.value(QStringLiteral("path")).userType(), int(QMetaType::QString));
        QCOMPARE(event.path(), CMPath("/ui/grouping"));
        const QVariant variant = QVariant::fromValue(CMPath("/a"));
        QCOMPARE(variant.value<CMPath>(), CMPath("/a"));
    }
};

QTEST_GUILESS_MAIN(tst_CMPath)
#include "tst_CMPath.moc"
