#include <QtTest>

#include "CtlArguments.h"

class tst_CtlArguments : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void acceptsEveryCommandForm_data();
    void acceptsEveryCommandForm();
    void usageErrorsSayWhatIsWrong_data();
    void usageErrorsSayWhatIsWrong();
    void apiComesFromOptionThenEnvironmentThenDefault();
    void helpAndVersionNeedNoCommand();
    void optionValuesTakeBothForms();
    void deviceComesFromOptionThenEnvironment();
};

void tst_CtlArguments::acceptsEveryCommandForm_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("command");
    QTest::addColumn<QStringList>("positional");
    QTest::newRow("host") << QStringList{"host"} << "host" << QStringList{};
    QTest::newRow("get") << QStringList{"get", "/system/member"} << "get" << QStringList{"/system/member"};
    QTest::newRow("set json") << QStringList{"set", "/a", "{\"i32_\":1}"} << "set" << QStringList{"/a", "{\"i32_\":1}"};
    QTest::newRow("set negative json") << QStringList{"set", "/a", "-5"} << "set" << QStringList{"/a", "-5"};
    QTest::newRow("set --string") << QStringList{"set", "/a", "--string", "x y"} << "set" << QStringList{"/a"};
    QTest::newRow("set --int negative") << QStringList{"set", "/a", "--int", "-5"} << "set" << QStringList{"/a"};
    QTest::newRow("invoke no value") << QStringList{"invoke", "/x"} << "invoke" << QStringList{"/x"};
    QTest::newRow("invoke with bound") << QStringList{"invoke", "/x", "{}", "--timeout-ms", "100"} << "invoke"
                                       << QStringList{"/x", "{}"};
    QTest::newRow("join") << QStringList{"join", "id-1", "--name", "dev2", "--host", "h2"} << "join"
                          << QStringList{"id-1"};
    QTest::newRow("join by name without waiting") << QStringList{"join", "kitchen", "--no-wait"} << "join"
                                                  << QStringList{"kitchen"};
    QTest::newRow("leave") << QStringList{"leave"} << "leave" << QStringList{};
    QTest::newRow("leave without waiting") << QStringList{"leave", "--no-wait"} << "leave" << QStringList{};
    QTest::newRow("status json") << QStringList{"status", "--json"} << "status" << QStringList{};
    QTest::newRow("ui leave without waiting") << QStringList{"ui", "leave", "--no-wait"} << "ui" << QStringList{"leave"};
    QTest::newRow("rows") << QStringList{"rows", "/grouping/members"} << "rows" << QStringList{"/grouping/members"};
    QTest::newRow("tree json") << QStringList{"--json", "tree"} << "tree" << QStringList{};
    QTest::newRow("watch") << QStringList{"watch"} << "watch" << QStringList{};
    QTest::newRow("watch prefix count") << QStringList{"watch", "/grouping", "--count", "2", "--timeout-ms=500"}
                                        << "watch" << QStringList{"/grouping"};
    QTest::newRow("ui") << QStringList{"ui"} << "ui" << QStringList{};
    QTest::newRow("house") << QStringList{"house"} << "house" << QStringList{};
    QTest::newRow("house json") << QStringList{"house", "--json"} << "house" << QStringList{};
    QTest::newRow("device get") << QStringList{"--device", "kitchen", "get", "/a"} << "get" << QStringList{"/a"};
    QTest::newRow("device= join") << QStringList{"join", "a", "--device=Cellar 2"} << "join" << QStringList{"a"};
    QTest::newRow("device ui join") << QStringList{"ui", "join", "a", "--device", "d2"} << "ui"
                                    << QStringList{"join", "a"};
    QTest::newRow("ui watch") << QStringList{"ui", "--watch", "--count", "2", "--timeout-ms", "900"} << "ui"
                              << QStringList{};
    QTest::newRow("ui join") << QStringList{"ui", "join", "dev 2"} << "ui" << QStringList{"join", "dev 2"};
    QTest::newRow("ui leave") << QStringList{"ui", "leave", "--timeout-ms", "900"} << "ui" << QStringList{"leave"};
    QTest::newRow("options anywhere") << QStringList{"rows", "--api", "h:1", "/x", "--json"} << "rows"
                                      << QStringList{"/x"};
    QTest::newRow("double dash") << QStringList{"set", "/a", "--", "--string"} << "set"
                                 << QStringList{"/a", "--string"};
}

void tst_CtlArguments::acceptsEveryCommandForm()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, command);
    QFETCH(QStringList, positional);
    CtlArguments parsed;
    QVERIFY2(parsed.parse(arguments), qPrintable(parsed.error()));
    QCOMPARE(parsed.command(), command);
    QCOMPARE(parsed.arguments(), positional);
}

