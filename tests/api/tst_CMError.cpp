#include <QtTest>

#include <model/cmrequest>
#include <tarv>

#include "RecordChecks.h"

class tst_CMError : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void keyNamesAndDefaults()
    {
        QCOMPARE(CMError::Name(), QStringLiteral("name"));
        QCOMPARE(CMError::Title(), QStringLiteral("title"));
        QCOMPARE(CMError::Message(), QStringLiteral("message"));
        QCOMPARE(CMError::DefaultName(), QStringLiteral("Error"));
        QCOMPARE(CMError::DefaultTitle(), QStringLiteral("Error"));
    }

    void defaultIsEmpty()
    {
        QVERIFY(CMError().isEmpty());
    }

    void madeFromTextHasDefaultNameAndTitle()
    {
        const CMError error(TrString("Invalid request"));
        QCOMPARE(error.name(), CMError::DefaultName());
        QCOMPARE(error.title(), CMError::DefaultTitle());
        QCOMPARE(error.message(), QStringLiteral("Invalid request"));
        QCOMPARE(error.value(CMError::Message()).toString(), QStringLiteral("Invalid request"));
        QVERIFY(!error.isEmpty());
    }

    void madeFromFormattedTextCarriesDisplayText()
    {
        const CMError error(TrString(TrCharData{QString(), QStringLiteral("Unknown master %1")},
                                     {TrArg(QStringLiteral("T"))}));
        QCOMPARE(error.message(), QStringLiteral("Unknown master T"));
    }

    void settersChainAndBuildFromHash()
    {
        CMError error;
        error.setName(QStringLiteral("n")).setTitle(QStringLiteral("t")).setMessage(QStringLiteral("m"));
        QCOMPARE(error, CMError(QVariantHash{{QStringLiteral("name"), QStringLiteral("n")},
                                             {QStringLiteral("title"), QStringLiteral("t")},
                                             {QStringLiteral("message"), QStringLiteral("m")}}));
    }

    void equalityComparesWholeContent()
    {
        verifyWholeContentEquality(CMError(TrString("a")), [](CMError& e) { e.setMessage(QStringLiteral("b")); });
        verifyWholeContentEquality(CMError(TrString("a")), [](CMError& e) { e.setTitle(QStringLiteral("T")); });
    }

    void travelsAsJsonVariantAndStream()
    {
        verifyRecordForms(CMError(TrString("Something failed")));
    }
};

QTEST_GUILESS_MAIN(tst_CMError)
#include "tst_CMError.moc"
