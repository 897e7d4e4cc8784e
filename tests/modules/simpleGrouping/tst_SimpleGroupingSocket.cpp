#include <QtTest>

#include <QUdpSocket>

#include <tarv>

#include "LogCapture.h"
#include "ReceiverLinkTestSupport.h"
#include "SimpleGroupingSocket.h"

using namespace ReceiverLinkTestSupport;

namespace {

const QString Logger = QStringLiteral("SimpleGroupingSocket");
const QString Garbage = QStringLiteral("Dropping garbage packet");
const QString IncorrectJson = QStringLiteral("Incorrect JSON data, dropping garbage packet");
const QString EnterReadyRead = QStringLiteral("Enter SimpleGroupingSocket::on_readyRead");
const QString LeaveReadyRead = QStringLiteral("Leave SimpleGroupingSocket::on_readyRead");

TarvSystemMember receiver(const QString& id, const QString& ipAddress)
{
    TarvSystemMember member;
    member.setId(id)
        .setName(QStringLiteral("Küche ♪"))
        .setHost(QStringLiteral("kitchen.local"))
        .setIpAddress(ipAddress)
        .setTranscoder(false)
        .setPersistentGroupTimestamp(Q_INT64_C(1700000000123))
        .setPersistentGroupMembers({QStringLiteral("dev-1"), id});
    return member;
}

QByteArray datagram(const char* prefix, const TarvSystemMember& member)
{
    return QByteArray(prefix) + member.toJsonString().toUtf8();
}

QString emitLine(const char* signal, const TarvSystemMember& member)
{
    return QStringLiteral("EMIT %1(%2)").arg(QLatin1String(signal), QString::fromUtf8(member.toJson(false)));
}

// One signal the listener emitted, in emission order across both signals.
struct Emission
{
    QString signal;
    TarvSystemMember member;
};

} // namespace

class tst_SimpleGroupingSocket : public QObject
{
    Q_OBJECT

private:
    LogCapture m_log;
    quint16 m_port = 0;
    QList<Emission> m_emissions;

    void record(SimpleGroupingSocket& listener)
    {
        tarvConnect(&listener, &SimpleGroupingSocket::addReceiver, this,
                    [this](const TarvSystemMember& m) { m_emissions.append({QStringLiteral("add"), m}); });
        tarvConnect(&listener, &SimpleGroupingSocket::removeReceiver, this,
                    [this](const TarvSystemMember& m) { m_emissions.append({QStringLiteral("remove"), m}); });
    }

    static void send(const QByteArray& payload, const QHostAddress& from = QHostAddress::LocalHost)
    {
        QUdpSocket sender;
        QVERIFY(sender.bind(from, 0));
        QCOMPARE(sender.writeDatagram(payload, QHostAddress::LocalHost, TarvRequestPort()), qint64(payload.size()));
    }

    // A valid "add" sent after the datagram under test: once it has been
    // emitted, the datagram before it has been handled too.
    void sendMarkerAndWait(int expectedEmissions)
    {
        send(datagram("add", receiver(QStringLiteral("marker"), QString())));
        QTRY_COMPARE_WITH_TIMEOUT(m_emissions.size(), expectedEmissions, 2000);
        QCOMPARE(m_emissions.last().member.id(), QStringLiteral("marker"));
    }

private Q_SLOTS:
    void initTestCase()
    {
        m_port = freeUdpPort();
        QVERIFY(m_port != 0);
        TarvSetRequestPort(m_port);
    }

    void init()
    {
        m_emissions.clear();
        m_log.clear();
    }

    void metaObjectDeclaresSignalsThenSlot()
    {
        QCOMPARE(declaredMethods(SimpleGroupingSocket::staticMetaObject),
                 QStringList({QStringLiteral("signal addReceiver(TarvSystemMember)"),
                              QStringLiteral("signal removeReceiver(TarvSystemMember)"),
                              QStringLiteral("slot on_readyRead()")}));
    }

    void constructionLogsOnlyItsTraceScope()
    {
        SimpleGroupingSocket listener;
        QCOMPARE(m_log.messages(log4cplus::TRACE_LOG_LEVEL, Logger),
                 QStringList({QStringLiteral("Enter SimpleGroupingSocket::SimpleGroupingSocket"),
                              QStringLiteral("Leave SimpleGroupingSocket::SimpleGroupingSocket")}));
        QCOMPARE(m_log.events().size(), 2);
    }

