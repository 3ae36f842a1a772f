#pragma once
// The one connectivity question the rest of the client asks. Any thread.

class CheckConnection
{
public:
    // 0 not reachable, 1 reachable, 2 reachable over a cellular link; 3 for anything else.
    static int checkConnection();
    // The mapping of a reachability status to the answer above.
    static int statusForReachability(int status);
};
