#include <QtTest>

#include <QHostInfo>
#include <QUdpSocket>

#include <model/cmrequest>
#include <tarv>

#include "LogCapture.h"
#include "ReceiverLinkTestSupport.h"
#include "SimpleGroupingAdder.h"

using namespace ReceiverLinkTestSupport;

namespace {

const QString Logger = QStringLiteral("SimpleGroupingAdder");
const QString LeaveLookup = QStringLiteral("Leave SimpleGroupingAdder::on_addrLookup");
const QString EnterLookup = QStringLiteral("Enter SimpleGroupingAdder::on_addrLookup");
const int Forever = 600000; // a resend period no test lives to see

QString message(const QString& id)
{
    return TarvSystemMember()
        .setId(id)
        .setName(QStringLiteral("Küche ♪"))
        .setHost(QStringLiteral("kitchen.local"))
        .setIpAddress(QStringLiteral("192.168.1.20"))
        .toJsonString();
}

QByteArray payload(const char* prefix, const QString& message)
{
    return QByteArray(prefix) + message.toUtf8();
}

QHostInfo lookupResult(const QList<QHostAddress>& addresses)
{
    QHostInfo info;
    info.setHostName(QStringLiteral("transcoder.local"));
    info.setAddresses(addresses);
    return info;
}

void setResendPeriod(int milliseconds)
{
    CMRoot()->defineValue(TarvRequestStreamingTimeoutPath(), TarvValue().setI32_(milliseconds).toVariant());
}

} // namespace

class tst_SimpleGroupingAdder : public QObject
{
    Q_OBJECT

private:
    LogCapture m_log;
    // Stand-ins for two transcoders: the same request port on two loopback
    // addresses (and on ::1 where the machine has it).
    QUdpSocket m_first;  // 127.0.0.1
    QUdpSocket m_second; // 127.0.0.2
    QUdpSocket m_ipv6;   // ::1
    bool m_haveIpv6 = false;

    QUdpSocket* sinkFor(const QHostAddress& address)
    {
        if (address == QHostAddress(QStringLiteral("127.0.0.1")))
            return &m_first;
        if (address == QHostAddress(QStringLiteral("127.0.0.2")))
            return &m_second;
        if (m_haveIpv6 && address == QHostAddress(QHostAddress::LocalHostIPv6))
            return &m_ipv6;
        return nullptr;
    }

    // What `sink` has received since the last call.
    static QList<QByteArray> received(QUdpSocket& sink)
    {
        bool ok = false;
        const QList<QByteArray> datagrams = datagramsBeforeSentinel(sink, &ok);
        if (!ok)
            qWarning("sentinel did not come back");
        return datagrams;
    }

    int lookupsDone() const { return m_log.count(log4cplus::TRACE_LOG_LEVEL, LeaveLookup, Logger); }

    // Starts `adder` and takes what its first lookup brought to `sink`: true
    // when that was exactly one "add" of `body`.
    bool startedWithOneAdd(SimpleGroupingAdder& adder, const QString& body, const QString& host, QUdpSocket& sink)
    {
        const int before = lookupsDone();
        adder.start(body, host);
        return QTest::qWaitFor([&] { return lookupsDone() == before + 1; }, 2000)
            && received(sink) == QList<QByteArray>({payload("add", body)});
    }

private Q_SLOTS:
    void initTestCase()
    {
        // Both loopback addresses must share the port, as real transcoders
        // all listen on the one request port.
        quint16 port = 0;
        for (int attempt = 0; attempt < 50 && port == 0; ++attempt) {
            m_first.close();
            m_second.close();
            if (!m_first.bind(QHostAddress(QStringLiteral("127.0.0.1")), 0, QAbstractSocket::DontShareAddress))
                continue;
            if (m_second.bind(QHostAddress(QStringLiteral("127.0.0.2")), m_first.localPort(),
                              QAbstractSocket::DontShareAddress))
                port = m_first.localPort();
        }
        QVERIFY(port != 0);
        m_haveIpv6 = m_ipv6.bind(QHostAddress(QHostAddress::LocalHostIPv6), port, QAbstractSocket::DontShareAddress);
        TarvSetRequestPort(port);
    }

