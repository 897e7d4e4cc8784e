#include <QJsonArray>
#include <QJsonDocument>
#include <QtTest>

#include "CtlFormatter.h"

namespace {

QJsonObject object(const char* json)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        qFatal("bad test JSON: %s", json);
    return document.object();
}

} // namespace

class tst_CtlFormatter : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void hostListsEveryField();
    void valueShowsTheSingleView_data();
    void valueShowsTheSingleView();
    void summaryIsOneShortLine_data();
    void summaryIsOneShortLine();
    void rowTypeNamesTheKnownTypes_data();
    void rowTypeNamesTheKnownTypes();
    void rowsIsATable();
    void rowsCopesWithMalformedRows();
    void groupingViewShowsTranscodersWithTheFollowedOneMarked();
    void groupingViewShowsFollowers();
    void groupingViewOfNoTranscoders();
    void groupingViewCopesWithMalformedRows();
    void transcoderNameDropsTheMarkOfTheFollowedOnly();
    void treeShowsNodesRowsAndValues();
    void treeOfUnknownShapeIsShownAsJson();
    void eventIsOneLine_data();
    void eventIsOneLine();
    void eventPathIsReadFromTheData_data();
    void eventPathIsReadFromTheData();
    void printableEscapesControlCharacters_data();
    void printableEscapesControlCharacters();
};

void tst_CtlFormatter::hostListsEveryField()
{
    const QString text = CtlFormatter::host(object(
        R"({"id":"d-1","name":"dev1","host":"h1","address":"127.0.0.1","requestPort":41230,"version":"0.1.0","extra":true})"));
    QCOMPARE(text, QString("id:           d-1\n"
                           "name:         dev1\n"
                           "host:         h1\n"
                           "address:      127.0.0.1\n"
                           "request port: 41230\n"
                           "version:      0.1.0\n"
                           "extra:        true"));
    // Missing or oddly typed fields show empty or as JSON, never crash.
    QCOMPARE(CtlFormatter::host(object(R"({"name":["a"]})")).split('\n').at(1), QString("name:         [\"a\"]"));
}

void tst_CtlFormatter::valueShowsTheSingleView_data()
{
    QTest::addColumn<QJsonValue>("value");
    QTest::addColumn<QString>("text");
    QTest::newRow("string") << QJsonValue(object(R"({"string_":"dev1"})")) << "dev1";
    QTest::newRow("number") << QJsonValue(object(R"({"i32_":5000})")) << "5000";
    QTest::newRow("negative number") << QJsonValue(object(R"({"i32_":-1})")) << "-1";
    QTest::newRow("record") << QJsonValue(object(R"({"systemMemberTranscoderState":{"id":"a","type":2}})"))
                            << "{\n    \"id\": \"a\",\n    \"type\": 2\n}";
    QTest::newRow("empty") << QJsonValue(QJsonObject()) << "(no value)";
    QTest::newRow("result true") << QJsonValue(true) << "true";
    QTest::newRow("bare string") << QJsonValue("x") << "x";
    QTest::newRow("null") << QJsonValue() << "null";
    QTest::newRow("two views") << QJsonValue(object(R"({"i32_":1,"string_":"x"})"))
                               << "{\n    \"i32_\": 1,\n    \"string_\": \"x\"\n}";
    QTest::newRow("string view not a string") << QJsonValue(object(R"({"string_":5})")) << "{\n    \"string_\": 5\n}";
}

void tst_CtlFormatter::valueShowsTheSingleView()
{
    QFETCH(QJsonValue, value);
    QFETCH(QString, text);
    QCOMPARE(CtlFormatter::value(value), text);
}