    void addTakesAddressFromDatagramSource_data()
    {
        QTest::addColumn<QString>("source");
        QTest::newRow("127.0.0.1") << QStringLiteral("127.0.0.1");
        QTest::newRow("127.0.0.2") << QStringLiteral("127.0.0.2");
        QTest::newRow("::1") << QStringLiteral("::1");
    }

    void addTakesAddressFromDatagramSource()
    {
        QFETCH(QString, source);
        SimpleGroupingSocket listener;
        record(listener);
        QSignalSpy adds(&listener, &SimpleGroupingSocket::addReceiver);
        QSignalSpy removes(&listener, &SimpleGroupingSocket::removeReceiver);
        m_log.clear();

        const TarvSystemMember announced = receiver(QStringLiteral("r1"), QStringLiteral("10.9.8.7"));
        const QByteArray payload = datagram("add", announced);
        QUdpSocket sender;
        if (!sender.bind(QHostAddress(source), 0))
            QSKIP("this machine has no such loopback address");
        QHostAddress destination = QHostAddress::LocalHost;
        if (QHostAddress(source).protocol() == QAbstractSocket::IPv6Protocol)
            destination = QHostAddress::LocalHostIPv6;
        QCOMPARE(sender.writeDatagram(payload, destination, TarvRequestPort()), qint64(payload.size()));

        QTRY_COMPARE_WITH_TIMEOUT(adds.count(), 1, 2000);
        QCOMPARE(removes.count(), 0);
        TarvSystemMember expected = announced;
        expected.setIpAddress(source);
        QCOMPARE(m_emissions.first().member, expected);

        const QStringList trace = m_log.messages(log4cplus::TRACE_LOG_LEVEL, Logger);
        QCOMPARE(trace, QStringList({EnterReadyRead, QStringLiteral("Received packet ") + QString::fromUtf8(payload),
                                     QStringLiteral("Changing ipAddress from 10.9.8.7 to ") + source,
                                     emitLine("addReceiver", expected), LeaveReadyRead}));
        QCOMPARE(m_log.events().size(), trace.size());
    }

    void addWithEmptyIpAddressKeepsItEmpty()
    {
        SimpleGroupingSocket listener;
        record(listener);
        const TarvSystemMember announced = receiver(QStringLiteral("r2"), QString());
        send(datagram("add", announced), QHostAddress(QStringLiteral("127.0.0.2")));

        QTRY_COMPARE_WITH_TIMEOUT(m_emissions.size(), 1, 2000);
        QCOMPARE(m_emissions.first().signal, QStringLiteral("add"));
        QCOMPARE(m_emissions.first().member, announced);
        QCOMPARE(m_emissions.first().member.ipAddress(), QString());
        QCOMPARE(m_log.countStartingWith(log4cplus::TRACE_LOG_LEVEL, QStringLiteral("Changing ipAddress"), Logger), 0);
        QCOMPARE(m_log.count(log4cplus::TRACE_LOG_LEVEL, emitLine("addReceiver", announced), Logger), 1);
    }

    void addWithoutIpAddressFieldKeepsItAbsent()
    {
        SimpleGroupingSocket listener;
        record(listener);
        const TarvSystemMember announced(QVariantHash{{QStringLiteral("id"), QStringLiteral("r3")}});
        send("add{\"id\":\"r3\"}", QHostAddress(QStringLiteral("127.0.0.2")));

        QTRY_COMPARE_WITH_TIMEOUT(m_emissions.size(), 1, 2000);
        QCOMPARE(m_emissions.first().member, announced);
        QVERIFY(!m_emissions.first().member.contains(TarvSystemMember::IpAddress()));
    }

    void removeNeverRewritesIpAddress()
    {
        SimpleGroupingSocket listener;
        record(listener);
        QSignalSpy adds(&listener, &SimpleGroupingSocket::addReceiver);
        m_log.clear();
        const TarvSystemMember announced = receiver(QStringLiteral("r4"), QStringLiteral("10.9.8.7"));
        const QByteArray payload = datagram("remove", announced);
        send(payload, QHostAddress(QStringLiteral("127.0.0.2")));

        QTRY_COMPARE_WITH_TIMEOUT(m_emissions.size(), 1, 2000);
        QCOMPARE(adds.count(), 0);
        QCOMPARE(m_emissions.first().signal, QStringLiteral("remove"));
        QCOMPARE(m_emissions.first().member, announced);
        QCOMPARE(m_emissions.first().member.ipAddress(), QStringLiteral("10.9.8.7"));
        QCOMPARE(m_log.messages(log4cplus::TRACE_LOG_LEVEL, Logger),
                 QStringList({EnterReadyRead, QStringLiteral("Received packet ") + QString::fromUtf8(payload),
                              emitLine("removeReceiver", announced), LeaveReadyRead}));
    }