    void init()
    {
        QCOMPARE(received(m_first), QList<QByteArray>());
        QCOMPARE(received(m_second), QList<QByteArray>());
        m_log.clear();
    }

    void metaObjectDeclaresTwoSlotsInOrderAndNoSignal()
    {
        QCOMPARE(declaredMethods(SimpleGroupingAdder::staticMetaObject),
                 QStringList({QStringLiteral("slot on_timer_timeout()"), QStringLiteral("slot on_addrLookup(QHostInfo)")}));
    }

    void constructionSendsNothing()
    {
        setResendPeriod(50);
        SimpleGroupingAdder adder;
        QCOMPARE(m_log.messages(log4cplus::TRACE_LOG_LEVEL, Logger),
                 QStringList({QStringLiteral("Enter SimpleGroupingAdder::SimpleGroupingAdder"),
                              QStringLiteral("Leave SimpleGroupingAdder::SimpleGroupingAdder")}));
        QCOMPARE(m_log.events().size(), 2);
        adder.stop();
        QCOMPARE(received(m_first), QList<QByteArray>());
        QCOMPARE(m_log.countStartingWith(log4cplus::TRACE_LOG_LEVEL, QStringLiteral("remove request"), Logger), 0);
    }

    // The first "add" leaves when the lookup answers, long before the first
    // period; stop() says goodbye once to the same address.
    void firstAddFollowsLookupAndStopSaysGoodbye_data()
    {
        QTest::addColumn<QString>("host");
        QTest::newRow("IP literal") << QStringLiteral("127.0.0.2");
        QTest::newRow("localhost") << QStringLiteral("localhost");
    }

    void firstAddFollowsLookupAndStopSaysGoodbye()
    {
        QFETCH(QString, host);
        const QHostInfo resolved = QHostInfo::fromName(host);
        QVERIFY2(!resolved.addresses().isEmpty(), qPrintable(resolved.errorString()));
        const QHostAddress address = resolved.addresses().first();
        QUdpSocket* sink = sinkFor(address);
        if (!sink)
            QSKIP("the host resolves to a loopback address this test has no socket on");

        setResendPeriod(Forever);
        SimpleGroupingAdder adder;
        const QString body = message(QStringLiteral("r1"));
        adder.start(body, host);
        QTRY_COMPARE_WITH_TIMEOUT(lookupsDone(), 1, 2000);
        QCOMPARE(received(*sink), QList<QByteArray>({payload("add", body)}));

        adder.stop();
        QCOMPARE(received(*sink), QList<QByteArray>({payload("remove", body)}));
        QCOMPARE(received(m_first) + received(m_second), QList<QByteArray>());

        const QStringList trace = m_log.messages(log4cplus::TRACE_LOG_LEVEL, Logger);
        QVERIFY(trace.contains(QStringLiteral("Enter SimpleGroupingAdder::start: host name: ") + host
                               + QStringLiteral(" message: ") + body));
        QVERIFY(trace.contains(QStringLiteral("Starting to send new message '") + body + QStringLiteral("' to ")
                               + host));
        QCOMPARE(m_log.count(log4cplus::TRACE_LOG_LEVEL,
                             QStringLiteral("add request successfully sent to ") + address.toString(), Logger),
                 1);
        QCOMPARE(m_log.count(log4cplus::TRACE_LOG_LEVEL,
                             QStringLiteral("remove request successfully sent to ") + address.toString(), Logger),
                 1);
        QCOMPARE(m_log.messages(log4cplus::ERROR_LOG_LEVEL), QStringList());
    }

