#include <QtTest>

#include "ApiRequestGuard.h"

namespace {

// A host named "tarv-test.local" (and, as configured with a trailing dot and
// an address in a long spelling, "Kitchen.Example." and "fe80::0001") with
// loopback, a LAN address and a scoped link-local address.
ApiRequestGuard guard()
{
    return ApiRequestGuard({QStringLiteral("tarv-test.local"), QStringLiteral("Kitchen.Example."),
                            QStringLiteral("fe80::0001")},
                           {QHostAddress(QStringLiteral("127.0.0.1")), QHostAddress(QStringLiteral("::1")),
                            QHostAddress(QStringLiteral("192.168.1.5")), QHostAddress(QStringLiteral("fe80::2%lo"))});
}

} // namespace

class tst_ApiRequestGuard : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void theNamesAreKeptAsTheyAreCompared()
    {
        QCOMPARE(guard().names(), QStringList({"tarv-test.local", "kitchen.example", "fe80::1", "localhost",
                                               "localhost.localdomain", "127.0.0.1", "::1", "192.168.1.5",
                                               "fe80::2"}));
        // Doubles and empty names (an unnamed machine) are dropped.
        const ApiRequestGuard doubled({QStringLiteral("LOCALHOST"), QString(), QStringLiteral("127.0.0.1")},
                                      {QHostAddress(QStringLiteral("127.0.0.1")), QHostAddress()});
        QCOMPARE(doubled.names(), QStringList({"localhost", "127.0.0.1", "localhost.localdomain"}));
    }

    void aGuardWithoutNamesAnswersToLocalhostOnly()
    {
        const ApiRequestGuard bare;
        QVERIFY(bare.hostAllowed("localhost:8080"));
        QVERIFY(bare.hostAllowed("localhost.localdomain"));
        QVERIFY(!bare.hostAllowed("127.0.0.1:8080"));
        QVERIFY(!bare.hostAllowed("tarv-test.local"));
    }

    void theHostHeaderMustNameThisHost_data()
    {
        QTest::addColumn<QByteArray>("header");
        QTest::addColumn<bool>("allowed");
        QTest::newRow("address") << QByteArray("127.0.0.1") << true;
        QTest::newRow("address and port") << QByteArray("127.0.0.1:8080") << true;
        QTest::newRow("lowest port") << QByteArray("127.0.0.1:1") << true;
        QTest::newRow("highest port") << QByteArray("127.0.0.1:65535") << true;
        QTest::newRow("lan address") << QByteArray("192.168.1.5:8080") << true;
        QTest::newRow("address with dot") << QByteArray("127.0.0.1.:8080") << true;
        QTest::newRow("address in short spelling") << QByteArray("127.1:8080") << true;
        QTest::newRow("localhost") << QByteArray("localhost") << true;
        QTest::newRow("localhost upper case") << QByteArray("LOCALHOST:8080") << true;
        QTest::newRow("localhost with dot") << QByteArray("localhost.") << true;
        QTest::newRow("localhost.localdomain") << QByteArray("localhost.localdomain:8080") << true;
        QTest::newRow("host name") << QByteArray("tarv-test.local") << true;
        QTest::newRow("host name mixed case") << QByteArray("Tarv-Test.LOCAL:80") << true;
        QTest::newRow("host name with dot") << QByteArray("tarv-test.local.") << true;
        QTest::newRow("host name with dot and port") << QByteArray("tarv-test.local.:8080") << true;
        QTest::newRow("spaces around") << QByteArray(" tarv-test.local:8080 ") << true;
        QTest::newRow("name configured with dot") << QByteArray("kitchen.example") << true;
        QTest::newRow("name configured with dot, asked with dot") << QByteArray("KITCHEN.EXAMPLE.:80") << true;
        QTest::newRow("ipv6 bracketed") << QByteArray("[::1]") << true;
        QTest::newRow("ipv6 bracketed with port") << QByteArray("[::1]:8080") << true;
        QTest::newRow("ipv6 bare") << QByteArray("::1") << true;
        QTest::newRow("ipv6 long spelling") << QByteArray("[0:0:0:0:0:0:0:1]:8080") << true;
        QTest::newRow("ipv6 upper case") << QByteArray("[FE80::2]:8080") << true;
        QTest::newRow("ipv6 with scope") << QByteArray("[fe80::2%lo]:8080") << true;
        QTest::newRow("ipv6 configured in long spelling") << QByteArray("[fe80::1]") << true;

        QTest::newRow("empty") << QByteArray("") << false;
        QTest::newRow("blank") << QByteArray("   ") << false;
        QTest::newRow("port only") << QByteArray(":8080") << false;
        QTest::newRow("dot only") << QByteArray(".") << false;
        QTest::newRow("two dots") << QByteArray("localhost..") << false;
        QTest::newRow("foreign name") << QByteArray("evil.example") << false;
        QTest::newRow("foreign name with port") << QByteArray("evil.example:8080") << false;
        QTest::newRow("foreign address") << QByteArray("10.0.0.1:8080") << false;
        QTest::newRow("any address") << QByteArray("0.0.0.0:8080") << false;
        QTest::newRow("lookalike") << QByteArray("127.0.0.1.evil.example") << false;
        QTest::newRow("own name as a subdomain") << QByteArray("tarv-test.local.evil.example") << false;
        QTest::newRow("subdomain of the own name") << QByteArray("evil.tarv-test.local") << false;
        QTest::newRow("more after the port") << QByteArray("127.0.0.1:80@evil.example") << false;
        QTest::newRow("user info") << QByteArray("user@localhost") << false;
        QTest::newRow("a path") << QByteArray("localhost/evil") << false;
        QTest::newRow("port not a number") << QByteArray("localhost:http") << false;
        QTest::newRow("empty port") << QByteArray("127.0.0.1:") << false;
        QTest::newRow("port zero") << QByteArray("localhost:0") << false;
        QTest::newRow("port too high") << QByteArray("localhost:65536") << false;
        QTest::newRow("port too long") << QByteArray("localhost:123456") << false;
        QTest::newRow("port with sign") << QByteArray("localhost:+80") << false;
        QTest::newRow("negative port") << QByteArray("localhost:-1") << false;
        QTest::newRow("space before the port") << QByteArray("localhost: 80") << false;
        QTest::newRow("two ports") << QByteArray("localhost:80:80") << false;
        QTest::newRow("ipv6 with junk port") << QByteArray("[::1]:1x") << false;
        QTest::newRow("ipv6 with empty port") << QByteArray("[::1]:") << false;
        QTest::newRow("ipv6 unclosed") << QByteArray("[::1") << false;
        QTest::newRow("ipv6 junk after bracket") << QByteArray("[::1]x") << false;
        QTest::newRow("ipv6 another address") << QByteArray("[::2]:8080") << false;
        QTest::newRow("ipv6 bare with a port") << QByteArray("::1:8080") << false;
        QTest::newRow("garbage") << QByteArray("%%%") << false;
        QTest::newRow("control characters") << QByteArray("\x01\x02") << false;
        QTest::newRow("not utf-8") << QByteArray("\xff\xfe") << false;
    }

    void theHostHeaderMustNameThisHost()
    {
        QFETCH(QByteArray, header);
        QFETCH(bool, allowed);
        QCOMPARE(guard().hostAllowed(header.toStdString()), allowed);
    }

    void onlyThisHostsOwnPageMayCall_data()
    {
        QTest::addColumn<QByteArray>("origin");
        QTest::addColumn<QByteArray>("host");
        QTest::addColumn<bool>("allowed");
        QTest::newRow("own page") << QByteArray("http://127.0.0.1:8080") << QByteArray("127.0.0.1:8080") << true;
        QTest::newRow("own page by name") << QByteArray("http://TARV-TEST.local:8080")
                                          << QByteArray("tarv-test.local:8080") << true;
        QTest::newRow("own page, port 80 in the origin") << QByteArray("http://tarv-test.local:80")
                                                         << QByteArray("tarv-test.local") << true;
        QTest::newRow("own page, port 80 in the host") << QByteArray("http://tarv-test.local")
                                                       << QByteArray("tarv-test.local:80") << true;
        QTest::newRow("own page over ipv6") << QByteArray("http://[::1]:8080") << QByteArray("[::1]:8080") << true;
        QTest::newRow("scheme in upper case") << QByteArray("HTTP://127.0.0.1:8080") << QByteArray("127.0.0.1:8080")
                                              << true;
        QTest::newRow("spaces around") << QByteArray(" http://127.0.0.1:8080 ") << QByteArray("127.0.0.1:8080") << true;

        QTest::newRow("foreign page") << QByteArray("http://evil.example") << QByteArray("127.0.0.1:8080") << false;
        QTest::newRow("foreign page on this port") << QByteArray("http://evil.example:8080")
                                                   << QByteArray("127.0.0.1:8080") << false;
        QTest::newRow("another port of this host") << QByteArray("http://127.0.0.1:1") << QByteArray("127.0.0.1:8080")
                                                   << false;
        QTest::newRow("port 80 of this host") << QByteArray("http://127.0.0.1") << QByteArray("127.0.0.1:8080")
                                              << false;
        QTest::newRow("another name of this host") << QByteArray("http://localhost:8080")
                                                   << QByteArray("127.0.0.1:8080") << false;
        QTest::newRow("https on the same port") << QByteArray("https://127.0.0.1:8080")
                                                << QByteArray("127.0.0.1:8080") << false;
        QTest::newRow("https on its own port") << QByteArray("https://tarv-test.local")
                                               << QByteArray("tarv-test.local") << false;
        QTest::newRow("websocket scheme") << QByteArray("ws://127.0.0.1:8080") << QByteArray("127.0.0.1:8080")
                                          << false;
        QTest::newRow("opaque") << QByteArray("null") << QByteArray("127.0.0.1:8080") << false;
        QTest::newRow("local file") << QByteArray("file://") << QByteArray("127.0.0.1:8080") << false;
        QTest::newRow("empty origin") << QByteArray("") << QByteArray("127.0.0.1:8080") << false;
        QTest::newRow("garbage origin") << QByteArray("http://[zz") << QByteArray("127.0.0.1:8080") << false;
        QTest::newRow("port out of range") << QByteArray("http://127.0.0.1:99999") << QByteArray("127.0.0.1:99999")
                                           << false;
        QTest::newRow("empty host") << QByteArray("http://127.0.0.1:8080") << QByteArray("") << false;
        QTest::newRow("host with user info") << QByteArray("http://evil.example")
                                             << QByteArray("127.0.0.1:80@evil.example") << false;
        QTest::newRow("host with a path") << QByteArray("http://127.0.0.1:8080") << QByteArray("127.0.0.1:8080/x")
                                          << false;
    }

    void onlyThisHostsOwnPageMayCall()
    {
        QFETCH(QByteArray, origin);
        QFETCH(QByteArray, host);
        QFETCH(bool, allowed);
        QCOMPARE(ApiRequestGuard::originAllowed(origin.toStdString(), host.toStdString()), allowed);
    }
};

QTEST_GUILESS_MAIN(tst_ApiRequestGuard)
#include "tst_ApiRequestGuard.moc"
