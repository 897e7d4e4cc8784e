#include "TarvNetwork.h"

QString tarvQHostAddressToIp(const QHostAddress& address)
{
    bool isIpv4 = false;
    const quint32 ipv4 = address.toIPv4Address(&isIpv4);
    if (isIpv4)
        return QHostAddress(ipv4).toString();
    QHostAddress unscoped(address);
    unscoped.setScopeId(QString());
    return unscoped.toString();
}
