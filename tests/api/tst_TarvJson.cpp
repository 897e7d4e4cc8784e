#include <QtTest>

#include <tarv>

#include "RecordChecks.h"

class tst_TarvJson : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void objectsBecomeQVariantHashAtEveryDepth()
    {
        TarvError error;
        unsigned int consumed = 0;
        const QByteArray json = R"({"a":{"b":[{"c":1},[{"d":true}]]},"s":"x"})";
        const QVariant value = TarvJson::parse(json, error, &consumed);
        QVERIFY(!error.isError());
        QCOMPARE(consumed, static_cast<unsigned int>(json.size()));
        QCOMPARE(value.userType(), int(QMetaType::QVariantHash));
        const QVariant a = value.toHash().value(QStringLiteral("a"));
        QCOMPARE(a.userType(), int(QMetaType::QVariantHash));
        const QVariantList b = a.toHash().value(QStringLiteral("b")).toList();
        QCOMPARE(b.at(0).userType(), int(QMetaType::QVariantHash));
        QCOMPARE(b.at(1).toList().at(0).userType(), int(QMetaType::QVariantHash));
        QCOMPARE(b.at(1).toList().at(0).toHash().value(QStringLiteral("d")), QVariant(true));
    }

    void parsedRecordsEqualRecordsBuiltInCode()
    {
        const TarvSystemMember built = TarvSystemMember()
            .setId(QStringLiteral("a"))
            .setTranscoder(true)
            .setPersistentGroupTimestamp(Q_INT64_C(1700000000000))
            .setPersistentGroupMembers({QStringLiteral("a")});
        TarvError error;
        const QVariant parsed = TarvJson::parse(
            R"({"id":"a","transcoder":true,"persistentGroupTimestamp":1700000000000,"persistentGroupMembers":["a"]})",
            error, nullptr);
        QCOMPARE(TarvSystemMember(parsed.toHash()), built);
    }

    void arraysBecomeQVariantList()
    {
        TarvError error;
        const QVariant value = TarvJson::parse("[1,\"two\",{\"x\":null}]", error, nullptr);
        QVERIFY(!error.isError());
        QCOMPARE(value.userType(), int(QMetaType::QVariantList));
        QCOMPARE(value.toList().size(), 3);
        QCOMPARE(value.toList().at(2).userType(), int(QMetaType::QVariantHash));
    }

    void badTextIsAnErrorWithAReason_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("truncated") << QByteArray(R"({"id":"a")");
        QTest::newRow("garbage after object") << QByteArray(R"({"id":"a"}xyz)");
        QTest::newRow("not json") << QByteArray("add {");
        QTest::newRow("bare scalar") << QByteArray("5");
        QTest::newRow("bare string") << QByteArray("\"x\"");
        QTest::newRow("binary") << QByteArray("\x00\xff\xfe", 3);
    }
    void badTextIsAnErrorWithAReason()
    {
        QFETCH(QByteArray, json);
        TarvError error;
        unsigned int consumed = 99;
        const QVariant value = TarvJson::parse(json, error, &consumed);
        QVERIFY(!value.isValid());
        QVERIFY(error.isError());
        QVERIFY(!error.message.isEmpty());
        QVERIFY(error.offset >= 0);
        QCOMPARE(consumed, 0u);
    }

    void successClearsAnEarlierError()
    {
        TarvError error;
        TarvJson::parse("{", error, nullptr);
        QVERIFY(error.isError());
        TarvJson::parse("{}", error, nullptr);
        QVERIFY(!error.isError());
        QCOMPARE(error.offset, -1);
    }

    void consumedIsOptional()
    {
        TarvError error;
        QCOMPARE(TarvJson::parse(R"({"a":1})", error, nullptr).toHash().value(QStringLiteral("a")).toInt(), 1);
        QVERIFY(!TarvJson::parse("nope", error, nullptr).isValid());
    }

    void toVariantConvertsJsonValues()
    {
        QJsonObject inner;
        inner.insert(QStringLiteral("k"), 1);
        QJsonObject outer;
        outer.insert(QStringLiteral("inner"), inner);
        const QVariant value = TarvJson::toVariant(QJsonValue(outer));
        QCOMPARE(value.userType(), int(QMetaType::QVariantHash));
        QCOMPARE(value.toHash().value(QStringLiteral("inner")).userType(), int(QMetaType::QVariantHash));
        QCOMPARE(TarvJson::toVariant(QJsonValue(QStringLiteral("s"))), QVariant(QStringLiteral("s")));
    }
};

QTEST_GUILESS_MAIN(tst_TarvJson)
#include "tst_TarvJson.moc"