void tst_CtlFormatter::summaryIsOneShortLine_data()
{
    QTest::addColumn<QJsonValue>("value");
    QTest::addColumn<QString>("text");
    QTest::newRow("grouping member") << QJsonValue(object(
        R"({"groupingMember":{"follower":{"id":"b","name":"dev2"},"master":{"id":"a","name":"dev1"}}})"))
                                     << "follower dev2 -> master dev1";
    QTest::newRow("grouping member without names") << QJsonValue(object(
        R"({"groupingMember":{"follower":{"id":"b"},"master":{}}})")) << "follower b -> master ?";
    QTest::newRow("system member") << QJsonValue(object(
        R"({"systemMember":{"id":"a","name":"dev1","host":"h1","ipAddress":"10.0.0.1","transcoder":true}})"))
                                   << "dev1 on h1 (10.0.0.1), transcoder";
    QTest::newRow("receiver") << QJsonValue(object(R"({"systemMember":{"id":"a","name":"dev1"}})"))
                              << "dev1, receiver";
    QTest::newRow("join") << QJsonValue(object(R"({"groupingRequest":{"command":1,"master":{"id":"a","name":"dev1"}}})"))
                          << "join dev1";
    QTest::newRow("leave") << QJsonValue(object(R"({"groupingRequest":{"command":-1}})")) << "leave";
    QTest::newRow("other command") << QJsonValue(object(R"({"groupingRequest":{"command":7}})")) << "command 7";
    QTest::newRow("saved group") << QJsonValue(object(
        R"({"groupingPersistentGroup":{"name":"g","members":["a","b"],"timestamp":5}})")) << "group 'g', 2 member(s)";
    QTest::newRow("state") << QJsonValue(object(R"({"systemMemberTranscoderState":{"id":"a","type":1}})"))
                           << "receiver (a)";
    QTest::newRow("string") << QJsonValue(object(R"({"string_":"x"})")) << "x";
    QTest::newRow("number") << QJsonValue(object(R"({"i32_":7})")) << "7";
    QTest::newRow("empty") << QJsonValue(QJsonObject()) << "";
    QTest::newRow("unknown view") << QJsonValue(object(R"({"playLogicData":{"state":0}})"))
                                  << "{\"playLogicData\":{\"state\":0}}";
    QTest::newRow("view of wrong type") << QJsonValue(object(R"({"groupingMember":3})")) << "{\"groupingMember\":3}";
    QTest::newRow("long is cut") << QJsonValue(object(("{\"string_\":\"" + QByteArray(100, 'x') + "\"}").constData()))
                                 << QString(77, 'x') + "...";
}

void tst_CtlFormatter::summaryIsOneShortLine()
{
    QFETCH(QJsonValue, value);
    QFETCH(QString, text);
    QCOMPARE(CtlFormatter::summary(value), text);
    QVERIFY(!CtlFormatter::summary(value).contains('\n'));
}

void tst_CtlFormatter::rowTypeNamesTheKnownTypes_data()
{
    QTest::addColumn<QJsonValue>("type");
    QTest::addColumn<QString>("text");
    QTest::newRow("member") << QJsonValue(101) << "101 member";
    QTest::newRow("transcoder") << QJsonValue(102) << "102 transcoder";
    QTest::newRow("follower") << QJsonValue(6) << "6 follower";
    QTest::newRow("path") << QJsonValue(3) << "3 path";
    QTest::newRow("unknown") << QJsonValue(42) << "42";
    QTest::newRow("not a number") << QJsonValue("x") << "x";
    QTest::newRow("missing") << QJsonValue(QJsonValue::Undefined) << "";
}

void tst_CtlFormatter::rowTypeNamesTheKnownTypes()
{
    QFETCH(QJsonValue, type);
    QFETCH(QString, text);
    QCOMPARE(CtlFormatter::rowType(type), text);
}

void tst_CtlFormatter::rowsIsATable()
{
    const QJsonObject answer = object(R"({"path":"/grouping/members","title":"Members","rows":[
        {"id":"b-2","type":101,"title":"dev2","path":"","value":{"groupingMember":{"follower":{"id":"b-2","name":"dev2"},"master":{"id":"a","name":"dev1"}}}},
        {"id":"a","type":101,"title":"dev1","path":"","value":{"groupingMember":{"follower":{"id":"a","name":"dev1"},"master":{"id":"a","name":"dev1"}}}},
        {"id":"ui","type":3,"title":"","path":"/ui/grouping","value":{}}]})");
    QCOMPARE(CtlFormatter::rows(answer), QString("/grouping/members \"Members\": 3 rows\n"
                                                 "ID   TYPE        TITLE  VALUE\n"
                                                 "b-2  101 member  dev2   follower dev2 -> master dev1\n"
                                                 "a    101 member  dev1   follower dev1 -> master dev1\n"
                                                 "ui   3 path             -> /ui/grouping"));
    QCOMPARE(CtlFormatter::rows(object(R"({"path":"/x","title":"","rows":[]})")), QString("/x: 0 rows"));
    QCOMPARE(CtlFormatter::rows(object(R"({"path":"/x","title":"","loading":true,"rows":[]})")),
             QString("/x: 0 rows (still loading)"));
    QCOMPARE(CtlFormatter::rows(object(R"({"path":"/x","title":"","loading":false,"rows":[]})")), QString("/x: 0 rows"));
}

