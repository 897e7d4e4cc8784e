#include <QJsonObject>
#include <QtTest>

#include "CMListRowsNode.h"
#include "CMNodes.h"
#include "CMRootWorker.h"
#include "EventStream.h"
#include "LogCapture.h"

class tst_EventStream : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void valueChangesBecomeValueEvents()
    {
        EventStream stream;
        const auto subscription = stream.subscribe();
        QVERIFY(subscription);
        CMRoot()->defineValue(CMPath("/test/value"), QVariantHash{{QStringLiteral("i32_"), 1}});
        std::string text;
        QVERIFY(EventStream::next(*subscription, 0, &text));
        QCOMPARE(QString::fromStdString(text),
                 QStringLiteral("event: value\ndata: {\"path\":\"/test/value\",\"value\":{\"i32_\":1}}\n\n"));
        // Nothing more: a quiet wait gives an empty text and the stream goes on.
        QVERIFY(EventStream::next(*subscription, 10, &text));
        QVERIFY(text.empty());
        CMRoot()->undefineValue(CMPath("/test/value"));
    }

    void rowChangesBecomeRowsEvents()
    {
        EventStream stream;
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/test/list"));
        const auto subscription = stream.subscribe();
        list->rowsSetById(TarvRoles().setId(QStringLiteral("a")));
        list->rowsRemoveById(QStringLiteral("a"));
        std::string text;
        QVERIFY(EventStream::next(*subscription, 0, &text));
        QCOMPARE(QString::fromStdString(text),
                 QStringLiteral("event: rows\ndata: {\"new\":{\"id\":\"a\"},\"old\":{},\"path\":\"/test/list\"}\n\n"));
        QVERIFY(EventStream::next(*subscription, 0, &text));
        QCOMPARE(QString::fromStdString(text),
                 QStringLiteral("event: rows\ndata: {\"new\":{},\"old\":{\"id\":\"a\"},\"path\":\"/test/list\"}\n\n"));
    }

    void everySubscriberGetsEveryEvent()
    {
        EventStream stream;
        const auto first = stream.subscribe();
        const auto second = stream.subscribe();
        QCOMPARE(stream.subscriberCount(), 2);
        CMRoot()->defineValue(CMPath("/test/value"), QVariantHash());
        std::string one;
        std::string two;
        QVERIFY(EventStream::next(*first, 0, &one));
        QVERIFY(EventStream::next(*second, 0, &two));
        QCOMPARE(one, two);
        QVERIFY(!one.empty());
        stream.unsubscribe(first);
        QCOMPARE(stream.subscriberCount(), 1);
        CMRoot()->undefineValue(CMPath("/test/value"));
    }

    void subscriptionsAreLimited()
    {
        EventStream stream;
        std::vector<std::shared_ptr<EventStream::Subscription>> subscriptions;
        for (int i = 0; i < EventStream::MaxSubscribers; ++i) {
            subscriptions.push_back(stream.subscribe());
            QVERIFY(subscriptions.back());
        }
        QVERIFY(!stream.subscribe());
        stream.unsubscribe(subscriptions.front());
        QVERIFY(stream.subscribe());
    }

    void aSubscriberThatFallsBehindIsEnded()
    {
        LogCapture log;
        EventStream stream;
        const auto slow = stream.subscribe();
        for (size_t i = 0; i <= EventStream::MaxQueued; ++i)
            CMRoot()->defineValue(CMPath("/test/value"), QVariantHash{{QStringLiteral("i32_"), static_cast<int>(i)}});
        std::string text;
        QVERIFY(!EventStream::next(*slow, 0, &text));
        QCOMPARE(log.count(log4cplus::WARN_LOG_LEVEL, QStringLiteral("An event stream fell 10000 events behind; ending it"),
                           QStringLiteral("EventStream")),
                 1);
        CMRoot()->undefineValue(CMPath("/test/value"));
    }

    void aSubscriberHoldingTooManyBytesIsEnded()
    {
        LogCapture log;
        EventStream stream;
        const auto slow = stream.subscribe();
        const auto reader = stream.subscribe();
        const QString big(64 * 1024, QLatin1Char('x'));
        std::string text;
        // Far fewer events than MaxQueued, but each one large.
        const size_t events = EventStream::MaxQueuedBytes / big.size() + 1;
        for (size_t i = 0; i < events; ++i) {
            CMRoot()->defineValue(CMPath("/test/value"),
                                  QVariantHash{{QStringLiteral("string_"), big + QString::number(i)}});
            // One reader keeps up and stays.
            QVERIFY(EventStream::next(*reader, 0, &text));
        }
        QVERIFY(!EventStream::next(*slow, 0, &text));
        QVERIFY(EventStream::next(*reader, 0, &text));
        QCOMPARE(log.count(log4cplus::WARN_LOG_LEVEL,
                           QStringLiteral("An event stream fell more than 8388608 bytes behind; ending it"),
                           QStringLiteral("EventStream")),
                 1);
        CMRoot()->undefineValue(CMPath("/test/value"));
    }

    void closingEndsEveryStreamAndRefusesNewOnes()
    {
        EventStream stream;
        const auto subscription = stream.subscribe();
        stream.close();
        std::string text;
        QVERIFY(!EventStream::next(*subscription, 1000, &text));
        QVERIFY(!stream.subscribe());
        QCOMPARE(stream.subscriberCount(), 0);
    }
};

QTEST_GUILESS_MAIN(tst_EventStream)
#include "tst_EventStream.moc"
