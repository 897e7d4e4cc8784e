#include <sstream>

#include <QtTest>

#include <tarv>

#include "RecordChecks.h"

class tst_TarvHash : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void defaultIsEmpty()
    {
        const TarvHash hash;
        QVERIFY(hash.isEmpty());
        QVERIFY(hash.keys().isEmpty());
        QCOMPARE(hash.toJson(false), QByteArray("{}"));
        QCOMPARE(hash.toVariant().toHash(), QVariantHash());
    }

    void builtFromQVariantHash()
    {
        const QVariantHash source{{QStringLiteral("a"), 1}, {QStringLiteral("b"), QStringLiteral("x")}};
        const TarvHash hash(source);
        QVERIFY(!hash.isEmpty());
        QVERIFY(hash.contains(QStringLiteral("a")));
        QVERIFY(!hash.contains(QStringLiteral("c")));
        QCOMPARE(hash.value(QStringLiteral("b")).toString(), QStringLiteral("x"));
        QCOMPARE(hash.hash(), source);
    }

    void insertAndRemove()
    {
        TarvHash hash;
        hash.insert(QStringLiteral("k"), 5);
        QCOMPARE(hash.value(QStringLiteral("k")).toInt(), 5);
        hash.remove(QStringLiteral("k"));
        QVERIFY(hash.isEmpty());
    }

    void copiesAreIndependentValues()
    {
        TarvHash original(QVariantHash{{QStringLiteral("a"), 1}});
        TarvHash copy = original;
        copy.insert(QStringLiteral("a"), 2);
        QCOMPARE(original.value(QStringLiteral("a")).toInt(), 1);
        QCOMPARE(copy.value(QStringLiteral("a")).toInt(), 2);
    }

    void equalityComparesWholeContent()
    {
        const TarvHash a(QVariantHash{{QStringLiteral("a"), 1}, {QStringLiteral("n"), QVariantHash{{QStringLiteral("x"), 1}}}});
        TarvHash b = a;
        QVERIFY(a == b);
        QVERIFY(!(a != b));
        b.insert(QStringLiteral("extra"), true);
        QVERIFY(a != b);
        TarvHash c(QVariantHash{{QStringLiteral("a"), 1}, {QStringLiteral("n"), QVariantHash{{QStringLiteral("x"), 2}}}});
        QVERIFY(a != c);
    }

    void compactJsonHasNoWhitespaceIndentedJsonHasLines()
    {
        const TarvHash hash(QVariantHash{{QStringLiteral("a"), 1}, {QStringLiteral("b"), QVariantList{1, 2}}});
        const QByteArray compact = hash.toJson(false);
        QVERIFY(!compact.contains(' '));
        QVERIFY(!compact.contains('\n'));
        QVERIFY(hash.toJson(true).contains('\n'));
        QCOMPARE(QJsonDocument::fromJson(hash.toJson(true)), QJsonDocument::fromJson(compact));
        QCOMPARE(TarvHash(QVariantHash{{QStringLiteral("a"), 1}}).toJson(false), QByteArray(R"({"a":1})"));
    }

    void jsonStringIsTheCompactUtf8Text()
    {
        const TarvHash hash(QVariantHash{{QStringLiteral("name"), QStringLiteral("Küche")}});
        QCOMPARE(hash.toJsonString(), QStringLiteral("{\"name\":\"Küche\"}"));
        QCOMPARE(hash.toJsonString().toUtf8(), hash.toJson(false));
    }

    void fromJsonParsesObjects()
    {
        const TarvHash hash = TarvHash::fromJson(R"({"a":{"b":[1,{"c":true}]}})");
        const QVariantHash a = hash.value(QStringLiteral("a")).toHash();
        QCOMPARE(hash.value(QStringLiteral("a")).userType(), int(QMetaType::QVariantHash));
        const QVariantList b = a.value(QStringLiteral("b")).toList();
        QCOMPARE(b.size(), 2);
        QCOMPARE(b.at(1).userType(), int(QMetaType::QVariantHash));
        QCOMPARE(b.at(1).toHash().value(QStringLiteral("c")).toBool(), true);
    }

    void fromJsonOfNonObjectIsEmpty_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::newRow("array") << QByteArray("[1,2]");
        QTest::newRow("garbage") << QByteArray("{not json");
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("scalar") << QByteArray("5");
    }
    void fromJsonOfNonObjectIsEmpty()
    {
        QFETCH(QByteArray, json);
        QVERIFY(TarvHash::fromJson(json).isEmpty());
    }

    void streamsCompactJsonIntoOstreamAndQDebug()
    {
        const TarvHash hash(QVariantHash{{QStringLiteral("id"), QStringLiteral("a")}});
        std::ostringstream out;
        out << hash;
        QCOMPARE(QString::fromStdString(out.str()), QStringLiteral("{\"id\":\"a\"}"));
        QString text;
        QDebug(&text) << hash;
        QCOMPARE(text.trimmed(), QStringLiteral("{\"id\":\"a\"}"));
    }

    void convertsToVariantHash()
    {
        const TarvHash hash(QVariantHash{{QStringLiteral("a"), 1}});
        const QVariant explicitForm = hash.toVariant();
        const QVariant implicitForm = hash;
        QCOMPARE(explicitForm.userType(), int(QMetaType::QVariantHash));
        QCOMPARE(implicitForm.userType(), int(QMetaType::QVariantHash));
        QCOMPARE(TarvHash(explicitForm.toHash()), hash);
    }

    void travelsAsJsonVariantAndStream()
    {
        TarvHash hash(QVariantHash{{QStringLiteral("s"), QStringLiteral("x")},
                                   {QStringLiteral("b"), false},
                                   {QStringLiteral("i"), -3},
                                   {QStringLiteral("l"), QVariantList{QStringLiteral("a"), 2}},
                                   {QStringLiteral("h"), QVariantHash{{QStringLiteral("k"), QStringLiteral("v")}}}});
        verifyRecordForms(hash);
    }
};

QTEST_GUILESS_MAIN(tst_TarvHash)
#include "tst_TarvHash.moc"