    // The period is read when the sender is made: a later change of the
    // setting does not slow a running sender down.
    void resendsEveryPeriodReadAtConstruction()
    {
        setResendPeriod(40);
        SimpleGroupingAdder adder;
        setResendPeriod(Forever);
        const QString body = message(QStringLiteral("r2"));
        QList<QByteArray> adds;
        QElapsedTimer clock;
        clock.start();
        adder.start(body, QStringLiteral("127.0.0.1"));
        // 40 ms apart: four are due after about 120 ms; a period of a second
        // or more would not make it.
        QTRY_VERIFY_WITH_TIMEOUT((adds += received(m_first)).size() >= 4, 1500);
        // Each period also resolves the name anew.
        QVERIFY(lookupsDone() >= 3);

        adder.stop();
        const qint64 elapsed = clock.elapsed();
        adds += received(m_first);
        // Timers fire late under load, never much early: no more than one
        // "add" per 40 ms (with slack), plus the one after the first lookup.
        QVERIFY2(adds.size() - 1 <= elapsed / 30 + 2, qPrintable(QStringLiteral("%1 datagrams in %2 ms")
                                                                    .arg(adds.size())
                                                                    .arg(elapsed)));
        QCOMPARE(adds.last(), payload("remove", body));
        adds.removeLast();
        for (const QByteArray& datagram : qAsConst(adds))
            QCOMPARE(datagram, payload("add", body));
        QCOMPARE(received(m_second), QList<QByteArray>());
    }

    void sameAddressAgainSendsNothingExtra()
    {
        setResendPeriod(Forever);
        SimpleGroupingAdder adder;
        const QString body = message(QStringLiteral("r3"));
        QVERIFY(startedWithOneAdd(adder, body, QStringLiteral("127.0.0.1"), m_first));

        // One period: one "add", one new lookup that finds the same address.
        adder.on_timer_timeout();
        QTRY_COMPARE_WITH_TIMEOUT(lookupsDone(), 2, 2000);
        QCOMPARE(received(m_first), QList<QByteArray>({payload("add", body)}));
        QCOMPARE(received(m_second), QList<QByteArray>());
    }

    void lookupWithTwoAddressesSendsToFirstOnly()
    {
        setResendPeriod(Forever);
        SimpleGroupingAdder adder;
        const QString body = message(QStringLiteral("r4"));
        adder.start(body, QStringLiteral("bad..name"));
        QTRY_COMPARE_WITH_TIMEOUT(lookupsDone(), 1, 2000);
        QCOMPARE(received(m_first) + received(m_second), QList<QByteArray>());

        adder.on_addrLookup(lookupResult({QHostAddress(QStringLiteral("127.0.0.2")),
                                          QHostAddress(QStringLiteral("127.0.0.1"))}));
        QCOMPARE(received(m_second), QList<QByteArray>({payload("add", body)}));
        QCOMPARE(received(m_first), QList<QByteArray>());
    }

    // A transcoder that moves gets an "add" at its new address at once, and
    // the next period announces there too.
    void addressChangeSendsAddAtOnceAndPeriodFollows()
    {
        setResendPeriod(Forever);
        SimpleGroupingAdder adder;
        const QString body = message(QStringLiteral("r5"));
        QVERIFY(startedWithOneAdd(adder, body, QStringLiteral("127.0.0.1"), m_first));

        adder.on_addrLookup(lookupResult({QHostAddress(QStringLiteral("127.0.0.2"))}));
        QCOMPARE(received(m_second), QList<QByteArray>({payload("add", body)}));
        QCOMPARE(received(m_first), QList<QByteArray>());

        adder.on_timer_timeout();
        QCOMPARE(received(m_second), QList<QByteArray>({payload("add", body)}));
        QCOMPARE(received(m_first), QList<QByteArray>());

        // That period's lookup of the real name moves the sender back.
        QTRY_COMPARE_WITH_TIMEOUT(lookupsDone(), 3, 2000);
        QCOMPARE(received(m_first), QList<QByteArray>({payload("add", body)}));
        QCOMPARE(received(m_second), QList<QByteArray>());
        QCOMPARE(m_log.count(log4cplus::TRACE_LOG_LEVEL, QStringLiteral("add request successfully sent to 127.0.0.2"),
                             Logger),
                 2);
    }