void tst_CtlFormatter::rowsCopesWithMalformedRows()
{
    const QString text = CtlFormatter::rows(object(R"({"path":"/x","rows":[5,"s",null,{"id":7,"type":"t","title":{}}]})"));
    QCOMPARE(text, QString("/x: 4 rows\n"
                           "ID  TYPE  TITLE  VALUE\n"
                           "                 (not a row: 5)\n"
                           "                 (not a row: \"s\")\n"
                           "                 (not a row: null)\n"
                           "7   t     {}"));
    QCOMPARE(CtlFormatter::rows(QJsonObject()), QString(": 0 rows"));
}

void tst_CtlFormatter::groupingViewShowsTranscodersWithTheFollowedOneMarked()
{
    const QJsonObject answer = object(R"({"path":"/ui/grouping","title":"Transcoders","loading":false,"rows":[
        {"id":"c-3","type":102,"title":"kitchen","path":"/ui/grouping/joinTranscoder/c-3"},
        {"id":"a-1","type":102,"title":"   >   living room","path":"/ui/grouping/leave"},
        {"id":"d","type":102,"title":"d","path":"/ui/grouping/joinTranscoder/d"}]})");
    QCOMPARE(CtlFormatter::groupingView(answer), QString("Transcoders\n"
                                                         "    kitchen      [c-3]\n"
                                                         "  > living room  [a-1]  following\n"
                                                         "    d            [d]"));
}

void tst_CtlFormatter::groupingViewShowsFollowers()
{
    const QJsonObject answer = object(R"({"path":"/ui/grouping","title":"List of followers","rows":[
        {"id":"0-followers-list","type":6,"title":"Can't join playback while having followers!"},
        {"id":"b-follower","type":6,"title":"Follower: dev2"}]})");
    QCOMPARE(CtlFormatter::groupingView(answer), QString("List of followers\n"
                                                         "    Can't join playback while having followers!\n"
                                                         "    Follower: dev2"));
}

void tst_CtlFormatter::groupingViewOfNoTranscoders()
{
    QCOMPARE(CtlFormatter::groupingView(object(R"({"path":"/ui/grouping","title":"Transcoders","rows":[]})")),
             QString("Transcoders\n    (no transcoder to join)"));
}

void tst_CtlFormatter::groupingViewCopesWithMalformedRows()
{
    QCOMPARE(CtlFormatter::groupingView(QJsonObject()), QString("(untitled list)\n    (no transcoder to join)"));
    QCOMPARE(CtlFormatter::groupingView(object(R"({"title":7,"rows":[5,{"type":102,"title":{},"id":null}]})")),
             QString("7\n    \n    {}  []"));
}

void tst_CtlFormatter::transcoderNameDropsTheMarkOfTheFollowedOnly()
{
    QCOMPARE(CtlFormatter::transcoderName(object(R"({"title":"   >   dev1","path":"/ui/grouping/leave"})")),
             QString("dev1"));
    QCOMPARE(CtlFormatter::transcoderName(object(R"({"title":"   >   dev1","path":"/ui/grouping/joinTranscoder/x"})")),
             QString("   >   dev1"));
    QCOMPARE(CtlFormatter::transcoderName(object(R"({"title":"dev1","path":"/ui/grouping/leave"})")), QString("dev1"));
    QVERIFY(CtlFormatter::isFollowedTranscoder(object(R"({"path":"/ui/grouping/leave"})")));
    QVERIFY(!CtlFormatter::isFollowedTranscoder(object(R"({"path":"/ui/grouping/joinTranscoder/x"})")));
    QVERIFY(!CtlFormatter::isFollowedTranscoder(QJsonObject()));
}

void tst_CtlFormatter::treeShowsNodesRowsAndValues()
{
    const QJsonObject answer = object(R"({
        "nodes":[
          {"kind":"list","path":"/simpleGrouping","title":"VopGrouping","rows":[{"id":"ui","type":3,"title":"","path":"/ui/grouping","value":{}}]},
          {"kind":"action","path":"/grouping/request","title":""},
          {"kind":"list","path":"/system/members","title":"SystemMembers","loading":true,"rows":[]}],
        "values":["/system/member", {"path":"/settings/device/name","value":{"string_":"dev1"}}]})");
    QCOMPARE(CtlFormatter::tree(answer), QString("nodes (3):\n"
                                                 "  /simpleGrouping  [list]  \"VopGrouping\"  1 row\n"
                                                 "      ID  TYPE    TITLE  VALUE\n"
                                                 "      ui  3 path         -> /ui/grouping\n"
                                                 "  /grouping/request  [action]\n"
                                                 "  /system/members  [list]  \"SystemMembers\"  0 rows (still loading)\n"
                                                 "values (2):\n"
                                                 "  /system/member\n"
                                                 "  /settings/device/name = dev1"));
}

