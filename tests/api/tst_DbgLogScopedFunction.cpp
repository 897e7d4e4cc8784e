#include <sstream>

#include <QtTest>

#include <tarv>

#include "LogCapture.h"

class tst_DbgLogScopedFunction : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void textIsClassTagAndFunctionName_data()
    {
        QTest::addColumn<QByteArray>("signature");
        QTest::addColumn<QByteArray>("tag");
        QTest::addColumn<QString>("text");
        QTest::newRow("member slot") << QByteArray("void SimpleGroupingCtrl::on_joinTranscoder(const TarvSystemMember&)")
                                     << QByteArray("SimpleGroupingCtrl") << "SimpleGroupingCtrl::on_joinTranscoder";
        QTest::newRow("constructor") << QByteArray("SimpleGroupingWorker::SimpleGroupingWorker(const QVariantHash&)")
                                     << QByteArray("SimpleGroupingWorker") << "SimpleGroupingWorker::SimpleGroupingWorker";
        QTest::newRow("const member") << QByteArray("bool A::isReady() const") << QByteArray("A") << "A::isReady";
        QTest::newRow("another class tag")
            << QByteArray("void SimpleGroupingObserver::on_systemMembers_loadingChanged(bool)")
            << QByteArray("SimpleGroupingWorker") << "SimpleGroupingWorker::on_systemMembers_loadingChanged";
        QTest::newRow("namespaced return type") << QByteArray("std::string N::A::name()") << QByteArray("A")
                                                << "A::name";
        QTest::newRow("template return type") << QByteArray("QList<QPair<int, A::B> > A::pairs(int)")
                                              << QByteArray("A") << "A::pairs";
        QTest::newRow("free function") << QByteArray("void init(int)") << QByteArray("Free") << "Free::init";
        QTest::newRow("lambda inside a member")
            << QByteArray("SimpleGroupingUI::on_start()::<lambda()>") << QByteArray("SimpleGroupingUI")
            << "SimpleGroupingUI::on_start";
    }
    void textIsClassTagAndFunctionName()
    {
        QFETCH(QByteArray, signature);
        QFETCH(QByteArray, tag);
        QFETCH(QString, text);
        const DbgLogScopedFunction scope = dbglog_scopedFunction(signature.constData(), tag.constData());
        QCOMPARE(scope.text(), text);
        std::ostringstream out;
        out << scope;
        QCOMPARE(QString::fromStdString(out.str()), text);
    }

    void realFunctionSignatureGivesItsName()
    {
        const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, "tst_DbgLogScopedFunction");
        QCOMPARE(scope.text(), QStringLiteral("tst_DbgLogScopedFunction::realFunctionSignatureGivesItsName"));
    }

    void enterAndLeaveLinesCarryTheText()
    {
        LogCapture log;
        {
            const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, "Tester");
            LOG4CPLUS_TRACE(TarvLog::logger("Tester"), "Enter " << scope);
            LOG4CPLUS_TRACE(TarvLog::logger("Tester"), "Leave " << scope << ": done");
        }
        QCOMPARE(log.messages(log4cplus::TRACE_LOG_LEVEL, QStringLiteral("Tester")),
                 QStringList({"Enter Tester::enterAndLeaveLinesCarryTheText",
                              "Leave Tester::enterAndLeaveLinesCarryTheText: done"}));
    }
};

QTEST_GUILESS_MAIN(tst_DbgLogScopedFunction)
#include "tst_DbgLogScopedFunction.moc"
