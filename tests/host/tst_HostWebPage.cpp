#include <QFile>
#include <QRegularExpression>
#include <QtTest>

#include "HostWebPage.h"

#ifndef TARV_WEB_SOURCE_DIR
#error "TARV_WEB_SOURCE_DIR must name the web page's source folder"
#endif

namespace {

QByteArray sourceFile(const QString& name)
{
    QFile file(QStringLiteral(TARV_WEB_SOURCE_DIR "/") + name);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    return file.readAll();
}

QByteArray served(const char* urlPath)
{
    HostWebPage::File file;
    if (!HostWebPage::find(urlPath, &file))
        return QByteArray();
    return QByteArray::fromStdString(file.body);
}

} // namespace

class tst_HostWebPage : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void eachFileIsTheRepositorysOwn_data()
    {
        QTest::addColumn<QString>("urlPath");
        QTest::addColumn<QString>("source");
        QTest::addColumn<QString>("contentType");
        QTest::newRow("page") << "/" << "index.html" << "text/html; charset=utf-8";
        QTest::newRow("style") << "/web/app.css" << "app.css" << "text/css; charset=utf-8";
        QTest::newRow("script") << "/web/app.js" << "app.js" << "text/javascript; charset=utf-8";
        for (const char* module : {"api.js", "connection.js", "deviceView.js", "dom.js", "houseView.js"})
            QTest::newRow(module) << QStringLiteral("/web/") + module << module << "text/javascript; charset=utf-8";
    }

    void eachFileIsTheRepositorysOwn()
    {
        QFETCH(QString, urlPath);
        QFETCH(QString, source);
        QFETCH(QString, contentType);
        HostWebPage::File file;
        QVERIFY(HostWebPage::find(urlPath.toStdString(), &file));
        const QByteArray expected = sourceFile(source);
        QVERIFY(!expected.isEmpty());
        QVERIFY(QByteArray::fromStdString(file.body) == expected);
        QCOMPARE(QString::fromStdString(file.contentType), contentType);
    }

    void otherPathsAreNoFiles_data()
    {
        QTest::addColumn<QString>("urlPath");
        QTest::newRow("empty") << "";
        QTest::newRow("folder") << "/web/";
        QTest::newRow("resource list") << "/web/web.qrc";
        QTest::newRow("page by name") << "/index.html";
        QTest::newRow("page in the folder") << "/web/index.html";
        QTest::newRow("trailing slash") << "/web/app.js/";
        QTest::newRow("dot dot") << "/web/../web/app.js";
        QTest::newRow("case") << "/web/APP.js";
        QTest::newRow("resource path") << ":/web/app.js";
    }

    void otherPathsAreNoFiles()
    {
        QFETCH(QString, urlPath);
        HostWebPage::File file;
        file.body = "untouched";
        QVERIFY(!HostWebPage::find(urlPath.toStdString(), &file));
        QCOMPARE(file.body, std::string("untouched"));
    }

    // Devices have no internet: everything the page loads is one of its own
    // files, and its script reaches nothing but this host.
    void thePageLoadsNothingButItsOwnFiles()
    {
        const QString page = QString::fromUtf8(served("/"));
        const QRegularExpression reference(QStringLiteral("(?:src|href)=\"([^\"]*)\""));
        QStringList references;
        QStringList views;
        for (auto it = reference.globalMatch(page); it.hasNext();) {
            const QString target = it.next().captured(1);
            // A link to one of the page's own views loads nothing.
            (target.startsWith(QLatin1Char('#')) ? views : references) << target;
        }
        QCOMPARE(views, (QStringList{"#/house", "#/device"}));
        QCOMPARE(references, (QStringList{"data:,", "/web/app.css", "/web/app.js"}));
        for (const QString& target : references.mid(1))
            QVERIFY2(!served(target.toUtf8().constData()).isEmpty(), qPrintable(target));
        for (const char* file : {"/", "/web/app.css", "/web/app.js"}) {
            const QByteArray body = served(file);
            QVERIFY2(!body.contains("http:") && !body.contains("https:") && !body.contains("//cdn"), file);
            QVERIFY2(!body.contains("@import"), file);
        }
    }

    // The script's modules import one another by relative name; every one
    // reached from the entry is served, and nothing is imported from
    // elsewhere.
    void everyImportedModuleIsServed()
    {
        const QRegularExpression import(QStringLiteral("^import [^;]*from \"([^\"]*)\";$"),
                                        QRegularExpression::MultilineOption);
        QStringList pending{QStringLiteral("/web/app.js")};
        QStringList reached;
        while (!pending.isEmpty()) {
            const QString file = pending.takeFirst();
            if (reached.contains(file))
                continue;
            reached << file;
            const QByteArray body = served(file.toUtf8().constData());
            QVERIFY2(!body.isEmpty(), qPrintable(file));
            QVERIFY2(!body.contains("http:") && !body.contains("https:") && !body.contains("import("), qPrintable(file));
            for (auto it = import.globalMatch(QString::fromUtf8(body)); it.hasNext();) {
                const QString target = it.next().captured(1);
                QVERIFY2(target.startsWith(QLatin1String("./")) && !target.contains(QLatin1String("..")),
                         qPrintable(file + ": " + target));
                pending << QStringLiteral("/web/") + target.mid(2);
            }
        }
        reached.sort();
        QCOMPARE(reached, (QStringList{"/web/api.js", "/web/app.js", "/web/connection.js", "/web/deviceView.js",
                                       "/web/dom.js", "/web/houseView.js"}));
    }

    void thePolicyKeepsThePageOnThisHost()
    {
        const QStringList directives =
            QString::fromLatin1(HostWebPage::contentSecurityPolicy()).split(QStringLiteral("; "));
        for (const char* expected :
             {"default-src 'none'", "script-src 'self'", "style-src 'self'", "connect-src 'self'",
              "img-src 'self' data:", "base-uri 'none'", "form-action 'none'", "frame-ancestors 'none'"})
            QVERIFY2(directives.contains(QLatin1String(expected)), expected);
        QCOMPARE(directives.size(), 8);
    }
};

QTEST_GUILESS_MAIN(tst_HostWebPage)
#include "tst_HostWebPage.moc"