    void payloadIsCutAtFirstZeroByte_data()
    {
        QTest::addColumn<QByteArray>("payload");
        QTest::addColumn<QString>("signal");
        const TarvSystemMember member = receiver(QStringLiteral("r5"), QString());
        QTest::newRow("add, garbage after zero") << datagram("add", member) + QByteArray("\0}{[garbage", 11)
                                                 << QStringLiteral("add");
        QTest::newRow("remove, invalid UTF-8 after zero")
            << datagram("remove", member) + QByteArray("\0\xff\xfe", 3) << QStringLiteral("remove");
        QTest::newRow("add, zeros to the end") << datagram("add", member) + QByteArray(64, '\0')
                                               << QStringLiteral("add");
    }

    void payloadIsCutAtFirstZeroByte()
    {
        QFETCH(QByteArray, payload);
        QFETCH(QString, signal);
        SimpleGroupingSocket listener;
        record(listener);
        send(payload);

        QTRY_COMPARE_WITH_TIMEOUT(m_emissions.size(), 1, 2000);
        QCOMPARE(m_emissions.first().signal, signal);
        QCOMPARE(m_emissions.first().member, receiver(QStringLiteral("r5"), QString()));
        const QByteArray text = payload.left(payload.indexOf('\0'));
        QCOMPARE(m_log.count(log4cplus::TRACE_LOG_LEVEL, QStringLiteral("Received packet ") + QString::fromUtf8(text),
                             Logger),
                 1);
    }

    void garbageIsDroppedAtInfo_data()
    {
        QTest::addColumn<QByteArray>("payload");
        const QByteArray body = receiver(QStringLiteral("g1"), QString()).toJsonString().toUtf8();
        QTest::newRow("upper case ADD") << QByteArray("ADD") + body;
        QTest::newRow("upper case REMOVE") << QByteArray("REMOVE") + body;
        QTest::newRow("capitalised Add") << QByteArray("Add") + body;
        QTest::newRow("leading space") << QByteArray(" add") + body;
        QTest::newRow("body without prefix") << body;
        QTest::newRow("partial prefix rem") << QByteArray("rem") + body;
        QTest::newRow("empty datagram") << QByteArray();
        QTest::newRow("zero byte first") << QByteArray("\0add", 4) + body;
        QTest::newRow("prefix split by zero byte") << QByteArray("ad\0d", 4) + body;
        QTest::newRow("binary noise") << QByteArray("\xff\xfe\x01\x02", 4);
    }

    void garbageIsDroppedAtInfo()
    {
        QFETCH(QByteArray, payload);
        SimpleGroupingSocket listener;
        record(listener);
        send(payload);
        sendMarkerAndWait(1);

        QCOMPARE(m_log.count(log4cplus::INFO_LOG_LEVEL, Garbage, Logger), 1);
        QCOMPARE(m_log.messages(log4cplus::INFO_LOG_LEVEL), QStringList({Garbage}));
        QCOMPARE(m_log.messages(log4cplus::ERROR_LOG_LEVEL), QStringList());
        const QByteArray text = payload.left(payload.indexOf('\0') < 0 ? payload.size() : payload.indexOf('\0'));
        QCOMPARE(m_log.count(log4cplus::TRACE_LOG_LEVEL, QStringLiteral("Received packet ") + QString::fromUtf8(text),
                             Logger),
                 1);
    }

