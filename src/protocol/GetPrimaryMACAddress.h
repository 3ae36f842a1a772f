#pragma once
// This computer's MAC address as sent with sign-in: the hardware address of the interface that
// carries the default route (lower case, "aa:bb:cc:dd:ee:ff"); failing that, the first
// non-loopback interface with a six-byte hardware address (upper case, "AA:BB:..."). The two
// forms differ in letter case on purpose. Empty when there is none. Any thread.

#include <QString>

class GetPrimaryMACAddress
{
public:
    static QString MacAddress();
    // The default-route lookup over the given kernel tables (the routing table file and the
    // folder of per-interface entries); empty when it gives nothing usable.
    static QString primaryAddressFrom(const QString &routeFile, const QString &interfacesFolder);
    // The fallback over the interface list.
    static QString fallbackAddress();
};
