#pragma once

// Whether the network connection may be used freely for background downloads.
// A metered or roaming connection is not unrestricted: the hourly feed refresh
// then waits for a user request.
class NetworkConnectionInfo
{
public:
    virtual ~NetworkConnectionInfo() = default;
    // May block briefly (a system-bus call): call it from a worker thread.
    virtual bool isUnrestricted() const = 0;
};

// Asks NetworkManager on the system bus for its "Metered" property: "yes" and
// "guess yes" are metered; "no", "guess no" and "unknown" are not. Without
// NetworkManager (no system bus, no such service) the connection counts as
// unrestricted, since there is nothing that could tell otherwise.
class NetworkManagerConnectionInfo : public NetworkConnectionInfo
{
public:
    // NetworkManager's NMMetered values.
    enum Metered
    {
        Unknown = 0,
        Yes = 1,
        No = 2,
        GuessYes = 3,
        GuessNo = 4,
    };

    bool isUnrestricted() const override;
    static bool isUnrestrictedValue(int metered);
};
