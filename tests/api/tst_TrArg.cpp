#include <QtTest>

#include <tarv>

class tst_TrArg : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void defaultsToNoWidthAndSpaceFill()
    {
        const TrArg arg(QStringLiteral("v"));
        QCOMPARE(arg.value(), QStringLiteral("v"));
        QCOMPARE(arg.fieldWidth(), 0);
        QCOMPARE(arg.fill(), QLatin1Char(' '));
    }

    void keepsWidthAndFill()
    {
        const TrArg arg(QStringLiteral("v"), -4, QLatin1Char('*'));
        QCOMPARE(arg.fieldWidth(), -4);
        QCOMPARE(arg.fill(), QLatin1Char('*'));
    }

    void equalityComparesEveryPart()
    {
        const TrArg arg(QStringLiteral("v"), 2, QLatin1Char('0'));
        QVERIFY(arg == TrArg(QStringLiteral("v"), 2, QLatin1Char('0')));
        QVERIFY(!(arg == TrArg(QStringLiteral("w"), 2, QLatin1Char('0'))));
        QVERIFY(!(arg == TrArg(QStringLiteral("v"), 3, QLatin1Char('0'))));
        QVERIFY(!(arg == TrArg(QStringLiteral("v"), 2, QLatin1Char(' '))));
    }
};

QTEST_GUILESS_MAIN(tst_TrArg)
#include "tst_TrArg.moc"
