// The list of interfaces is under a lock, since its texts are; readers look at its version first.
#include "base/observation.h"

#include <atomic>
#include <cstddef>
#include <mutex>

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

interface_update::interface_update() {
    the_observation().lock.lock();
}

interface_update::~interface_update() {
    observation& all = the_observation();
    if (told_ != all.interfaces.size()) {
        all.interfaces.resize(told_);
        has_changed_ = true;
    }
    if (has_changed_)
        all.version.fetch_add(1, std::memory_order_relaxed);
    all.lock.unlock();
}

void interface_update::tell(uint32_t number, const char* name, const char* description) {
    std::vector<observed_interface>& list = the_observation().interfaces;
    const size_t place = told_++;
    if (place == list.size())
        list.emplace_back();
    else if (const observed_interface& known = list[place];
             known.number == number && known.name == name && known.description == description)
        return;
    list[place] = {number, name, description};
    has_changed_ = true;
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