    // The same with a real lookup and the real timer: the sender starts out
    // at an address the name no longer has; the lookup moves it, and every
    // later period announces at the new address.
    void lookupMovingTheAddressIsFollowedByTheTimer()
    {
        setResendPeriod(40);
        SimpleGroupingAdder adder;
        const QString body = message(QStringLiteral("r5b"));
        adder.start(body, QStringLiteral("127.0.0.2"));
        adder.on_addrLookup(lookupResult({QHostAddress(QStringLiteral("127.0.0.1"))}));
        QList<QByteArray> atNewAddress;
        QTRY_VERIFY_WITH_TIMEOUT((atNewAddress += received(m_second)).size() >= 4, 2000);
        adder.stop();
        atNewAddress += received(m_second);

        QCOMPARE(atNewAddress.last(), payload("remove", body));
        atNewAddress.removeLast();
        for (const QByteArray& datagram : qAsConst(atNewAddress))
            QCOMPARE(datagram, payload("add", body));
        const QList<QByteArray> atOldAddress = received(m_first);
        QVERIFY(!atOldAddress.isEmpty());
        for (const QByteArray& datagram : atOldAddress)
            QCOMPARE(datagram, payload("add", body));
        // Nothing went to the old address once the new one was known.
        const QStringList trace = m_log.messages(log4cplus::TRACE_LOG_LEVEL, Logger);
        const int moved = trace.indexOf(QStringLiteral("add request successfully sent to 127.0.0.2"));
        QVERIFY(moved >= 0);
        QCOMPARE(trace.lastIndexOf(QStringLiteral("add request successfully sent to 127.0.0.1")) < moved, true);
    }

    void unresolvableNameSendsNothingAndRetriesEachPeriod_data()
    {
        QTest::addColumn<QString>("host");
        QTest::newRow("reserved .invalid name") << QStringLiteral("no-such-host.invalid");
        QTest::newRow("malformed name") << QStringLiteral("bad..name");
    }

    void unresolvableNameSendsNothingAndRetriesEachPeriod()
    {
        QFETCH(QString, host);
        const QHostInfo expected = QHostInfo::fromName(host);
        QVERIFY(expected.error() != QHostInfo::NoError);
        const QString failure = QStringLiteral("Address lookup failed: ") + expected.errorString();

        setResendPeriod(40);
        SimpleGroupingAdder adder;
        adder.start(message(QStringLiteral("r6")), host);
        QTRY_VERIFY_WITH_TIMEOUT(m_log.count(log4cplus::ERROR_LOG_LEVEL, failure, Logger) >= 3, 3000);
        adder.stop();

        QCOMPARE(received(m_first) + received(m_second), QList<QByteArray>());
        QCOMPARE(m_log.countContaining(log4cplus::TRACE_LOG_LEVEL, QStringLiteral("request successfully sent"), Logger),
                 0);
        QStringList errors = m_log.messages(log4cplus::ERROR_LOG_LEVEL);
        errors.removeAll(failure);
        QCOMPARE(errors, QStringList());
    }

    void failedOrEmptyLookupKeepsLastAddress()
    {
        setResendPeriod(Forever);
        SimpleGroupingAdder adder;
        const QString body = message(QStringLiteral("r7"));
        QVERIFY(startedWithOneAdd(adder, body, QStringLiteral("127.0.0.1"), m_first));

        QHostInfo failed;
        failed.setHostName(QStringLiteral("127.0.0.1"));
        failed.setError(QHostInfo::HostNotFound);
        failed.setErrorString(QStringLiteral("Host not found"));
        adder.on_addrLookup(failed);
        adder.on_addrLookup(lookupResult({}));
        QCOMPARE(m_log.messages(log4cplus::ERROR_LOG_LEVEL, Logger),
                 QStringList({QStringLiteral("Address lookup failed: Host not found"),
                              QStringLiteral("No addresses found for host: transcoder.local")}));
        QCOMPARE(received(m_first), QList<QByteArray>());

        adder.on_timer_timeout();
        QCOMPARE(received(m_first), QList<QByteArray>({payload("add", body)}));
        adder.stop();
        QCOMPARE(received(m_first), QList<QByteArray>({payload("remove", body)}));
        QCOMPARE(received(m_second), QList<QByteArray>());
    }

