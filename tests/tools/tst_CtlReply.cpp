#include <QtTest>

#include "CtlReply.h"

Q_DECLARE_METATYPE(CtlReply)

class tst_CtlReply : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void exitCodeAndMessageFollowTheKind_data();
    void exitCodeAndMessageFollowTheKind();
};

void tst_CtlReply::exitCodeAndMessageFollowTheKind_data()
{
    QTest::addColumn<CtlReply>("reply");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("message");
    QTest::newRow("ok") << CtlReply::ok(200, QJsonObject(), "{}") << 0 << "";
    QTest::newRow("api error") << CtlReply::apiError(404, "NotFound", "Unknown path", "no node at /x", "{}") << 1
                               << "error (HTTP 404): Unknown path: no node at /x";
    QTest::newRow("title Error is not repeated") << CtlReply::apiError(400, "Error", "Error", "Empty grouping request", "")
                                                 << 1 << "error (HTTP 400): Empty grouping request";
    QTest::newRow("no message") << CtlReply::apiError(500, "", "", "", "") << 1 << "error (HTTP 500): (no message)";
    QTest::newRow("bad response") << CtlReply::badResponse(200, "not JSON", "x") << 1
                                  << "error: bad answer from the host: not JSON";
    QTest::newRow("cannot connect") << CtlReply::cannotConnect("cannot connect to http://h:1") << 3
                                    << "error: cannot connect to http://h:1";
    QTest::newRow("timeout") << CtlReply::timeout("no answer within 5 ms") << 4 << "timeout: no answer within 5 ms";
}

void tst_CtlReply::exitCodeAndMessageFollowTheKind()
{
    QFETCH(CtlReply, reply);
    QFETCH(int, exitCode);
    QFETCH(QString, message);
    QCOMPARE(int(reply.exitCode()), exitCode);
    QCOMPARE(reply.describe(), message);
    QCOMPARE(reply.isOk(), exitCode == 0);
}

QTEST_GUILESS_MAIN(tst_CtlReply)
#include "tst_CtlReply.moc"
