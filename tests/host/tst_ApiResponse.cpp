#include <QJsonDocument>
#include <QtTest>

#include <httplib.h>

#include "ApiResponse.h"

namespace {

QJsonObject bodyOf(const httplib::Response& response)
{
    return QJsonDocument::fromJson(QByteArray::fromStdString(response.body)).object();
}

QJsonObject json(const char* text)
{
    return QJsonDocument::fromJson(text).object();
}

} // namespace

class tst_ApiResponse : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void aRefusalIsAnErrorObject()
    {
        const std::string body = ApiResponse::errorBody("NotFound", "Not found", "No value at /x");
        QCOMPARE(QString::fromStdString(body),
                 QStringLiteral(R"({"error":{"message":"No value at /x","name":"NotFound","title":"Not found"}})"));

        httplib::Response response;
        ApiResponse::badRequest(response, QStringLiteral("no path"));
        QCOMPARE(response.status, 400);
        QCOMPARE(response.get_header_value("Content-Type"), std::string("application/json; charset=utf-8"));
        QCOMPARE(bodyOf(response), json(R"({"error":{"name":"BadRequest","title":"Bad request","message":"no path"}})"));
    }

    void anOutcomeIsAnsweredWithItsStatus_data()
    {
        QTest::addColumn<bool>("answered");
        QTest::addColumn<int>("workStatus");
        QTest::addColumn<bool>("failed");
        QTest::addColumn<QVariant>("result");
        QTest::addColumn<bool>("wrapResult");
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        const QVariantHash object{{"path", "/a"}, {"value", 1}};
        const QByteArray refusal = R"({"error":{"name":"Refused","title":"Value refused","message":"too long"}})";
        QTest::newRow("result") << true << 200 << false << QVariant(object) << false << 200
                                << QByteArray(R"({"path":"/a","value":1})");
        QTest::newRow("wrapped result") << true << 200 << false << QVariant(object) << true << 200
                                        << QByteArray(R"({"result":{"path":"/a","value":1}})");
        QTest::newRow("wrapped scalar") << true << 200 << false << QVariant(5) << true << 200
                                        << QByteArray(R"({"result":5})");
        QTest::newRow("wrapped nothing") << true << 200 << false << QVariant() << true << 200
                                         << QByteArray(R"({"result":null})");
        QTest::newRow("refused without a status") << true << 200 << true << QVariant() << false << 422 << refusal;
        QTest::newRow("refused action") << true << 200 << true << QVariant() << true << 422 << refusal;
        QTest::newRow("refused with its own status") << true << 404 << true << QVariant() << false << 404 << refusal;
        QTest::newRow("shutting down") << true << 503 << true << QVariant() << true << 503 << refusal;
        QTest::newRow("late") << false << 200 << false << QVariant() << false << 504
                              << QByteArray(R"({"error":{"name":"Timeout","title":"No answer","message":"late"}})");
        QTest::newRow("late action") << false << 200 << false << QVariant() << true << 504
                                     << QByteArray(R"({"error":{"name":"Timeout","title":"No answer","message":"late"}})");
    }

    void anOutcomeIsAnsweredWithItsStatus()
    {
        QFETCH(bool, answered);
        QFETCH(int, workStatus);
        QFETCH(bool, failed);
        QFETCH(QVariant, result);
        QFETCH(bool, wrapResult);
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        ApiResponse::Outcome outcome;
        outcome.answered = answered;
        outcome.status = workStatus;
        outcome.failed = failed;
        outcome.result = result;
        if (failed)
            outcome.error = ApiResponse::error("Refused", "Value refused", "too long");
        httplib::Response response;
        ApiResponse::sendOutcome(response, outcome, QStringLiteral("late"), wrapResult);
        QCOMPARE(response.status, status);
        QCOMPARE(response.get_header_value("Content-Type"), std::string("application/json; charset=utf-8"));
        QCOMPARE(bodyOf(response), json(body.constData()));
    }

    void theServersOwnRefusalsAreExplained_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("method");
        QTest::addColumn<QByteArray>("path");
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("title");
        QTest::addColumn<QString>("message");
        QTest::newRow("no endpoint") << 404 << QByteArray("GET") << QByteArray("/nope") << "NotFound" << "Not found"
                                     << "No such endpoint: GET /nope. The API is /api/v1/host, value, invoke, rows, "
                                        "tree and events";
        QTest::newRow("body too large") << 413 << QByteArray("PUT") << QByteArray("/api/v1/value") << "PayloadTooLarge"
                                        << "Request body too large" << "The request body is larger than 1024 bytes";
        QTest::newRow("request line too long")
            << 414 << QByteArray() << QByteArray() << "UriTooLong" << "Request line too long"
            << QStringLiteral("The request line is longer than %1 bytes").arg(CPPHTTPLIB_REQUEST_URI_MAX_LENGTH);
        QTest::newRow("malformed") << 400 << QByteArray() << QByteArray() << "BadRequest" << "Bad request"
                                   << "The HTTP request is malformed";
        QTest::newRow("other status") << 416 << QByteArray("GET") << QByteArray("/") << "Error" << "Error"
                                      << "GET / failed with HTTP status 416";
        QTest::newRow("other status, unreadable request") << 500 << QByteArray() << QByteArray() << "Error" << "Error"
                                                          << "The request failed with HTTP status 500";
    }

    void theServersOwnRefusalsAreExplained()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, method);
        QFETCH(QByteArray, path);
        QFETCH(QString, name);
        QFETCH(QString, title);
        QFETCH(QString, message);
        const CMError error = ApiResponse::serverRefusal(status, method.toStdString(), path.toStdString(), 1024);
        QCOMPARE(error.name(), name);
        QCOMPARE(error.title(), title);
        QCOMPARE(error.message(), message);
    }

    void aPathWithoutWhatWasAskedForSaysWhatIsThere_data()
    {
        QTest::addColumn<QString>("wanted");
        QTest::addColumn<QString>("kindThere");
        QTest::addColumn<QString>("hint");
        QTest::addColumn<QString>("message");
        QTest::newRow("nothing there") << "a value" << QString() << QString() << "No value at /a/b";
        QTest::newRow("no action") << "an action" << QString() << QString() << "No action at /a/b";
        QTest::newRow("another node") << "an action" << "list" << QString() << "/a/b is a list node, not an action";
        QTest::newRow("another node, with a hint") << "a value" << "list" << "; read it elsewhere"
                                                   << "/a/b is a list node, not a value; read it elsewhere";
        // The hint is for what is there; with nothing there it has no place.
        QTest::newRow("nothing there, with a hint") << "a list" << QString() << "; read it elsewhere"
                                                    << "No list at /a/b";
    }

    void aPathWithoutWhatWasAskedForSaysWhatIsThere()
    {
        QFETCH(QString, wanted);
        QFETCH(QString, kindThere);
        QFETCH(QString, hint);
        QFETCH(QString, message);
        const CMError error = ApiResponse::notFoundAt(QStringLiteral("/a/b"), wanted, kindThere, hint);
        QCOMPARE(error.message(), message);
        QCOMPARE(error.name(), QStringLiteral("NotFound"));
        QCOMPARE(error.title(), QStringLiteral("Not found"));
    }
};

QTEST_GUILESS_MAIN(tst_ApiResponse)
#include "tst_ApiResponse.moc"