    void incorrectJsonIsDroppedAtError_data()
    {
        QTest::addColumn<QByteArray>("payload");
        QTest::newRow("add empty object") << QByteArray("add{}");
        QTest::newRow("remove empty object") << QByteArray("remove{}");
        QTest::newRow("exactly add") << QByteArray("add");
        QTest::newRow("exactly remove") << QByteArray("remove");
        QTest::newRow("add array") << QByteArray("add[{\"id\":\"r1\"}]");
        QTest::newRow("remove array") << QByteArray("remove[1,2]");
        QTest::newRow("add number") << QByteArray("add42");
        QTest::newRow("add string") << QByteArray("add\"r1\"");
        QTest::newRow("add null") << QByteArray("addnull");
        QTest::newRow("add invalid UTF-8") << QByteArray("add\xff\xfe\xfd\xc3");
        QTest::newRow("add truncated object") << QByteArray("add{\"id\":\"r1\"");
        QTest::newRow("add object and trailing text") << QByteArray("add{\"id\":\"r1\"}tail");
        QTest::newRow("zero byte inside object") << QByteArray("add{\"id\":\"r1\"\0}", 15);
        QTest::newRow("word address") << QByteArray("address{\"id\":\"r1\"}");
        QTest::newRow("add separated by space then text") << QByteArray("add me");
    }

    // A datagram handed over as bytes that are not followed by a zero byte
    // (a slice of a larger buffer) ends where the bytes end.
    void handedDatagramEndsAtItsSizeWithoutTerminator()
    {
        static const char buffer[] = "add{\"id\":\"r1\",\"ipAddress\":\"10.0.0.9\"}tail";
        const QByteArray datagram = QByteArray::fromRawData(buffer, int(sizeof buffer) - 1 - 4);
        SimpleGroupingSocket listener;
        QSignalSpy adds(&listener, &SimpleGroupingSocket::addReceiver);
        listener.handleDatagram(datagram, QHostAddress(QStringLiteral("10.77.0.12")));
        QCOMPARE(adds.count(), 1);
        const TarvSystemMember added = adds.at(0).at(0).value<TarvSystemMember>();
        QCOMPARE(added.id(), QStringLiteral("r1"));
        QCOMPARE(added.ipAddress(), QStringLiteral("10.77.0.12"));
        QCOMPARE(m_log.messages(log4cplus::ERROR_LOG_LEVEL), QStringList());
    }

    void incorrectJsonIsDroppedAtError()
    {
        QFETCH(QByteArray, payload);
        SimpleGroupingSocket listener;
        record(listener);
        send(payload);
        sendMarkerAndWait(1);

        QCOMPARE(m_log.messages(log4cplus::ERROR_LOG_LEVEL), QStringList({IncorrectJson}));
        QCOMPARE(m_log.count(log4cplus::ERROR_LOG_LEVEL, IncorrectJson, Logger), 1);
        QCOMPARE(m_log.messages(log4cplus::INFO_LOG_LEVEL), QStringList());
        QCOMPARE(m_log.countStartingWith(log4cplus::TRACE_LOG_LEVEL, QStringLiteral("EMIT "), Logger), 1);
    }

    // The text is decoded as UTF-8 before parsing, so a broken sequence inside
    // a JSON string becomes U+FFFD instead of spoiling the whole record.
    void invalidUtf8InsideStringBecomesReplacementCharacter()
    {
        SimpleGroupingSocket listener;
        record(listener);
        send(QByteArray("add{\"id\":\"r\xff\",\"ipAddress\":\"\"}"));

        QTRY_COMPARE_WITH_TIMEOUT(m_emissions.size(), 1, 2000);
        QCOMPARE(m_emissions.first().member.id(), QStringLiteral("r") + QChar(0xFFFD));
        QCOMPARE(m_emissions.first().member.ipAddress(), QString());
    }

    // A byte order mark before the prefix is skipped, one inside the body is
    // skipped by the JSON reader; both datagrams are ordinary "add"s.
    void byteOrderMarkBeforePrefixOrBodyIsSkipped_data()
    {
        QTest::addColumn<QByteArray>("payload");
        QTest::newRow("before the prefix") << QByteArray("\xEF\xBB\xBF" "add{\"id\":\"bom\"}");
        QTest::newRow("before the body") << QByteArray("add\xEF\xBB\xBF{\"id\":\"bom\"}");
    }

    void byteOrderMarkBeforePrefixOrBodyIsSkipped()
    {
        QFETCH(QByteArray, payload);
        SimpleGroupingSocket listener;
        record(listener);
        send(payload);

        QTRY_COMPARE_WITH_TIMEOUT(m_emissions.size(), 1, 2000);
        QCOMPARE(m_emissions.first().signal, QStringLiteral("add"));
        QCOMPARE(m_emissions.first().member.id(), QStringLiteral("bom"));
        QCOMPARE(m_log.messages(log4cplus::ERROR_LOG_LEVEL, Logger), QStringList());
    }

