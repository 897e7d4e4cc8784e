#include <ctime>
#include <memory>

#include <QHash>
#include <QSignalSpy>
#include <QtTest>

#include <model/cmrequest>
#include <tarv>

#include "GroupingTestHost.h"
#include "LogCapture.h"
#include "SimpleGroupingRequest.h"

using namespace log4cplus;

namespace {
const QString Request = QStringLiteral("SimpleGroupingRequest");
const QString Container = QStringLiteral("SimpleGroupingRequest::TimeoutContainer");

qint32 now()
{
    return static_cast<qint32>(time(nullptr));
}

TarvSystemMember idOnly(const QString& id)
{
    TarvSystemMember member;
    member.setId(id);
    return member;
}

// Adds `id` to `container` within one wall-clock second and returns that
// second.
qint32 addWithinOneSecond(SimpleGroupingRequest::TimeoutContainer& container, const QString& id, int timeoutMs)
{
    for (;;) {
        const qint32 before = now();
        container.add(id, timeoutMs);
        if (now() == before)
            return before;
    }
}
} // namespace

class tst_SimpleGroupingRequest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<GroupingTestHost> m_host;
    CMNodes* m_nodes = nullptr;
    SimpleGroupingRequest* m_request = nullptr;
    std::unique_ptr<QSignalSpy> m_added;
    std::unique_ptr<QSignalSpy> m_removed;
    std::unique_ptr<QSignalSpy> m_joined;
    std::unique_ptr<QSignalSpy> m_left;
    // The wall-clock second of the latest requestRemoveReceiver; 0 before.
    qint32 m_removedAt = 0;

    // The receiver time-out is read once, at construction.
    void createRequest(int receiverTimeoutMs, CMListRowsNode* membersNode = nullptr)
    {
        CMRoot()->defineValue(TarvStopStreamingTimeoutPath(), TarvValue().setI32_(receiverTimeoutMs).toVariant());
        m_request = new SimpleGroupingRequest(m_nodes, membersNode);
        m_added = std::make_unique<QSignalSpy>(m_request, &SimpleGroupingRequest::requestAddReceiver);
        m_removed = std::make_unique<QSignalSpy>(m_request, &SimpleGroupingRequest::requestRemoveReceiver);
        m_joined = std::make_unique<QSignalSpy>(m_request, &SimpleGroupingRequest::requestJoinTranscoder);
        m_left = std::make_unique<QSignalSpy>(m_request, &SimpleGroupingRequest::requestLeaveTranscoder);
        m_removedAt = 0;
        tarvConnect(m_request, &SimpleGroupingRequest::requestRemoveReceiver, m_request,
                    [this](const TarvSystemMember&) { m_removedAt = now(); });
    }
    int signalCount() const { return m_added->count() + m_removed->count() + m_joined->count() + m_left->count(); }

    static CMReply<QVariant> invoke(const TarvHash& value)
    {
        CMReply<QVariant> reply;
        CMRoot()->invoke(TarvGroupingRequestPath(), value, reply);
        static_cast<void>(QTest::qWaitFor([&] { return reply.isFinished(); }, 2000)); // callers check
        return reply;
    }

    // Activates the request node itself, as a host may, without the root
    // worker's invoke (which takes only hashes and always queues); does not
    // wait for the answer.
    static CMReply<QVariant> activateNode(const QVariant& value)
    {
        const CMReply<QVariant> reply;
        auto* node = qobject_cast<CMActivateNode*>(CMRoot()->findNode(TarvGroupingRequestPath()));
        if (node)
            node->activate(CMSetDataRequest(TarvGroupingRequestPath(), value, reply));
        else
            qWarning("no grouping-request node");
        return reply;
    }

    // The expiry loop never ends on an entry it cannot take out; end the
    // test process instead of hanging in it.
    void failOnEndlessExpiry(QObject* context)
    {
        auto removals = std::make_shared<int>(0);
        tarvConnect(m_request, &SimpleGroupingRequest::requestRemoveReceiver, context,
                    [removals](const TarvSystemMember&) {
                        if (++*removals > 100)
                            qFatal("the expiry loop does not end");
                    });
    }

