// Logins are guarded twice before a password is looked at.
//
// Per peer address and access level: after a few wrong passwords for a level from one address,
// that address's logins at that level are refused for a while, and each failure after a block
// doubles the next block up to a longest one. A granted login forgets the failures of its own
// address and level only. The guard keeps a bounded number of these records; to make room it
// forgets only records without a block in force, so that no block is ever lifted early. When
// every record holds a block, an address without a record is refused until the first block ends.
//
// Per access level over all peers: a budget of checked passwords that refills at a steady rate
// (a token bucket). While it is spent, logins at the level are refused without their password
// being looked at, so guessing from many addresses is no faster than the budget. A granted login
// gives its guess back: only wrong passwords spend the budget. Peers that showed a verified
// client certificate have budgets and records of their own, so that guessers without one cannot
// spend the certified operators' budget or block their addresses.
#ifndef SERVICE_LOGIN_GUARD_H
#define SERVICE_LOGIN_GUARD_H

#include <array>
#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <tuple>

namespace egwservice
{

using SteadyTime = std::chrono::steady_clock::time_point;
// Where the service takes the time from; a test gives a clock it moves itself.
using SessionClock = std::function<SteadyTime()>;

struct LoginLimits
{
    int failuresAllowed = 5; // failures per address and level before the first block
    std::chrono::seconds firstBlock{30};
    std::chrono::seconds longestBlock{15 * 60};
    std::size_t addressesKept = 4096; // records of an address at a level
    // Passwords checked per level and minute over all peers (certified peers: their own as many);
    // as many may be checked at once after a quiet minute.
    int guessesPerMinute = 10;
};

// One login about to be checked.
struct LoginAttempt
{
    std::string address; // the peer's address, without its port
    int level;            // 2, 3 or 4
    bool certified;       // the connection showed a verified client certificate
};

class LoginGuard
{
public:
    explicit LoginGuard(LoginLimits limits, SessionClock clock = std::chrono::steady_clock::now);

    enum class Refusal
    {
        None,    // the password may be checked: one guess of the level's budget is taken
        Address, // the address is blocked at this level
        Level,   // the level's budget is spent
        Full     // every record holds a block and the address has none
    };
    struct Admission
    {
        Refusal refusal;
        std::chrono::seconds wait; // until a login may be tried again (at least 1 s when refused)
    };
    // Whether the attempt's password may be checked now.
    Admission admit(const LoginAttempt& attempt);
    // The admitted attempt's password was wrong; returns the block its address now has at the
    // level (zero: none yet).
    std::chrono::seconds failed(const LoginAttempt& attempt);
    // The admitted attempt's password was right: its guess is given back, and the failures of
    // its address at its level are forgotten.
    void succeeded(const LoginAttempt& attempt);

    // The address of a peer written "ADDRESS:PORT" (the port taken off).
    static std::string addressOf(const std::string& peer);
    // What the peer of a refused attempt is told: why, and how long to wait.
    std::string refusalText(const Admission& admission, const LoginAttempt& attempt) const;

    const LoginLimits& limits() const { return limits_; }

private:
    using Key = std::tuple<bool, int, std::string>; // certified, level, address
    struct Record
    {
        int failures = 0;
        SteadyTime lastFailure;
        SteadyTime blockedUntil;
        std::chrono::seconds lastBlock{0};
    };
    // A record is forgotten once quiet for the longest block: no failure and no block.
    bool quiet(const Record& record, SteadyTime now) const;
    // The record of the key, unless it is missing or quiet (then it is forgotten).
    Record* recordOf(const Key& key, SteadyTime now);
    // Room for one more record; false when every record holds a block in force.
    bool makeRoom(SteadyTime now);
    SteadyTime& bucketOf(const LoginAttempt& attempt);

    const LoginLimits limits_;
    const SessionClock clock_;
    const std::chrono::nanoseconds guessInterval_; // the budget regains one guess in this time
    std::mutex mutex_;
    std::map<Key, Record> records_;
    // Per level (2 to 4), without and with a certificate: when the budget is whole again.
    std::array<std::array<SteadyTime, 3>, 2> budgets_{};
};

} // namespace egwservice

#endif