void tst_CtlArguments::usageErrorsSayWhatIsWrong_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("error");
    QTest::newRow("nothing") << QStringList{} << "no command given (see tarvctl --help)";
    QTest::newRow("unknown command") << QStringList{"frobnicate"} << "unknown command 'frobnicate' (see tarvctl --help)";
    QTest::newRow("unknown option") << QStringList{"host", "--colour"} << "unknown option '--colour' (see tarvctl --help)";
    QTest::newRow("unknown short option") << QStringList{"host", "-x"} << "unknown option '-x' (see tarvctl --help)";
    QTest::newRow("missing value") << QStringList{"host", "--api"} << "option --api needs a value";
    QTest::newRow("flag with value") << QStringList{"host", "--json=yes"} << "option --json takes no value";
    QTest::newRow("get without path") << QStringList{"get"} << "get: missing argument; usage: tarvctl get PATH";
    QTest::newRow("get surplus") << QStringList{"get", "/a", "/b"}
                                 << "get: unexpected argument '/b'; usage: tarvctl get PATH";
    QTest::newRow("relative path") << QStringList{"get", "system/member"}
                                   << "get: a path starts with '/', e.g. /system/member; got 'system/member'";
    QTest::newRow("relative prefix") << QStringList{"watch", "grouping"}
                                     << "watch: a path starts with '/', e.g. /system/member; got 'grouping'";
    QTest::newRow("set nothing") << QStringList{"set", "/a"} << "set: no value; give VALUE (JSON), --string S or --int N";
    QTest::newRow("set two values") << QStringList{"set", "/a", "1", "--int", "2"}
                                    << "set: give only one of VALUE, --string S and --int N";
    QTest::newRow("int not a number") << QStringList{"set", "/a", "--int", "ten"}
                                      << "--int needs a whole number from -2147483648 to 2147483647, not 'ten'";
    QTest::newRow("int too large") << QStringList{"set", "/a", "--int", "2147483648"}
                                   << "--int needs a whole number from -2147483648 to 2147483647, not '2147483648'";
    QTest::newRow("count elsewhere") << QStringList{"get", "/a", "--count", "1"}
                                     << "option --count is only for watch, ui, not for get";
    QTest::newRow("string elsewhere") << QStringList{"invoke", "/a", "--string", "x"}
                                      << "option --string is only for set, not for invoke";
    QTest::newRow("zero count") << QStringList{"watch", "--count", "0"} << "--count needs a positive whole number, not '0'";
    QTest::newRow("bad timeout") << QStringList{"host", "--timeout-ms", "-1"}
                                 << "--timeout-ms needs a positive whole number of milliseconds, not '-1'";
    QTest::newRow("empty join id") << QStringList{"join", ""} << "join: the transcoder's NAME or ID is empty";
    QTest::newRow("leave surplus") << QStringList{"leave", "now"}
                                   << "leave: unexpected argument 'now'; usage: tarvctl leave";
    QTest::newRow("ui unknown action") << QStringList{"ui", "show"}
                                       << "ui: unknown action 'show'; usage: tarvctl ui [--watch] | ui join NAME|ID | "
                                          "ui leave";
    QTest::newRow("ui join without name") << QStringList{"ui", "join"}
                                          << "ui join: missing NAME or ID; usage: tarvctl ui [--watch] | ui join "
                                             "NAME|ID | ui leave";
    QTest::newRow("ui join empty name") << QStringList{"ui", "join", ""}
                                        << "ui join: the transcoder's NAME or ID is empty";
    QTest::newRow("ui join surplus") << QStringList{"ui", "join", "a", "b"}
                                     << "ui: unexpected argument 'b'; usage: tarvctl ui [--watch] | ui join NAME|ID | "
                                        "ui leave";
    QTest::newRow("ui leave surplus") << QStringList{"ui", "leave", "now"}
                                      << "ui leave: unexpected argument 'now'; usage: tarvctl ui [--watch] | ui join "
                                         "NAME|ID | ui leave";
    QTest::newRow("ui join watch") << QStringList{"ui", "join", "a", "--watch"}
                                   << "ui join: --watch is only for the list itself; usage: tarvctl ui [--watch] | ui "
                                      "join NAME|ID | ui leave";
    QTest::newRow("no-wait elsewhere") << QStringList{"rows", "/a", "--no-wait"}
                                       << "option --no-wait is only for join, leave, save, ui, not for rows";
    QTest::newRow("ui list no-wait") << QStringList{"ui", "--no-wait"}
                                     << "ui: --no-wait is only for ui join and ui leave; usage: tarvctl ui [--watch] | "
                                        "ui join NAME|ID | ui leave";
    QTest::newRow("status surplus") << QStringList{"status", "now"}
                                    << "status: unexpected argument 'now'; usage: tarvctl status";
    QTest::newRow("ui count without watch") << QStringList{"ui", "--count", "1"} << "ui: --count needs --watch";
    QTest::newRow("watch elsewhere") << QStringList{"watch", "--watch"}
                                     << "option --watch is only for ui, not for watch";
    QTest::newRow("house surplus") << QStringList{"house", "all"}
                                   << "house: unexpected argument 'all'; usage: tarvctl house";
    QTest::newRow("device without value") << QStringList{"get", "/a", "--device"} << "option --device needs a value";
    QTest::newRow("device empty") << QStringList{"get", "/a", "--device", " "} << "--device needs a device's name or id";
    QTest::newRow("device with watch") << QStringList{"--device", "kitchen", "watch", "/grouping"}
                                       << "watch cannot be aimed at another device (--device kitchen): a host does "
                                          "not forward events; give that device's own API with --api";
    QTest::newRow("device with ui watch") << QStringList{"ui", "--watch", "--device=kitchen"}
                                          << "ui --watch cannot be aimed at another device (--device kitchen): a host "
                                             "does not forward events; give that device's own API with --api";
    QTest::newRow("device with tree") << QStringList{"tree", "--device", "kitchen"}
                                      << "tree cannot be aimed at another device (--device kitchen): a host does not "
                                         "forward the tree; give that device's own API with --api";
}