private Q_SLOTS:
    void init()
    {
        m_log = std::make_unique<LogCapture>();
        TarvSetRequestPort(freeUdpPort());
        m_host = std::make_unique<GroupingTestHost>(makeMember("A", "Alpha"), 3000, 200);
        m_nodes = new CMNodes;
    }

    void cleanup()
    {
        m_added.reset();
        m_removed.reset();
        m_joined.reset();
        m_left.reset();
        delete m_request;
        m_request = nullptr;
        delete m_nodes;
        m_nodes = nullptr;
        m_host.reset();
        m_log.reset();
    }

    // --- the grouping-request node ---

    void metaObjectDeclaresSignalsThenSlotsInOrder()
    {
        // The misspelt slot names are part of the interface.
        QCOMPARE(declaredMethods(SimpleGroupingRequest::staticMetaObject),
                 (QStringList{"signal requestAddReceiver(TarvSystemMember)",
                              "signal requestRemoveReceiver(TarvSystemMember)",
                              "signal requestJoinTranscoder(TarvSystemMember)", "signal requestLeaveTranscoder()",
                              "slot on_groupingRequest_activated(CMSetDataRequest)",
                              "slot on_addReceiever(TarvSystemMember)", "slot on_removeReceiever(TarvSystemMember)",
                              "slot on_timeout()"}));
    }

    void constructionPublishesRequestNode()
    {
        createRequest(3000);
        QVERIFY(qobject_cast<CMActivateNode*>(CMRoot()->findNode(TarvGroupingRequestPath())));
        QCOMPARE(m_log->messages(INFO_LOG_LEVEL, Request), QStringList{"Created SimpleGroupingRequest"});
    }

    void membersNodeArgumentIsNotUsed()
    {
        CMListRowsNode* list = CMListRowsNode::create(m_nodes, CMPath("/modules/simpleGrouping"));
        createRequest(3000, list);
        QCOMPARE(list->rowsSize(), 0);
        QVERIFY(!invoke(groupingRequest(-1)).hasError());
        QCOMPARE(m_left->count(), 1);
    }

    void emptyRequestRefused()
    {
        createRequest(3000);
        const CMReply<QVariant> reply = invoke(TarvHash());
        QVERIFY(reply.isFinished());
        QVERIFY(reply.hasError());
        QCOMPARE(reply.error().message(), QStringLiteral("Empty grouping request"));
        QCOMPARE(reply.error().name(), CMError::DefaultName());
        QCOMPARE(reply.error().title(), CMError::DefaultTitle());
        QCOMPARE(reply.result(), QVariant());
        QCOMPARE(m_log->messages(ERROR_LOG_LEVEL, Request), QStringList{"Empty grouping request"});
        QCOMPARE(signalCount(), 0);
    }

    void joinWithoutMasterFieldRefused()
    {
        createRequest(3000);
        const CMReply<QVariant> reply = invoke(groupingRequest(1));
        QVERIFY(reply.hasError());
        QCOMPARE(reply.error().message(), QStringLiteral("Missing grouping master in request"));
        QCOMPARE(m_log->messages(ERROR_LOG_LEVEL, Request), QStringList{"Missing grouping master in request"});
        QCOMPARE(signalCount(), 0);
    }

    void joinWithMasterWithoutIdRefused()
    {
        createRequest(3000);
        const CMReply<QVariant> reply = invoke(groupingRequest(1, makeMember("", "Tango", "127.0.0.1"), true));
        QVERIFY(reply.hasError());
        QCOMPARE(reply.error().message(), QStringLiteral("Missing grouping master id"));
        QCOMPARE(m_log->messages(ERROR_LOG_LEVEL, Request), QStringList{"Missing grouping master id"});
        QCOMPARE(signalCount(), 0);
    }

    void joinEmitsMasterThenAnswersTrue()
    {
        createRequest(3000);
        TarvSystemMember master;
        master.setId("T").setName("Tango").setHost("tango.local");
        const TarvHash value = groupingRequest(1, master, true);
        CMReply<QVariant> reply;
        QList<bool> finishedAtEmission;
        QObject context;
        tarvConnect(m_request, &SimpleGroupingRequest::requestJoinTranscoder, &context,
                    [&](const TarvSystemMember&) { finishedAtEmission.append(reply.isFinished()); });

        CMRoot()->invoke(TarvGroupingRequestPath(), value, reply);
        QTRY_VERIFY_WITH_TIMEOUT(reply.isFinished(), 2000);
        QVERIFY(!reply.hasError());
        QCOMPARE(reply.result(), QVariant(true));
        QCOMPARE(finishedAtEmission, QList<bool>{false});
        QCOMPARE(m_joined->count(), 1);
        QCOMPARE(m_joined->at(0).at(0).value<TarvSystemMember>(), master);
        QCOMPARE(signalCount(), 1);
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL, "Received command: " + value.toJson(false), Request), 1);
        QCOMPARE(m_log->count(TRACE_LOG_LEVEL, "emit requestJoinTranscoder(" + master.toJson(false) + ")", Request), 1);
        // The signature runs straight into "Value: ", without a space. It is
        // the compiler's (Q_FUNC_INFO): clang puts a space before the "&".
