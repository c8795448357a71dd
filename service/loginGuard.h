// Failed logins counted per peer address: after a few failures from one address its logins are
// refused for a while, and each failure after a block doubles the next block up to a longest one.
// A successful login from the address forgets its failures. The guard keeps a bounded number of
// addresses; when full, the one whose last failure is oldest is forgotten first.
#ifndef SERVICE_LOGIN_GUARD_H
#define SERVICE_LOGIN_GUARD_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <string>

namespace egwservice
{

using SteadyTime = std::chrono::steady_clock::time_point;
// Where the service takes the time from; a test gives a clock it moves itself.
using SessionClock = std::function<SteadyTime()>;

struct LoginLimits
{
    int failuresAllowed = 5; // failures before the first block
    std::chrono::seconds firstBlock{30};
    std::chrono::seconds longestBlock{15 * 60};
    std::size_t addressesKept = 4096;
};

class LoginGuard
{
public:
    explicit LoginGuard(LoginLimits limits, SessionClock clock = std::chrono::steady_clock::now);

    // How much longer logins from the address are refused; zero when one may be tried.
    std::chrono::seconds blockedFor(const std::string& address);
    // A failed login from the address; returns the block it now has (zero: none yet).
    std::chrono::seconds failed(const std::string& address);
    // A successful login from the address: its failures are forgotten.
    void succeeded(const std::string& address);

    // The address of a peer written "ADDRESS:PORT" (the port taken off).
    static std::string addressOf(const std::string& peer);

    const LoginLimits& limits() const { return limits_; }

private:
    struct Record
    {
        int failures = 0;
        SteadyTime lastFailure;
        SteadyTime blockedUntil;
        std::chrono::seconds lastBlock{0};
    };
    // Forgets an address once it has been quiet for the longest block: no failure and no block.
    bool quiet(const Record& record, SteadyTime now) const;
    void makeRoom(SteadyTime now);

    const LoginLimits limits_;
    const SessionClock clock_;
    std::mutex mutex_;
    std::map<std::string, Record> records_;
};

} // namespace egwservice

#endif
