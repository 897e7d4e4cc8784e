#pragma once

#include <QHostAddress>
#include <QString>

// The text form of an address as records carry it in `ipAddress`: dotted
// IPv4 (also for IPv4-mapped IPv6 addresses), otherwise IPv6 without scope.
QString tarvQHostAddressToIp(const QHostAddress& address);
