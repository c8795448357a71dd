// Places for connections (or sessions), in all and by peer address: what one host can hold of a
// listener, so that another host is still served whatever the first one does.
#ifndef SERVICE_SLOTS_H
#define SERVICE_SLOTS_H

#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace egwservice
{

// A place is taken when a connection is accepted (or a session opened) and given back when the
// Place is destroyed.
class Slots : public std::enable_shared_from_this<Slots>
{
public:
    // `what` names the places in the reasons: "connections", "page sessions".
    Slots(long total, long perAddress, std::string what)
        : total_(total), perAddress_(perAddress), what_(std::move(what))
    {
    }

    class Place
    {
    public:
        Place(std::shared_ptr<Slots> slots, std::string address)
            : slots_(std::move(slots)), address_(std::move(address))
        {
        }
        ~Place() { slots_->giveBack(address_); }
        Place(const Place&) = delete;
        Place& operator=(const Place&) = delete;

    private:
        std::shared_ptr<Slots> slots_;
        std::string address_;
    };

    // A place for a connection from the address, or null with the reason when there is none.
    std::unique_ptr<Place> take(const std::string& address, std::string& why)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (open_ >= total_)
        {
            why = "all " + std::to_string(total_) + " " + what_ + " are in use";
            return nullptr;
        }
        const auto found = byAddress_.find(address);
        if (found != byAddress_.end() && found->second >= perAddress_)
        {
            why = address + " holds " + std::to_string(perAddress_) + " " + what_ + " already";
            return nullptr;
        }
        ++byAddress_[address];
        ++open_;
        return std::make_unique<Place>(shared_from_this(), address);
    }

private:
    void giveBack(const std::string& address)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        --open_;
        const auto found = byAddress_.find(address);
        if (found != byAddress_.end() && --found->second <= 0)
        {
            byAddress_.erase(found);
        }
    }

    const long total_;
    const long perAddress_;
    const std::string what_;
    std::mutex mutex_;
    long open_ = 0;
    std::map<std::string, long> byAddress_;
};

} // namespace egwservice

#endif