void tst_CtlArguments::usageErrorsSayWhatIsWrong()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, error);
    CtlArguments parsed;
    QVERIFY(!parsed.parse(arguments));
    QCOMPARE(parsed.error(), error);
}

void tst_CtlArguments::apiComesFromOptionThenEnvironmentThenDefault()
{
    CtlArguments parsed;
    QVERIFY(parsed.parse({"host"}));
    QCOMPARE(parsed.api(), QString("http://127.0.0.1:8080"));
    QCOMPARE(parsed.apiSource(), QString("default"));

    CtlArguments fromEnvironment;
    QVERIFY(fromEnvironment.parse({"host"}, "http://10.0.0.2:9000"));
    QCOMPARE(fromEnvironment.api(), QString("http://10.0.0.2:9000"));
    QCOMPARE(fromEnvironment.apiSource(), QString("TARV_API"));

    CtlArguments fromOption;
    QVERIFY(fromOption.parse({"--api", "http://10.0.0.3:1", "host"}, "http://10.0.0.2:9000"));
    QCOMPARE(fromOption.api(), QString("http://10.0.0.3:1"));
    QCOMPARE(fromOption.apiSource(), QString("--api"));
}

void tst_CtlArguments::helpAndVersionNeedNoCommand()
{
    for (const QStringList& arguments : {QStringList{"--help"}, QStringList{"-h"}, QStringList{"help"},
                                         QStringList{"get", "--help"}}) {
        CtlArguments parsed;
        QVERIFY(parsed.parse(arguments));
        QVERIFY(parsed.help());
    }
    CtlArguments version;
    QVERIFY(version.parse({"--version"}));
    QVERIFY(version.version());
    QVERIFY(CtlArguments::usage().contains("Exit codes:"));
}

void tst_CtlArguments::optionValuesTakeBothForms()
{
    CtlArguments parsed;
    QVERIFY(parsed.parse({"watch", "--count=3", "--timeout-ms", "250", "--json", "--verbose"}));
    QCOMPARE(parsed.count(), 3);
    QCOMPARE(parsed.timeoutMs(), 250);
    QVERIFY(parsed.json());
    QVERIFY(parsed.verbose());

    CtlArguments set;
    QVERIFY(set.parse({"set", "/a", "--string=--odd"}));
    QCOMPARE(set.option("string"), QString("--odd"));
    QCOMPARE(set.count(), -1);
    QCOMPARE(set.timeoutMs(), -1);
}

void tst_CtlArguments::deviceComesFromOptionThenEnvironment()
{
    CtlArguments none;
    QVERIFY(none.parse({"host"}));
    QCOMPARE(none.device(), QString());

    CtlArguments fromEnvironment;
    QVERIFY(fromEnvironment.parse({"host"}, QString(), "cellar"));
    QCOMPARE(fromEnvironment.device(), QString("cellar"));
    QCOMPARE(fromEnvironment.deviceSource(), QString("TARV_DEVICE"));

    CtlArguments fromOption;
    QVERIFY(fromOption.parse({"--device", "d2", "host"}, QString(), "cellar"));
    QCOMPARE(fromOption.device(), QString("d2"));
    QCOMPARE(fromOption.deviceSource(), QString("--device"));

    // The environment aims every command, so a watch is refused there too.
    CtlArguments watch;
    QVERIFY(!watch.parse({"watch"}, QString(), "cellar"));
    QCOMPARE(watch.error(), QString("watch cannot be aimed at another device (TARV_DEVICE cellar): a host does not "
                                    "forward events; give that device's own API with --api"));
}

QTEST_GUILESS_MAIN(tst_CtlArguments)
#include "tst_CtlArguments.moc"
