#include "protocol/CheckConnection.h"

#include "protocol/Reachability.h"

int CheckConnection::checkConnection()
{
    std::unique_ptr<Reachability> internet = Reachability::reachabilityForInternetConnection();
    return statusForReachability(internet ? internet->currentReachabilityStatus()
                                          : Reachability::NotReachable);
}

int CheckConnection::statusForReachability(int status)
{
    switch (status) {
    case Reachability::NotReachable:
        return 0;
    case Reachability::ReachableViaWWAN:
        return 2;
    case Reachability::ReachableViaWiFi:
        return 1;
    default:
        return 3;
    }
}