    void largestUdpDatagramIsHandled()
    {
        SimpleGroupingSocket listener;
        record(listener);
        TarvSystemMember announced = receiver(QStringLiteral("big"), QStringLiteral("10.0.0.1"));
        announced.setName(QString());
        const int fill = 65507 - datagram("add", announced).size();
        announced.setName(QString(fill, QLatin1Char('n')));
        const QByteArray payload = datagram("add", announced);
        QCOMPARE(payload.size(), 65507);
        send(payload, QHostAddress(QStringLiteral("127.0.0.2")));

        QTRY_COMPARE_WITH_TIMEOUT(m_emissions.size(), 1, 2000);
        TarvSystemMember expected = announced;
        expected.setIpAddress(QStringLiteral("127.0.0.2"));
        QCOMPARE(m_emissions.first().member, expected);
        QCOMPARE(m_emissions.first().member.name().size(), fill);
    }

    // One read buffer serves every datagram: a short one after a long one
    // must be read as itself, not with the long one's tail.
    void shortDatagramAfterLongOneIsReadWhole()
    {
        SimpleGroupingSocket listener;
        record(listener);
        TarvSystemMember big = receiver(QStringLiteral("big"), QString());
        big.setName(QString(60000, QLatin1Char('n')));
        const TarvSystemMember small = receiver(QStringLiteral("s"), QString());
        QUdpSocket sender;
        for (const QByteArray& payload : {datagram("add", big), datagram("add", small), QByteArray("garbage"),
                                          datagram("remove", small)})
            QCOMPARE(sender.writeDatagram(payload, QHostAddress::LocalHost, TarvRequestPort()), qint64(payload.size()));

        QTRY_COMPARE_WITH_TIMEOUT(m_emissions.size(), 3, 2000);
        QCOMPARE(m_emissions.at(0).member, big);
        QCOMPARE(m_emissions.at(1).signal, QStringLiteral("add"));
        QCOMPARE(m_emissions.at(1).member, small);
        QCOMPARE(m_emissions.at(2).signal, QStringLiteral("remove"));
        QCOMPARE(m_emissions.at(2).member, small);
        QCOMPARE(m_log.count(log4cplus::INFO_LOG_LEVEL, Garbage, Logger), 1);
        QCOMPARE(m_log.count(log4cplus::ERROR_LOG_LEVEL, IncorrectJson, Logger), 0);
    }

    // The port's receive queue is asked to hold about 40 ms of a flood, so
    // that a listener scheduled out for a moment loses no real "add". The
    // kernel grants twice the size asked, at most twice net.core.rmem_max.
    void receiveQueueIsEnlargedAtBind()
    {
        QFile rmemMax(QStringLiteral("/proc/sys/net/core/rmem_max"));
        QVERIFY(rmemMax.open(QIODevice::ReadOnly));
        bool ok = false;
        const int cap = rmemMax.readAll().trimmed().toInt(&ok);
        QVERIFY(ok);
        SimpleGroupingSocket listener;
        QCOMPARE(listener.receiveBufferBytes(), 2 * qMin(SimpleGroupingSocket::ReceiveBufferBytes, cap));
    }

    void badDatagramsDoNotStopLaterOnes()
    {
        SimpleGroupingSocket listener;
        record(listener);
        QUdpSocket sender;
        const QList<QByteArray> payloads{
            "garbage", "add{}", datagram("add", receiver(QStringLiteral("a"), QString())), "ADD{}",
            "remove[]", datagram("remove", receiver(QStringLiteral("b"), QString()))};
        for (const QByteArray& payload : payloads)
            QCOMPARE(sender.writeDatagram(payload, QHostAddress::LocalHost, TarvRequestPort()), qint64(payload.size()));

        QTRY_COMPARE_WITH_TIMEOUT(m_emissions.size(), 2, 2000);
        QCOMPARE(m_emissions.at(0).signal, QStringLiteral("add"));
        QCOMPARE(m_emissions.at(0).member.id(), QStringLiteral("a"));
        QCOMPARE(m_emissions.at(1).signal, QStringLiteral("remove"));
        QCOMPARE(m_emissions.at(1).member.id(), QStringLiteral("b"));
        QCOMPARE(m_log.count(log4cplus::INFO_LOG_LEVEL, Garbage, Logger), 2);
        QCOMPARE(m_log.count(log4cplus::ERROR_LOG_LEVEL, IncorrectJson, Logger), 2);
    }

