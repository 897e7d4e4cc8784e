#include <QtTest>

#include "CtlEventStream.h"

Q_DECLARE_METATYPE(QList<CtlEvent>)

class tst_CtlEventStream : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void parsesWholeStream_data();
    void parsesWholeStream();
    void sameEventsWhateverTheChunking();
    void overlongLineIsDroppedWithItsEvent();
};

void tst_CtlEventStream::parsesWholeStream_data()
{
    QTest::addColumn<QByteArray>("stream");
    QTest::addColumn<QList<CtlEvent>>("events");
    QTest::newRow("one event") << QByteArray("event: value\ndata: {\"a\":1}\n\n")
                               << QList<CtlEvent>{CtlEvent{"value", "{\"a\":1}"}};
    QTest::newRow("two events") << QByteArray("event: value\ndata: 1\n\nevent: rows\ndata: 2\n\n")
                                << QList<CtlEvent>{CtlEvent{"value", "1"}, CtlEvent{"rows", "2"}};
    QTest::newRow("crlf") << QByteArray("event: rows\r\ndata: x\r\n\r\n") << QList<CtlEvent>{CtlEvent{"rows", "x"}};
    QTest::newRow("no name is message") << QByteArray("data: x\n\n") << QList<CtlEvent>{CtlEvent{"message", "x"}};
    QTest::newRow("no space after colon") << QByteArray("event:value\ndata:x\n\n")
                                          << QList<CtlEvent>{CtlEvent{"value", "x"}};
    QTest::newRow("only first space dropped") << QByteArray("data:  x\n\n") << QList<CtlEvent>{CtlEvent{"message", " x"}};
    QTest::newRow("multi-line data") << QByteArray("event: value\ndata: a\ndata: b\n\n")
                                     << QList<CtlEvent>{CtlEvent{"value", "a\nb"}};
    QTest::newRow("comments ignored") << QByteArray(": keep-alive\n\n:x\nevent: value\n: mid\ndata: y\n\n")
                                      << QList<CtlEvent>{CtlEvent{"value", "y"}};
    QTest::newRow("no data, no event") << QByteArray("event: value\n\n") << QList<CtlEvent>{};
    QTest::newRow("name does not leak into next") << QByteArray("event: value\n\ndata: z\n\n")
                                                  << QList<CtlEvent>{CtlEvent{"message", "z"}};
    QTest::newRow("unknown fields ignored") << QByteArray("id: 7\nretry: 10\nevent: rows\ndata: q\nfoo\n\n")
                                            << QList<CtlEvent>{CtlEvent{"rows", "q"}};
    QTest::newRow("unfinished event held") << QByteArray("event: value\ndata: 1\n") << QList<CtlEvent>{};
    QTest::newRow("empty data line") << QByteArray("data\n\n") << QList<CtlEvent>{CtlEvent{"message", ""}};
}

void tst_CtlEventStream::parsesWholeStream()
{
    QFETCH(QByteArray, stream);
    QFETCH(QList<CtlEvent>, events);
    CtlEventStream parser;
    QCOMPARE(parser.feed(stream), events);
    QCOMPARE(parser.droppedLines(), 0);
}

void tst_CtlEventStream::sameEventsWhateverTheChunking()
{
    const QByteArray stream("event: value\r\ndata: {\"path\":\"/a\"}\r\n\r\n: c\nevent: rows\ndata: 1\ndata: 2\n\n");
    const QList<CtlEvent> expected{CtlEvent{"value", "{\"path\":\"/a\"}"}, CtlEvent{"rows", "1\n2"}};
    for (int size = 1; size <= stream.size(); ++size) {
        CtlEventStream parser;
        QList<CtlEvent> events;
        for (int at = 0; at < stream.size(); at += size)
            events += parser.feed(stream.mid(at, size));
        QVERIFY2(events == expected, qPrintable(QString("chunk size %1").arg(size)));
    }
}

void tst_CtlEventStream::overlongLineIsDroppedWithItsEvent()
{
    CtlEventStream parser(16);
    QList<CtlEvent> events = parser.feed("event: value\ndata: 0123456789abcdef0123");
    events += parser.feed("456789\n\nevent: rows\ndata: ok\n\n");
    QCOMPARE(events, QList<CtlEvent>({CtlEvent{"rows", "ok"}}));
    QCOMPARE(parser.droppedLines(), 1);
}

QTEST_GUILESS_MAIN(tst_CtlEventStream)
#include "tst_CtlEventStream.moc"
