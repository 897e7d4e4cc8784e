#include "HostWebPage.h"

#include <map>

#include <QFile>

// Q_INIT_RESOURCE names a global function, so it cannot be called from
// inside a namespace. The resource lives in a static library, whose
// registration the linker would otherwise drop.
static void initWebResource()
{
    Q_INIT_RESOURCE(web);
}

namespace {

struct Source
{
    const char* urlPath;
    const char* resource;
    const char* contentType;
};

const Source sources[] = {
    {"/", ":/web/index.html", "text/html; charset=utf-8"},
    {"/web/app.css", ":/web/app.css", "text/css; charset=utf-8"},
    // The script is a set of ES modules, each fetched by its own URL; the
    // entry (app.js) imports the others.
    {"/web/app.js", ":/web/app.js", "text/javascript; charset=utf-8"},
    {"/web/api.js", ":/web/api.js", "text/javascript; charset=utf-8"},
    {"/web/connection.js", ":/web/connection.js", "text/javascript; charset=utf-8"},
    {"/web/deviceView.js", ":/web/deviceView.js", "text/javascript; charset=utf-8"},
    {"/web/dom.js", ":/web/dom.js", "text/javascript; charset=utf-8"},
    {"/web/houseView.js", ":/web/houseView.js", "text/javascript; charset=utf-8"},
};

// Read once, on first use; the HTTP threads then only read the map.
const std::map<std::string, HostWebPage::File>& files()
{
    static const std::map<std::string, HostWebPage::File> loaded = [] {
        initWebResource();
        std::map<std::string, HostWebPage::File> map;
        for (const Source& source : sources) {
            QFile file(QString::fromLatin1(source.resource));
            // A file missing from the resource is a broken build, not a
            // condition to serve around.
            if (!file.open(QIODevice::ReadOnly))
                qFatal("tarv-host: the web page's %s is not in the binary", source.resource);
            map.emplace(source.urlPath, HostWebPage::File{file.readAll().toStdString(), source.contentType});
        }
        return map;
    }();
    return loaded;
}

} // namespace

bool HostWebPage::find(const std::string& urlPath, File* file)
{
    const auto& all = files();
    const auto it = all.find(urlPath);
    if (it == all.end())
        return false;
    *file = it->second;
    return true;
}

const char* HostWebPage::contentSecurityPolicy()
{
    return "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self' data:; "
           "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";
}