#ifdef __clang__
        const QString signature = "void SimpleGroupingRequest::on_groupingRequest_activated(const CMSetDataRequest &)";
#else
        const QString signature = "void SimpleGroupingRequest::on_groupingRequest_activated(const CMSetDataRequest&)";
#endif
        QCOMPARE(m_log->count(TRACE_LOG_LEVEL, signature + "Value: " + value.toJson(false),
                              Request),
                 1);
        QCOMPARE(m_log->count(TRACE_LOG_LEVEL, "Leave SimpleGroupingRequest::on_groupingRequest_activated", Request),
                 1);
    }

    // The reply is failed first and the ERROR line written after it.
    void refusalAnswersBeforeItLogs_data()
    {
        QTest::addColumn<TarvHash>("value");
        QTest::addColumn<QString>("text");
        QTest::newRow("empty") << TarvHash() << "Empty grouping request";
        QTest::newRow("join without master") << groupingRequest(1) << "Missing grouping master in request";
        QTest::newRow("join with master without id")
            << groupingRequest(1, makeMember("", "Tango"), true) << "Missing grouping master id";
        QTest::newRow("command 2") << groupingRequest(2) << "valid command ";
    }

    void refusalAnswersBeforeItLogs()
    {
        QFETCH(TarvHash, value);
        QFETCH(QString, text);
        createRequest(3000);
        const CMReply<QVariant> reply;
        QStringList answeredWhenLogged;
        LogHook hook([&](const log4cplus::spi::InternalLoggingEvent& event) {
            if (event.getLogLevel() == ERROR_LOG_LEVEL && event.getLoggerName() == Request.toStdString())
                answeredWhenLogged.append(reply.hasError() ? reply.error().message() : QStringLiteral("<no answer>"));
        });

        CMRoot()->invoke(TarvGroupingRequestPath(), value, reply);
        QTRY_VERIFY_WITH_TIMEOUT(reply.isFinished(), 2000);
        QCOMPARE(answeredWhenLogged, QStringList{text});
        QCOMPARE(reply.error().message(), text);
        QCOMPARE(signalCount(), 0);
    }

    // The host's invoke queues anyway; the node itself must queue too, so a
    // host that activates it directly does not run the handler inside its
    // own call.
    void activationIsHandledThroughTheEventLoop()
    {
        createRequest(3000);
        const CMReply<QVariant> reply = activateNode(groupingRequest(-1).toVariant());
        QCOMPARE(m_left->count(), 0);
        QVERIFY(!reply.isFinished());
        QTRY_COMPARE_WITH_TIMEOUT(m_left->count(), 1, 2000);
        QTRY_VERIFY_WITH_TIMEOUT(reply.isFinished(), 2000);
        QCOMPARE(reply.result(), QVariant(true));
        QCOMPARE(signalCount(), 1);
    }

    // A value that is no map at all reads as an empty one.
    void valueThatIsNoMapRefusedAsEmpty_data()
    {
        QTest::addColumn<QVariant>("value");
        QTest::newRow("string") << QVariant(QStringLiteral("join"));
        QTest::newRow("number") << QVariant(1);
        QTest::newRow("list") << QVariant(QVariantList{1, QStringLiteral("T")});
        QTest::newRow("nothing") << QVariant();
    }

    void valueThatIsNoMapRefusedAsEmpty()
    {
        QFETCH(QVariant, value);
        createRequest(3000);
        const CMReply<QVariant> reply = activateNode(value);
        QTRY_VERIFY_WITH_TIMEOUT(reply.isFinished(), 2000);
        QVERIFY(reply.hasError());
        QCOMPARE(reply.error().message(), QStringLiteral("Empty grouping request"));
        QCOMPARE(m_log->messages(ERROR_LOG_LEVEL, Request), QStringList{"Empty grouping request"});
        QCOMPARE(signalCount(), 0);
    }

    void leaveIgnoresAnyMaster_data()
    {
        QTest::addColumn<bool>("withMaster");
        QTest::newRow("without master") << false;
        QTest::newRow("with master") << true;
    }

    void leaveIgnoresAnyMaster()
    {
        QFETCH(bool, withMaster);
        createRequest(3000);
        CMReply<QVariant> reply;
        // Answered only after the signal has been emitted.
        QList<bool> finishedAtEmission;
        QObject context;
        tarvConnect(m_request, &SimpleGroupingRequest::requestLeaveTranscoder, &context,
                    [&] { finishedAtEmission.append(reply.isFinished()); });
        CMRoot()->invoke(TarvGroupingRequestPath(), groupingRequest(-1, makeMember("T", "Tango"), withMaster), reply);
        QTRY_VERIFY_WITH_TIMEOUT(reply.isFinished(), 2000);
        QCOMPARE(finishedAtEmission, QList<bool>{false});
        QVERIFY(!reply.hasError());
        QCOMPARE(reply.result(), QVariant(true));
        QCOMPARE(m_left->count(), 1);
        QCOMPARE(signalCount(), 1);
        QCOMPARE(m_log->count(TRACE_LOG_LEVEL, "emit requestLeaveTranscoder()", Request), 1);
    }

    void invalidCommandRefusedWithSuffixText_data()
    {
        QTest::addColumn<QVariant>("command");
        QTest::addColumn<QString>("text");
        QTest::newRow("0") << QVariant(0) << "Invalid command ";
        QTest::newRow("2") << QVariant(2) << "valid command ";
        QTest::newRow("8") << QVariant(8) << "command ";
        QTest::newRow("15") << QVariant(15) << " ";
        QTest::newRow("16") << QVariant(16) << "";
        QTest::newRow("missing") << QVariant() << "Invalid command ";
        // Past either end of the literal: the whole literal.
        QTest::newRow("17") << QVariant(17) << "Invalid command ";
        QTest::newRow("1000") << QVariant(1000) << "Invalid command ";
        QTest::newRow("-2") << QVariant(-2) << "Invalid command ";
    }

    void invalidCommandRefusedWithSuffixText()
    {
        QFETCH(QVariant, command);
        QFETCH(QString, text);
        createRequest(3000);
        TarvHash record;
        record.insert(TarvGroupingRequest::Master(), makeMember("T", "Tango").toVariant());
        if (command.isValid())
            record.insert(TarvGroupingRequest::Command(), command);
        TarvHash value;
        value.insert(TarvValue::GroupingRequest(), record.toVariant());

        const CMReply<QVariant> reply = invoke(value);
        QVERIFY(reply.isFinished());
        QVERIFY(reply.hasError());
        QCOMPARE(reply.error().message(), text);
        QCOMPARE(m_log->messages(ERROR_LOG_LEVEL, Request),
                 QStringList{"Received invalid command" + value.toJson(false)});
        QCOMPARE(signalCount(), 0);
    }

    // The union's key decides the form: with it the record is read from under
    // the key, so a record next to it at the top level is not looked at.
    void unionFormReadsTheRecordUnderItsKey()
    {
        createRequest(3000);
        TarvHash value = groupingRequest(-1);
        value.insert(TarvGroupingRequest::Command(), 1);
        value.insert(TarvGroupingRequest::Master(), makeMember("T", "Tango").toVariant());
        const CMReply<QVariant> reply = invoke(value);
        QCOMPARE(reply.result(), QVariant(true));
        QCOMPARE(m_left->count(), 1);
        QCOMPARE(signalCount(), 1);
    }

    // A union whose grouping request is no record reads as an empty record:
    // command 0.
    void unionWithoutARecordRefusedAsCommandZero()
    {
        createRequest(3000);
        TarvHash value;
        value.insert(TarvValue::GroupingRequest(), QStringLiteral("join"));
        const CMReply<QVariant> reply = invoke(value);
        QVERIFY(reply.hasError());
        QCOMPARE(reply.error().message(), QStringLiteral("Invalid command "));
        QCOMPARE(m_log->messages(ERROR_LOG_LEVEL, Request), QStringList{"Received invalid command" + value.toJson(false)});
        QCOMPARE(signalCount(), 0);
    }

    // A value without the union's key holds no grouping request, whatever
    // else it carries (a bare request record included): it is refused as
    // command 0 and nothing is emitted.
    void recordWithoutUnionRefusedAsCommandZero_data()
    {
        QTest::addColumn<TarvHash>("value");
        QTest::newRow("join record") << TarvHash(groupingRequestRecord(1, makeMember("T", "Tango", "tango.local"), true));
        QTest::newRow("leave record") << TarvHash(groupingRequestRecord(-1));
        QTest::newRow("command 2 record") << TarvHash(groupingRequestRecord(2));
        QTest::newRow("other key") << TarvHash(QVariantHash{{QStringLiteral("command"), 1}, {QStringLiteral("x"), 2}});
    }

    void recordWithoutUnionRefusedAsCommandZero()
    {
        QFETCH(TarvHash, value);
        createRequest(3000);
        const CMReply<QVariant> reply = invoke(value);
        QVERIFY(reply.isFinished());
        QVERIFY(reply.hasError());
        QCOMPARE(reply.error().message(), QStringLiteral("Invalid command "));
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL, "Received command: " + value.toJson(false), Request), 1);
        QCOMPARE(m_log->messages(ERROR_LOG_LEVEL, Request), QStringList{"Received invalid command" + value.toJson(false)});
        QCOMPARE(signalCount(), 0);
    }

    void answeredTrueWithNobodyListening()
    {
        createRequest(3000);
        m_joined.reset();
        m_left.reset();
        const CMReply<QVariant> join = invoke(groupingRequest(1, makeMember("T", "Tango"), true));
        QCOMPARE(join.result(), QVariant(true));
        const CMReply<QVariant> leave = invoke(groupingRequest(-1));
        QCOMPARE(leave.result(), QVariant(true));
    }

    // --- remote receivers ---

    void datagramsReachTheReceiverSignals()
    {
        createRequest(3000);
        const TarvSystemMember romeo = makeMember("R", "Romeo", "romeo.local", "10.9.9.9", false);
        sendToListener("add" + romeo.toJson(false));
        QTRY_COMPARE_WITH_TIMEOUT(m_added->count(), 1, 2000);
        TarvSystemMember expected = romeo;
        expected.setIpAddress("127.0.0.1");
        QCOMPARE(m_added->at(0).at(0).value<TarvSystemMember>(), expected);

        sendToListener("remove" + romeo.toJson(false));
        QTRY_COMPARE_WITH_TIMEOUT(m_removed->count(), 1, 2000);
        QCOMPARE(m_removed->at(0).at(0).value<TarvSystemMember>(), romeo);
    }

    void secondAddOnlyRefreshes()
    {
        createRequest(3000);
        const TarvSystemMember romeo = makeMember("R", "Romeo");
        m_request->on_addReceiever(romeo);
        m_request->on_addReceiever(makeMember("R", "Romeo again"));
        QCOMPARE(m_added->count(), 1);
        QCOMPARE(m_added->at(0).at(0).value<TarvSystemMember>(), romeo);
        QCOMPARE(m_removed->count(), 0);
    }

    void removeOfUnknownIdStillSignalled()
    {
        createRequest(3000);
        const TarvSystemMember zulu = makeMember("Z", "Zulu");
        m_request->on_removeReceiever(zulu);
        QCOMPARE(m_removed->count(), 1);
        QCOMPARE(m_removed->at(0).at(0).value<TarvSystemMember>(), zulu);
    }

    void receiverAddedAgainAfterRemoval()
    {
        createRequest(3000);
        m_request->on_addReceiever(makeMember("R", "Romeo"));
        m_request->on_removeReceiever(makeMember("R", "Romeo"));
        m_request->on_addReceiever(makeMember("R", "Romeo"));
        QCOMPARE(m_added->count(), 2);
        QCOMPARE(m_removed->count(), 1);
    }

    void timeoutBelowOneSecondExpiresAtNextTimerExpiry()
    {
        createRequest(999);
        m_request->on_addReceiever(makeMember("R", "Romeo", "romeo.local", "10.0.0.7"));
        QCOMPARE(m_log->count(TRACE_LOG_LEVEL, "TimeoutContainer::nextTimeout : Next Timeout for R is in 0 milliseconds",
                              Container),
                 1);
        QCOMPARE(m_removed->count(), 0);

        QTRY_COMPARE_WITH_TIMEOUT(m_removed->count(), 1, 500);
        // Removed by the first expiry: the timer was never armed again.
        QCOMPARE(m_log->countStartingWith(TRACE_LOG_LEVEL, "TimeoutContainer::nextTimeout : ", Container), 1);
        // Only the id is known of a receiver that fell silent.
        QCOMPARE(m_removed->at(0).at(0).value<TarvSystemMember>(), idOnly("R"));
        QCOMPARE(m_log->messages(INFO_LOG_LEVEL, Request).mid(1),
                 QStringList{"Remove remote receiver due to timeout: R"});
    }

    void timeoutInWholeSecondsExpiresAtDeadline()
    {
        createRequest(1500);

        const qint32 addedAt = now();
        m_request->on_addReceiever(makeMember("R", "Romeo"));
        const int armed = m_log->countStartingWith(TRACE_LOG_LEVEL,
                                                   "TimeoutContainer::nextTimeout : Next Timeout for R is in ", Container);
        QCOMPARE(armed, 1);

        QTRY_COMPARE_WITH_TIMEOUT(m_removed->count(), 1, 3000);
        // 1,500 ms count as one whole second past the second of the add.
        QVERIFY2(m_removedAt >= addedAt + 1, qPrintable(QString("%1 < %2 + 1").arg(m_removedAt).arg(addedAt)));
        QVERIFY(m_removedAt <= addedAt + 2);
    }

    void equalDeadlinesRemovedInOneExpiry()
    {
        createRequest(999);
        m_request->on_addReceiever(makeMember("R1", "Romeo"));
        m_request->on_addReceiever(makeMember("R2", "Roberta"));
        QHash<QString, int> sameOrder;
        sameOrder.insert("R1", 0);
        sameOrder.insert("R2", 0);
        const QStringList order = sameOrder.keys();
        m_log->clear();

        QTRY_COMPARE_WITH_TIMEOUT(m_removed->count(), 2, 500);
        QCOMPARE(m_removed->at(0).at(0).value<TarvSystemMember>().id(), order.at(0));
        QCOMPARE(m_removed->at(1).at(0).value<TarvSystemMember>().id(), order.at(1));
        // One expiry: both taken out back to back, no re-arming in between.
        QStringList lines;
        for (const CapturedLog& event : m_log->events()) {
            if (event.logger == Request || event.logger == Container)
                lines.append(event.message);
        }
        QCOMPARE(lines, (QStringList{"TimeoutContainer::pop : Remove device: " + order.at(0),
                                     "Remove remote receiver due to timeout: " + order.at(0),
                                     "TimeoutContainer::pop : Remove device: " + order.at(1),
                                     "Remove remote receiver due to timeout: " + order.at(1)}));
    }

    void earlyExpiryRearmsForTheRemainder()
    {
        createRequest(2500);
        const qint32 addedAt = now();
        m_request->on_addReceiever(makeMember("R", "Romeo"));
        m_log->clear();

        // The timer firing before the deadline: nothing expires, the timer
        // is armed again for what is left.
        m_request->on_timeout();
        const qint32 calledAt = now();
        QCOMPARE(m_removed->count(), 0);
        QCOMPARE(m_log->messages(INFO_LOG_LEVEL, Request), QStringList());
        const QString remainder = QString::number((addedAt + 2 - calledAt) * 1000);
        QCOMPARE(m_log->messages(TRACE_LOG_LEVEL, Container).first(),
                 "TimeoutContainer::nextTimeout : Next Timeout for R is in " + remainder + " milliseconds");

        QTRY_COMPARE_WITH_TIMEOUT(m_removed->count(), 1, 3500);
        QVERIFY(m_removedAt >= addedAt + 2);
    }

    void receiverWithoutIdRefused()
    {
        createRequest(999);
        QObject context;
        failOnEndlessExpiry(&context);
        TarvSystemMember noId;
        noId.setName("Nameless").setHost("nameless.local");

        m_request->on_addReceiever(noId);
        QCOMPARE(m_log->messages(ERROR_LOG_LEVEL, Request),
                 QStringList{"Ignoring receiver without id, it could never expire: " + noId.toJson(false)});
        QCOMPARE(m_added->count(), 0);

        // Later receivers are still recorded and still expire.
        m_request->on_addReceiever(makeMember("R", "Romeo"));
        QCOMPARE(m_added->count(), 1);
        QTRY_COMPARE_WITH_TIMEOUT(m_removed->count(), 1, 500);
        QCOMPARE(m_removed->at(0).at(0).value<TarvSystemMember>(), idOnly("R"));
    }

    void datagramWithoutIdDoesNotStopTheTranscoder()
    {
        createRequest(999);
        QObject context;
        failOnEndlessExpiry(&context);

        sendToListener(R"(add{"name":"Nameless","ipAddress":"10.1.1.1"})");
        QTRY_COMPARE_WITH_TIMEOUT(m_log->count(ERROR_LOG_LEVEL,
                                               "Ignoring receiver without id, it could never expire: "
                                               R"({"ipAddress":"127.0.0.1","name":"Nameless"})",
                                               Request),
                                  1, 2000);
        sendToListener("add" + makeMember("R", "Romeo").toJson(false));
        QTRY_COMPARE_WITH_TIMEOUT(m_added->count(), 1, 2000);
        QTRY_COMPARE_WITH_TIMEOUT(m_removed->count(), 1, 1000);
        sendToListener("add" + makeMember("R2", "Roberta").toJson(false));
        QTRY_COMPARE_WITH_TIMEOUT(m_added->count(), 2, 2000);
        QTRY_COMPARE_WITH_TIMEOUT(m_removed->count(), 2, 1000);
        QCOMPARE(m_removed->at(1).at(0).value<TarvSystemMember>(), idOnly("R2"));
    }

    // --- the deadline container ---

    // Never asked by the module (it tests isEmpty() first); answered with a
    // plain 0 rather than anything undefined.
    void containerPeekOnEmptyIsZero()
    {
        SimpleGroupingRequest::TimeoutContainer container;
        QCOMPARE(container.peek(), 0);
        container.add("a", 1000);
        container.remove("a");
        QCOMPARE(container.peek(), 0);
    }

    void containerAddReportsNewIds()
    {
        SimpleGroupingRequest::TimeoutContainer container;
        QVERIFY(container.isEmpty());
        QVERIFY(container.add("a", 1000));
        QVERIFY(!container.isEmpty());
        QVERIFY(!container.add("a", 1000));
        QVERIFY(container.add("b", 1000));
    }

    void containerDeadlineInWholeSeconds_data()
    {
        QTest::addColumn<int>("timeoutMs");
        QTest::addColumn<int>("seconds");
        QTest::newRow("999") << 999 << 0;
        QTest::newRow("1000") << 1000 << 1;
        QTest::newRow("1500") << 1500 << 1;
        QTest::newRow("2999") << 2999 << 2;
        QTest::newRow("-1500") << -1500 << -1;
    }

    void containerDeadlineInWholeSeconds()
    {
        QFETCH(int, timeoutMs);
        QFETCH(int, seconds);
        SimpleGroupingRequest::TimeoutContainer container;
        const qint32 second = addWithinOneSecond(container, "a", timeoutMs);
        QCOMPARE(container.peek(), second + seconds);
    }

    void containerRefreshMovesDeadline()
    {
        SimpleGroupingRequest::TimeoutContainer container;
        addWithinOneSecond(container, "a", 1000);
        const qint32 second = addWithinOneSecond(container, "a", 5000);
        QCOMPARE(container.peek(), second + 5);
    }

    void containerRemoveIgnoresUnknownIds()
    {
        SimpleGroupingRequest::TimeoutContainer container;
        container.remove("nobody");
        QVERIFY(container.isEmpty());
        container.add("a", 1000);
        container.remove("nobody");
        QVERIFY(!container.isEmpty());
        container.remove("a");
        QVERIFY(container.isEmpty());
    }

    void containerPopsEarliestFirst()
    {
        SimpleGroupingRequest::TimeoutContainer container;
        const qint32 second = now();
        container.add("a", 5000);
        container.add("b", 1000);
        container.add("c", 3000);
        QVERIFY(container.peek() >= second + 1 && container.peek() <= second + 2);
        m_log->clear();
        QCOMPARE(container.pop(), QStringLiteral("b"));
        QCOMPARE(container.pop(), QStringLiteral("c"));
        QCOMPARE(container.pop(), QStringLiteral("a"));
        QVERIFY(container.isEmpty());
        QCOMPARE(m_log->messages(TRACE_LOG_LEVEL, Container),
                 (QStringList{"TimeoutContainer::pop : Remove device: b", "TimeoutContainer::pop : Remove device: c",
                              "TimeoutContainer::pop : Remove device: a"}));
    }

    void containerPopsEqualDeadlinesInIterationOrder()
    {
        SimpleGroupingRequest::TimeoutContainer container;
        QHash<QString, int> sameOrder;
        const QStringList ids{"x", "y", "z", "w"};
        for (;;) {
            const qint32 before = now();
            for (const QString& id : ids) {
                container.add(id, 2000);
                sameOrder.insert(id, 0);
            }
            if (now() == before)
                break;
            for (const QString& id : ids)
                container.remove(id);
        }
        QStringList popped;
        while (!container.isEmpty())
            popped.append(container.pop());
        QCOMPARE(popped, sameOrder.keys());
    }

    void containerNextTimeoutNeverNegative()
    {
        SimpleGroupingRequest::TimeoutContainer container;
        container.add("late", -5000);
        m_log->clear();
        QCOMPARE(container.nextTimeout(), 0);
        const QStringList lines = m_log->messages(TRACE_LOG_LEVEL, Container);
        QCOMPARE(lines.size(), 4);
        QCOMPARE(lines.at(0), QStringLiteral("TimeoutContainer::nextTimeout : Next Timeout for late is in 0 milliseconds"));
        QCOMPARE(lines.at(1), QStringLiteral("Print all timeouts"));
        // Listed as it is: the overdue time is not clamped here.
        QVERIFY2(lines.at(2) == "late  timeout in: -5000 ms" || lines.at(2) == "late  timeout in: -6000 ms",
                 qPrintable(lines.at(2)));
        QCOMPARE(lines.at(3), QString());

        container.add("soon", 3000);
        QCOMPARE(container.nextTimeout(), 0);
        container.remove("late");
        const int next = container.nextTimeout();
        QVERIFY2(next == 3000 || next == 2000, qPrintable(QString::number(next)));
    }

    // Long time-outs, up to the largest the setting can hold: whole seconds
    // times 1000 never exceed the time-out itself, so the interval stays
    // exact and positive (a wrapped one would read as "due now").
    void containerNextTimeoutForLongTimeouts_data()
    {
        QTest::addColumn<int>("timeoutMs");
        QTest::addColumn<int>("seconds");
        QTest::newRow("36 minutes") << 2160000 << 2160;
        QTest::newRow("one hour") << 3600000 << 3600;
        QTest::newRow("largest int") << INT_MAX << INT_MAX / 1000;
    }

    void containerNextTimeoutForLongTimeouts()
    {
        QFETCH(int, timeoutMs);
        QFETCH(int, seconds);
        for (;;) {
            SimpleGroupingRequest::TimeoutContainer container;
            const qint32 before = now();
            container.add("far", timeoutMs);
            m_log->clear();
            const int next = container.nextTimeout();
            if (now() != before)
                continue;
            const qint64 exact = qint64(seconds) * 1000;
            QCOMPARE(qint64(next), exact);
            QCOMPARE(m_log->messages(TRACE_LOG_LEVEL, Container),
                     (QStringList{"TimeoutContainer::nextTimeout : Next Timeout for far is in " + QString::number(next)
                                      + " milliseconds",
                                  "Print all timeouts", "far  timeout in: " + QString::number(exact) + " ms", ""}));
            break;
        }
    }

    void containerPrintAllListsEveryEntry()
    {
        // Adding and listing within one wall-clock second.
        for (;;) {
            SimpleGroupingRequest::TimeoutContainer container;
            const qint32 before = now();
            container.add("a", 2000);
            container.add("b", 4000);
            m_log->clear();
            container.printAll();
            if (now() == before)
                break;
        }
        QHash<QString, int> sameOrder;
        sameOrder.insert("a", 0);
        sameOrder.insert("b", 0);
        QStringList expected{"Print all timeouts"};
        for (const QString& id : sameOrder.keys())
            expected.append(id + (id == "a" ? "  timeout in: 2000 ms" : "  timeout in: 4000 ms"));
        expected.append(QString());
        QCOMPARE(m_log->messages(TRACE_LOG_LEVEL, Container), expected);
    }

    void containerNeverPopsAnEmptyId()
    {
        SimpleGroupingRequest::TimeoutContainer container;
        container.add("", -1000);
        const int deadline = container.peek();
        m_log->clear();
        QCOMPARE(container.pop(), QString());
        QVERIFY(!container.isEmpty());
        QCOMPARE(container.peek(), deadline);
        QCOMPARE(m_log->messages(TRACE_LOG_LEVEL, Container), QStringList{"TimeoutContainer::pop : Remove device: "});
    }
};

QTEST_GUILESS_MAIN(tst_SimpleGroupingRequest)
#include "tst_SimpleGroupingRequest.moc"