void tst_CtlFormatter::treeOfUnknownShapeIsShownAsJson()
{
    QCOMPARE(CtlFormatter::tree(object(R"({"x":1})")), QString("{\n    \"x\": 1\n}"));
}

void tst_CtlFormatter::eventIsOneLine_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<QString>("line");
    QTest::addColumn<bool>("wellFormed");
    QTest::newRow("value") << "value" << QByteArray(R"({"path":"/settings/device/name","value":{"string_":"dev2"}})")
                           << "value /settings/device/name = dev2" << true;
    QTest::newRow("row added") << "rows"
                               << QByteArray(R"({"path":"/system/members","new":{"id":"a","type":0,"value":{"systemMember":{"id":"a","name":"dev1"}}},"old":{}})")
                               << "rows /system/members added a: dev1, receiver" << true;
    QTest::newRow("row changed") << "rows" << QByteArray(R"({"path":"/l","new":{"id":"a","value":{"i32_":2}},"old":{"id":"a"}})")
                                 << "rows /l changed a: 2" << true;
    QTest::newRow("row removed") << "rows" << QByteArray(R"({"path":"/l","new":{},"old":{"id":"a"}})")
                                 << "rows /l removed a" << true;
    QTest::newRow("rows reset") << "rows" << QByteArray(R"({"path":"/l","new":{},"old":{}})") << "rows /l changed"
                                << true;
    QTest::newRow("row lists") << "rows" << QByteArray(R"({"path":"/l","new":[{},{}],"old":[]})")
                               << "rows /l: 2 rows (were 0)" << true;
    QTest::newRow("other event") << "hello" << QByteArray(R"({"version":"1"})") << "hello {\"version\":\"1\"}" << true;
    QTest::newRow("not json") << "value" << QByteArray("oops {") << "value (malformed data: oops {)" << false;
    QTest::newRow("not an object") << "value" << QByteArray("[1]") << "value (malformed data: [1])" << false;
}

void tst_CtlFormatter::eventIsOneLine()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, data);
    QFETCH(QString, line);
    QFETCH(bool, wellFormed);
    bool parsed = !wellFormed;
    QCOMPARE(CtlFormatter::event(CtlEvent{name, data}, &parsed), line);
    QCOMPARE(parsed, wellFormed);
}

void tst_CtlFormatter::eventPathIsReadFromTheData_data()
{
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<QString>("path");
    QTest::newRow("path") << QByteArray(R"({"path":"/a/b","value":{}})") << "/a/b";
    QTest::newRow("none") << QByteArray(R"({"value":{}})") << "";
    QTest::newRow("not a string") << QByteArray(R"({"path":5})") << "";
    QTest::newRow("not json") << QByteArray("{") << "";
}

void tst_CtlFormatter::eventPathIsReadFromTheData()
{
    QFETCH(QByteArray, data);
    QFETCH(QString, path);
    QCOMPARE(CtlFormatter::eventPath(CtlEvent{"value", data}), path);
}

void tst_CtlFormatter::printableEscapesControlCharacters_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("shown");
    QTest::newRow("plain") << "Kitchen" << "Kitchen";
    QTest::newRow("lines and tabs stay") << "a\tb\nc" << "a\tb\nc";
    QTest::newRow("not ASCII stays") << QString::fromUtf8("K\xc3\xbc" "che \xe5\x8e\xa8") << QString::fromUtf8("K\xc3\xbc" "che \xe5\x8e\xa8");
    QTest::newRow("escape sequence") << "a\x1b[2Jb" << "a\\u001b[2Jb";
    QTest::newRow("title sequence") << "\x1b]0;owned\x07" << "\\u001b]0;owned\\u0007";
    QTest::newRow("carriage return") << "ok\rfake" << "ok\\u000dfake";
    QTest::newRow("nul and delete") << QString(QChar(0)) + QChar(0x7f) << "\\u0000\\u007f";
    QTest::newRow("eight-bit introducer") << QString(QChar(0x9b)) + "2J" << "\\u009b2J";
}

void tst_CtlFormatter::printableEscapesControlCharacters()
{
    QFETCH(QString, text);
    QFETCH(QString, shown);
    QCOMPARE(CtlFormatter::printable(text), shown);
}

QTEST_GUILESS_MAIN(tst_CtlFormatter)
#include "tst_CtlFormatter.moc"
