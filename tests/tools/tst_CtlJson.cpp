#include <QJsonArray>
#include <QJsonObject>
#include <QtTest>

#include "CtlJson.h"

class tst_CtlJson : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void parsesAnySingleValue_data();
    void parsesAnySingleValue();
    void refusesWhatIsNotOneValue_data();
    void refusesWhatIsNotOneValue();
    void writesScalarsAndRecords_data();
    void writesScalarsAndRecords();
};

void tst_CtlJson::parsesAnySingleValue_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QJsonValue>("value");
    QTest::newRow("object") << QByteArray(R"({"i32_": 5000})") << QJsonValue(QJsonObject{{"i32_", 5000}});
    QTest::newRow("array") << QByteArray("[1, 2]") << QJsonValue(QJsonArray{1, 2});
    QTest::newRow("number") << QByteArray("-5") << QJsonValue(-5);
    QTest::newRow("string") << QByteArray(R"("dev1")") << QJsonValue("dev1");
    QTest::newRow("true") << QByteArray("true") << QJsonValue(true);
    QTest::newRow("null") << QByteArray("null") << QJsonValue(QJsonValue::Null);
    QTest::newRow("spaces") << QByteArray("  {}\n") << QJsonValue(QJsonObject());
    QTest::newRow("utf-8") << QByteArray("\"k\xc3\xbc\x63he\"") << QJsonValue(QString::fromUtf8("k\xc3\xbc\x63he"));
}

void tst_CtlJson::parsesAnySingleValue()
{
    QFETCH(QByteArray, text);
    QFETCH(QJsonValue, value);
    QJsonValue parsed;
    QString error;
    QVERIFY2(CtlJson::parse(text, &parsed, &error), qPrintable(error));
    QCOMPARE(parsed, value);
}

void tst_CtlJson::refusesWhatIsNotOneValue_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QString>("error");
    QTest::newRow("empty") << QByteArray("") << "no JSON value";
    QTest::newRow("two values") << QByteArray("1, 2") << "more than one JSON value";
    QTest::newRow("bare word") << QByteArray("dev1") << "illegal number at character 1";
    QTest::newRow("unterminated") << QByteArray(R"({"a": 1)") << "invalid termination by number at character 8";
    QTest::newRow("bracket escape") << QByteArray("1]") << "garbage at the end of the document at character 3";
}

void tst_CtlJson::refusesWhatIsNotOneValue()
{
    QFETCH(QByteArray, text);
    QFETCH(QString, error);
    QJsonValue parsed(42);
    QString why;
    QVERIFY(!CtlJson::parse(text, &parsed, &why));
    QCOMPARE(why, error);
    QCOMPARE(parsed, QJsonValue(42)); // untouched
}

void tst_CtlJson::writesScalarsAndRecords_data()
{
    QTest::addColumn<QJsonValue>("value");
    QTest::addColumn<QByteArray>("compact");
    QTest::newRow("object") << QJsonValue(QJsonObject{{"string_", "a"}}) << QByteArray(R"({"string_":"a"})");
    QTest::newRow("array") << QJsonValue(QJsonArray{1, "x"}) << QByteArray(R"([1,"x"])");
    QTest::newRow("number") << QJsonValue(-5) << QByteArray("-5");
    QTest::newRow("string") << QJsonValue("a\"b") << QByteArray(R"("a\"b")");
    QTest::newRow("bool") << QJsonValue(true) << QByteArray("true");
    QTest::newRow("null") << QJsonValue() << QByteArray("null");
    QTest::newRow("undefined") << QJsonValue(QJsonValue::Undefined) << QByteArray("null");
}

void tst_CtlJson::writesScalarsAndRecords()
{
    QFETCH(QJsonValue, value);
    QFETCH(QByteArray, compact);
    QCOMPARE(CtlJson::toBytes(value), compact);
    QJsonValue back;
    QVERIFY(CtlJson::parse(CtlJson::toBytes(value, true), &back, nullptr));
    QCOMPARE(back, value.isUndefined() ? QJsonValue() : value);
}

QTEST_GUILESS_MAIN(tst_CtlJson)
#include "tst_CtlJson.moc"
