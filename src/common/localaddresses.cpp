#include "localaddresses.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <sys/socket.h>

QStringList localAddresses() {
    QStringList addresses;
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0)
        return addresses;
    // Up and running, and not loopback: an interface that is up but has no carrier (a
    // cable pulled out) is not one a terminal can reach.
    constexpr unsigned mask = IFF_UP | IFF_LOOPBACK | IFF_RUNNING;
    constexpr unsigned wanted = IFF_UP | IFF_RUNNING;
    for (const ifaddrs *entry = list; entry; entry = entry->ifa_next) {
        if (!entry->ifa_addr || (entry->ifa_flags & mask) != wanted)
            continue;
        const int family = entry->ifa_addr->sa_family;
        if (family != AF_INET && family != AF_INET6)
            continue;
        const socklen_t length = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
        char host[NI_MAXHOST] = {};
        if (getnameinfo(entry->ifa_addr, length, host, sizeof host, nullptr, 0, NI_NUMERICHOST) == 0)
            addresses << QString::fromLatin1(host);
    }
    freeifaddrs(list);
    return addresses;
}
