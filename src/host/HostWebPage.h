#pragma once

#include <string>

// The web page at "/": the device's grouping UI in a browser, a client of
// the module's node tree through the control API. Its files (index.html and,
// under /web/, app.css and the ES modules app.js, api.js, connection.js,
// deviceView.js, dom.js, houseView.js; source in web/) are compiled in as a Qt
// resource, so the host serves them without files of its own on the device.
// Safe to call from any thread.
class HostWebPage
{
public:
    struct File
    {
        std::string body;
        std::string contentType;
    };

    // The file served at `urlPath`; false for a path that is not one of the
    // page's files.
    static bool find(const std::string& urlPath, File* file);

    // Sent with every file: the page may load and reach nothing but this
    // host (devices have no internet, and a page that can make the device
    // act must not pull in foreign code), and no other page may frame it.
    static const char* contentSecurityPolicy();
};
