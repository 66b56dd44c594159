// The list of interfaces is under a lock, since its texts are; readers look at its version first.
#include "base/observation.h"

#include <atomic>
#include <cstddef>
#include <mutex>
#include <utility>

#include "base/memory.h"

namespace kestrel {
namespace {

struct observation {
    input_sampling sampling;
    std::mutex lock;  // of the interfaces
    std::vector<observed_interface> interfaces;
    std::atomic<uint32_t> version = 0;
    std::atomic<bool> are_wanted = false;  // carries no data: relaxed
    export_place place;
};

// Never destroyed: threads read it until the process is gone.
observation& the_observation() {
    static observation& made = *make_lifelong<observation>();
    return made;
}

}  // namespace

void observation_set_sampling(input_sampling sampling) {
    the_observation().sampling = sampling;
}

input_sampling observed_sampling() {
    return the_observation().sampling;
}

void observation_want_interfaces() {
    the_observation().are_wanted.store(true, std::memory_order_relaxed);
}

bool are_interfaces_wanted() {
    return the_observation().are_wanted.load(std::memory_order_relaxed);
}

interface_update::~interface_update() {
    observation& all = the_observation();
    if (told_ != all.interfaces.size())
        begin_change();
    if (!has_changed_)
        return;
    {
        const std::scoped_lock locked(all.lock);
        all.interfaces.swap(changed_);
    }
    all.version.fetch_add(1, std::memory_order_relaxed);
}

// What was told up to now is as it was.
void interface_update::begin_change() {
    if (std::exchange(has_changed_, true))
        return;
    const std::vector<observed_interface>& list = the_observation().interfaces;
    changed_.assign(list.begin(), list.begin() + static_cast<ptrdiff_t>(told_));
}

// No other thread writes the list, so it can be read without the lock.
void interface_update::tell(uint32_t number, const char* name, const char* description) {
    const std::vector<observed_interface>& list = the_observation().interfaces;
    const bool is_known = !has_changed_ && told_ < list.size() && list[told_].number == number &&
                          list[told_].name == name && list[told_].description == description;
    if (!is_known) {
        begin_change();
        changed_.push_back({number, name, description});
    }
    ++told_;
}

uint32_t interfaces_version() {
    return the_observation().version.load(std::memory_order_relaxed);
}

std::vector<observed_interface> observed_interfaces() {
    observation& all = the_observation();
    const std::scoped_lock locked(all.lock);
    return all.interfaces;
}

export_place_scope::export_place_scope(const export_place& place) {
    the_observation().place = place;
}

export_place_scope::~export_place_scope() {
    the_observation().place = {};
}

export_place this_export() {
    return the_observation().place;
}

}  // namespace kestrel
