#pragma once

#include <string>

#include <QHostAddress>
#include <QList>
#include <QStringList>

// The control API's two guards against a web page in the user's browser
// making the device act, checked before any request is served:
// - DNS rebinding: a foreign name that resolves to this device. The Host
//   header must name this host: one of its names or addresses.
// - A foreign page: a browser names the page a request comes from in its
//   Origin header; only this host's own page may use the API.
// Names compare without case and without one trailing dot; address literals
// compare as addresses (any spelling, no scope). Pure functions of their
// arguments; safe on any thread.
class ApiRequestGuard
{
public:
    // Answers to "localhost" and "localhost.localdomain" only.
    ApiRequestGuard();
    // Answers to those, `names` and `addresses` (the API's own and this
    // machine's).
    ApiRequestGuard(const QStringList& names, const QList<QHostAddress>& addresses);

    // True when `hostHeader` ("name", "name:port", "[IPv6]:port", "IPv6")
    // names this host; a port must be a number from 1 to 65535.
    bool hostAllowed(const std::string& hostHeader) const;

    // True when `originHeader` names this host's own page: http (the API
    // serves nothing else), with the host and port of `hostHeader` (80 when
    // either names none), which hostAllowed() accepted. "null" and other
    // schemes are never ours.
    static bool originAllowed(const std::string& originHeader, const std::string& hostHeader);

    // The names this guard answers to, as compared.
    QStringList names() const { return m_names; }

private:
    QStringList m_names;
};