    void stopBeforeLookupFinishedSendsNothingAndAbortsLookup_data()
    {
        QTest::addColumn<QString>("host");
        QTest::addColumn<bool>("cached");
        // Qt answers a recently resolved name from its cache with a result
        // posted at once, which its abort does not reach.
        QTest::newRow("name in the lookup cache") << QStringLiteral("127.0.0.1") << true;
        QTest::newRow("name never looked up")
            << QStringLiteral("fresh-%1.invalid").arg(QDateTime::currentMSecsSinceEpoch()) << false;
    }

    void stopBeforeLookupFinishedSendsNothingAndAbortsLookup()
    {
        QFETCH(QString, host);
        QFETCH(bool, cached);
        if (cached) {
            bool warmed = false;
            QHostInfo::lookupHost(host, this, [&warmed](const QHostInfo&) { warmed = true; });
            QTRY_VERIFY_WITH_TIMEOUT(warmed, 2000);
        }

        setResendPeriod(Forever);
        SimpleGroupingAdder adder;
        adder.start(message(QStringLiteral("r8")), host);
        adder.stop();

        // Lookups of one name run one after another, so once ours is back the
        // sender's answer, had it not been aborted, has been delivered too.
        bool answered = false;
        QHostInfo::lookupHost(host, this, [&answered](const QHostInfo&) { answered = true; });
        QTRY_VERIFY_WITH_TIMEOUT(answered, 2000);
        QCoreApplication::processEvents();

        QCOMPARE(received(m_first) + received(m_second), QList<QByteArray>());
        QCOMPARE(m_log.countContaining(log4cplus::TRACE_LOG_LEVEL, QStringLiteral("request successfully sent"), Logger),
                 0);
        QCOMPARE(m_log.messages(log4cplus::ERROR_LOG_LEVEL), QStringList());
        // Only a result that outran the abort may arrive, and it is ignored.
        QCOMPARE(m_log.count(log4cplus::TRACE_LOG_LEVEL, EnterLookup, Logger),
                 m_log.countStartingWith(log4cplus::TRACE_LOG_LEVEL, QStringLiteral("Ignoring lookup result for "),
                                         Logger));
        if (!cached)
            QCOMPARE(m_log.count(log4cplus::TRACE_LOG_LEVEL, EnterLookup, Logger), 0);
    }

    void startWhileRunningSaysGoodbyeBeforeGreetingNewTranscoder()
    {
        setResendPeriod(Forever);
        SimpleGroupingAdder adder;
        const QString first = message(QStringLiteral("r9"));
        const QString second = message(QStringLiteral("r9-again"));
        QVERIFY(startedWithOneAdd(adder, first, QStringLiteral("127.0.0.1"), m_first));

        adder.start(second, QStringLiteral("127.0.0.2"));
        // The goodbye has left before start() returns; the greeting waits for
        // the new lookup.
        QCOMPARE(received(m_first), QList<QByteArray>({payload("remove", first)}));
        QCOMPARE(received(m_second), QList<QByteArray>());

        QTRY_COMPARE_WITH_TIMEOUT(lookupsDone(), 2, 2000);
        QCOMPARE(received(m_second), QList<QByteArray>({payload("add", second)}));
        QCOMPARE(received(m_first), QList<QByteArray>());

        const QStringList trace = m_log.messages(log4cplus::TRACE_LOG_LEVEL, Logger);
        const int goodbye = trace.indexOf(QStringLiteral("remove request successfully sent to 127.0.0.1"));
        const int greeting = trace.indexOf(QStringLiteral("add request successfully sent to 127.0.0.2"));
        QVERIFY(goodbye >= 0);
        QVERIFY(greeting > goodbye);
    }

