#include <QHostAddress>
#include <QtTest>

#include <tarv>

class tst_TarvNetwork : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void tarvQHostAddressToIp_data()
    {
        QTest::addColumn<QString>("address");
        QTest::addColumn<QString>("text");
        QTest::newRow("IPv4") << QStringLiteral("192.168.1.20") << "192.168.1.20";
        QTest::newRow("IPv4 loopback") << QHostAddress(QHostAddress::LocalHost).toString() << "127.0.0.1";
        QTest::newRow("IPv4-mapped IPv6") << QStringLiteral("::ffff:192.168.1.20") << "192.168.1.20";
        QTest::newRow("IPv4-mapped loopback") << QStringLiteral("::ffff:127.0.0.1") << "127.0.0.1";
        QTest::newRow("IPv6") << QStringLiteral("2001:db8::1") << "2001:db8::1";
        QTest::newRow("IPv6 loopback") << QHostAddress(QHostAddress::LocalHostIPv6).toString() << "::1";
        QTest::newRow("IPv6 link-local with scope") << QStringLiteral("fe80::1%lo") << "fe80::1";
    }
    void tarvQHostAddressToIp()
    {
        QFETCH(QString, address);
        QFETCH(QString, text);
        const QHostAddress parsed(address);
        QVERIFY(!parsed.isNull());
        QCOMPARE(::tarvQHostAddressToIp(parsed), text);
    }
};

QTEST_GUILESS_MAIN(tst_TarvNetwork)
#include "tst_TarvNetwork.moc"
