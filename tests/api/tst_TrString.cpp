#include <sstream>

#include <QtTest>

#include <tarv>

class tst_TrString : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void literalDisplaysItsText()
    {
        const TrString text("VopGrouping");
        QCOMPARE(text.toString(), QStringLiteral("VopGrouping"));
        QCOMPARE(text.sourceText(), QStringLiteral("VopGrouping"));
        QCOMPARE(text.context(), QString());
        QVERIFY(!text.isEmpty());
    }

    void literalWithContextDisplaysOnlyTheText()
    {
        const TrString text("grouping\004Leave group");
        QCOMPARE(text.context(), QStringLiteral("grouping"));
        QCOMPARE(text.sourceText(), QStringLiteral("Leave group"));
        QCOMPARE(text.toString(), QStringLiteral("Leave group"));
    }

    void trExtractContext_data()
    {
        QTest::addColumn<QByteArray>("literal");
        QTest::addColumn<QString>("context");
        QTest::newRow("no context") << QByteArray("Leave") << QString();
        QTest::newRow("context") << QByteArray("ui\004Leave") << QStringLiteral("ui");
        QTest::newRow("empty context") << QByteArray("\004Leave") << QString();
        QTest::newRow("empty literal") << QByteArray("") << QString();
        QTest::newRow("only first separator counts") << QByteArray("a\004b\004c") << QStringLiteral("a");
    }
    void trExtractContext()
    {
        QFETCH(QByteArray, literal);
        QFETCH(QString, context);
        QCOMPARE(::trExtractContext(literal.constData()), context);
        QCOMPARE(TrString(literal.constData()).context(), context);
    }

    void plainStringIsTakenAsIs()
    {
        const TrString text(QStringLiteral("a\004b"));
        QCOMPARE(text.toString(), QStringLiteral("a\004b"));
        QCOMPARE(text.context(), QString());
    }

    void defaultIsEmpty()
    {
        QVERIFY(TrString().isEmpty());
        QCOMPARE(TrString().toString(), QString());
    }

    void formatPutsInItsArguments_data()
    {
        QTest::addColumn<QString>("format");
        QTest::addColumn<QString>("value1");
        QTest::addColumn<int>("width1");
        QTest::addColumn<QString>("value2");
        QTest::addColumn<QString>("expected");
        QTest::newRow("two args") << "%1 of %2" << "3" << 0 << "7" << "3 of 7";
        QTest::newRow("reordered") << "%2 before %1" << "a" << 0 << "b" << "b before a";
        QTest::newRow("right aligned") << "[%1] %2" << "x" << 3 << "y" << "[  x] y";
        QTest::newRow("left aligned") << "[%1] %2" << "x" << -3 << "y" << "[x  ] y";
    }
    void formatPutsInItsArguments()
    {
        QFETCH(QString, format);
        QFETCH(QString, value1);
        QFETCH(int, width1);
        QFETCH(QString, value2);
        QFETCH(QString, expected);
        const TrString text(TrCharData{QStringLiteral("ctx"), format}, {TrArg(value1, width1), TrArg(value2)});
        QCOMPARE(text.toString(), expected);
        QCOMPARE(text.sourceText(), format);
        QCOMPARE(text.context(), QStringLiteral("ctx"));
    }

    void formatUsesTheFillCharacter()
    {
        const TrString text(TrCharData{QString(), QStringLiteral("id %1")}, {TrArg(QStringLiteral("7"), 3, QLatin1Char('0'))});
        QCOMPARE(text.toString(), QStringLiteral("id 007"));
    }

    void convertsToQVariantAsDisplayText()
    {
        const QVariant variant = TrString("ui\004Leave");
        QCOMPARE(variant.userType(), int(QMetaType::QString));
        QCOMPARE(variant.toString(), QStringLiteral("Leave"));
        const QVariant typed = QVariant::fromValue(TrString("x"));
        QCOMPARE(typed.value<TrString>(), TrString("x"));
    }

    void equalityComparesContextTextAndArguments()
    {
        QVERIFY(TrString("a") == TrString("a"));
        QVERIFY(TrString("a") == TrString(QStringLiteral("a")));
        QVERIFY(TrString("a") != TrString("b"));
        QVERIFY(TrString("c1\004a") != TrString("c2\004a"));
        const TrCharData format{QString(), QStringLiteral("%1")};
        QVERIFY(TrString(format, {TrArg(QStringLiteral("x"))}) == TrString(format, {TrArg(QStringLiteral("x"))}));
        QVERIFY(TrString(format, {TrArg(QStringLiteral("x"))}) != TrString(format, {TrArg(QStringLiteral("y"))}));
    }

    void streamsItsDisplayText()
    {
        std::ostringstream out;
        out << TrString(TrCharData{QString(), QStringLiteral("Hello %1")}, {TrArg(QStringLiteral("World"))});
        QCOMPARE(QString::fromStdString(out.str()), QStringLiteral("Hello World"));
    }

    void travelsInRecordsAsDisplayText()
    {
        const TarvRoles row = TarvRoles().setTitle(TrString("ctx\004Title"));
        QCOMPARE(row.hash().value(QStringLiteral("title")).toString(), QStringLiteral("Title"));
        QCOMPARE(row.title().toString(), QStringLiteral("Title"));
    }
};

QTEST_GUILESS_MAIN(tst_TrString)
#include "tst_TrString.moc"