    // Qt delivers the first start's lookup of a cached name after stop()
    // aborted it; the sender, already resolving the second transcoder, must
    // not greet the first one with it.
    void quickSecondStartNeverGreetsTheFirstTranscoder()
    {
        bool warmed = false;
        QHostInfo::lookupHost(QStringLiteral("127.0.0.1"), this, [&warmed](const QHostInfo&) { warmed = true; });
        QTRY_VERIFY_WITH_TIMEOUT(warmed, 2000);

        setResendPeriod(Forever);
        SimpleGroupingAdder adder;
        const QString first = message(QStringLiteral("r11"));
        const QString second = message(QStringLiteral("r11-again"));
        adder.start(first, QStringLiteral("127.0.0.1"));
        adder.start(second, QStringLiteral("127.0.0.2"));

        QTRY_COMPARE_WITH_TIMEOUT(lookupsDone(), 2, 2000);
        QCOMPARE(received(m_second), QList<QByteArray>({payload("add", second)}));
        QCOMPARE(received(m_first), QList<QByteArray>());
        // An IP literal's cached result carries the reverse-resolved name.
        QCOMPARE(m_log.countContaining(log4cplus::TRACE_LOG_LEVEL, QStringLiteral(": aborted"), Logger), 1);

        adder.stop();
        QCOMPARE(received(m_second), QList<QByteArray>({payload("remove", second)}));
        QCOMPARE(received(m_first), QList<QByteArray>());
    }

    void restartAfterStopAnnouncesAgain()
    {
        setResendPeriod(Forever);
        SimpleGroupingAdder adder;
        const QString body = message(QStringLiteral("r10"));
        adder.start(body, QStringLiteral("127.0.0.2"));
        QTRY_COMPARE_WITH_TIMEOUT(lookupsDone(), 1, 2000);
        adder.stop();
        QCOMPARE(received(m_second), QList<QByteArray>({payload("add", body), payload("remove", body)}));

        adder.start(body, QStringLiteral("127.0.0.2"));
        QTRY_COMPARE_WITH_TIMEOUT(lookupsDone(), 2, 2000);
        QCOMPARE(received(m_second), QList<QByteArray>({payload("add", body)}));
        adder.stop();
        QCOMPARE(received(m_second), QList<QByteArray>({payload("remove", body)}));
    }

    // A message too large for one IPv4 datagram (65,507 bytes of payload)
    // makes the kernel refuse the write, which is how a failed write is
    // produced here. Both prefixes log with the words "add request".
    void failedWriteIsLoggedForBothPrefixes_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<int>("failuresAfterFirstAdd");
        QTest::addColumn<int>("failuresAfterStop");
        QTest::newRow("add and remove too large") << 65505 << 1 << 3;
        QTest::newRow("add fits exactly, remove too large") << 65504 << 0 << 1;
    }

    void failedWriteIsLoggedForBothPrefixes()
    {
        QFETCH(int, size);
        QFETCH(int, failuresAfterFirstAdd);
        QFETCH(int, failuresAfterStop);
        const QString body(size, QLatin1Char('m'));
        const QString failure = QStringLiteral("Error sending add request to 127.0.0.1 mesg: ") + body
            + QStringLiteral(" SocketError: %1 | Datagram was too large to send")
                  .arg(static_cast<int>(QAbstractSocket::DatagramTooLargeError));

        setResendPeriod(Forever);
        SimpleGroupingAdder adder;
        adder.start(body, QStringLiteral("127.0.0.1"));
        QTRY_COMPARE_WITH_TIMEOUT(lookupsDone(), 1, 2000);
        QCOMPARE(m_log.count(log4cplus::ERROR_LOG_LEVEL, failure, Logger), failuresAfterFirstAdd);

        // Nothing is retried before the next period, which tries again.
        adder.on_timer_timeout();
        adder.stop();
        QCOMPARE(m_log.count(log4cplus::ERROR_LOG_LEVEL, failure, Logger), failuresAfterStop);
        QCOMPARE(m_log.messages(log4cplus::ERROR_LOG_LEVEL).size(), failuresAfterStop);

        QList<QByteArray> expected;
        if (failuresAfterFirstAdd == 0)
            expected << payload("add", body) << payload("add", body);
        const QList<QByteArray> got = received(m_first);
        QCOMPARE(got, expected);
        QCOMPARE(m_log.count(log4cplus::TRACE_LOG_LEVEL, QStringLiteral("remove request successfully sent to 127.0.0.1"),
                             Logger),
                 0);
    }
};

QTEST_GUILESS_MAIN(tst_SimpleGroupingAdder)
#include "tst_SimpleGroupingAdder.moc"