    // Everything queued before the event loop runs is handled by a single
    // on_readyRead call, in arrival order.
    void thousandQueuedDatagramsAreHandledInOneDrainInArrivalOrder()
    {
        SimpleGroupingSocket listener;
        record(listener);
        const int descriptor = boundUdpDescriptor(TarvRequestPort());
        QVERIFY(descriptor >= 0);
        // 1000 small datagrams need about 1 MB of kernel accounting.
        QVERIFY(raiseReceiveBuffer(descriptor, 8 * 1024 * 1024) >= 2 * 1024 * 1024);

        QUdpSocket sender;
        QStringList expected;
        for (int i = 0; i < 1000; ++i) {
            const QString id = QStringLiteral("r%1").arg(i, 4, 10, QLatin1Char('0'));
            QByteArray payload;
            if (i % 10 == 7) {
                payload = "noise" + id.toUtf8();
            } else if (i % 10 == 3) {
                payload = datagram("remove", receiver(id, QStringLiteral("10.0.0.3")));
                expected.append(QStringLiteral("remove ") + id);
            } else {
                payload = datagram("add", receiver(id, QStringLiteral("10.0.0.3")));
                expected.append(QStringLiteral("add ") + id);
            }
            QCOMPARE(sender.writeDatagram(payload, QHostAddress::LocalHost, TarvRequestPort()), qint64(payload.size()));
        }
        // Same sender, same path: once this one is in, the 1000 are queued.
        QUdpSocket sink;
        QVERIFY(sink.bind(QHostAddress(QHostAddress::LocalHost), 0));
        QCOMPARE(sender.writeDatagram("queued", QHostAddress::LocalHost, sink.localPort()), qint64(6));
        QVERIFY(sink.waitForReadyRead(2000));
        QCOMPARE(m_emissions.size(), 0);

        QTRY_COMPARE_WITH_TIMEOUT(m_emissions.size(), 900, 5000);
        QStringList order;
        for (const Emission& emission : qAsConst(m_emissions))
            order.append(emission.signal + QLatin1Char(' ') + emission.member.id());
        QCOMPARE(order, expected);

        // Datagrams handled per on_readyRead call.
        QList<int> handledPerCall;
        int handled = -1;
        for (const CapturedLog& event : m_log.events()) {
            if (event.logger != Logger)
                continue;
            if (event.message == EnterReadyRead)
                handled = 0;
            else if (event.message == LeaveReadyRead && handled > 0)
                handledPerCall.append(handled);
            else if (event.message.startsWith(QLatin1String("Received packet ")))
                ++handled;
        }
        QCOMPARE(handledPerCall, QList<int>({1000}));
        QCOMPARE(m_log.count(log4cplus::INFO_LOG_LEVEL, Garbage, Logger), 100);
    }

    // The bind result is ignored on purpose: nothing is logged, nothing is
    // received.
    void portTakenLeavesListenerSilent()
    {
        QUdpSocket occupant;
        QVERIFY(occupant.bind(QHostAddress::Any, TarvRequestPort(), QAbstractSocket::DontShareAddress));
        SimpleGroupingSocket listener;
        record(listener);

        const QByteArray payload = datagram("add", receiver(QStringLiteral("r6"), QString()));
        send(payload);
        QVERIFY(occupant.waitForReadyRead(2000));
        QByteArray received(static_cast<int>(occupant.pendingDatagramSize()), '\0');
        occupant.readDatagram(received.data(), received.size());
        QCOMPARE(received, payload);
        QCoreApplication::processEvents();

        QCOMPARE(m_emissions.size(), 0);
        QCOMPARE(m_log.messages(log4cplus::TRACE_LOG_LEVEL, Logger),
                 QStringList({QStringLiteral("Enter SimpleGroupingSocket::SimpleGroupingSocket"),
                              QStringLiteral("Leave SimpleGroupingSocket::SimpleGroupingSocket")}));
        QCOMPARE(m_log.events().size(), 2);
    }
};

QTEST_GUILESS_MAIN(tst_SimpleGroupingSocket)
#include "tst_SimpleGroupingSocket.moc"
