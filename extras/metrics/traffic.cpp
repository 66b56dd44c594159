#include "traffic.h"

#include <netinet/in.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <thread>

namespace metrics {

namespace {

using list_of_second = std::vector<hitter>;

// The sum of the lists, the greatest first, ties by key so that the order does not flicker.
std::vector<hitter> greatest(const std::map<hitter_key, uint64_t>& sums) {
    std::vector<hitter> found;
    found.reserve(sums.size());
    for (const auto& [key, weight] : sums)
        found.push_back({key, weight});
    const size_t wanted = std::min(found.size(), traffic_minute::most_entries);
    std::partial_sort(found.begin(), found.begin() + static_cast<std::ptrdiff_t>(wanted),
                      found.end(), [](const hitter& one, const hitter& other) {
                          return one.weight != other.weight ? one.weight > other.weight
                                                            : one.key < other.key;
                      });
    found.resize(wanted);
    return found;
}

template <typename Second>
std::vector<hitter> greatest_of(const std::deque<Second>& seconds, list_of_second Second::*list) {
    std::map<hitter_key, uint64_t> sums;
    for (const Second& second : seconds)
        for (const hitter& one : second.*list)
            sums[one.key] += one.weight;
    return greatest(sums);
}

}  // namespace

hitter_key source_key(const flow_record& record) {
    if (record.l3protocol == 4)
        return {0, uint64_t{0xFFFF'0000'0000} | record.ipv4.srcipv4};
    hitter_key key;
    std::memcpy(&key.low, record.ipv6.srcipv6, sizeof key.low);
    std::memcpy(&key.high, record.ipv6.srcipv6 + sizeof key.low, sizeof key.high);
    return key;
}

hitter_key service_key(const flow_record& record) {
    return {record.l4protocol, std::min(record.srcport, record.dstport)};
}

bool has_ports(const flow_record& record) {
    return record.l4protocol == IPPROTO_TCP || record.l4protocol == IPPROTO_UDP ||
           record.l4protocol == IPPROTO_SCTP;
}

void traffic_bucket::add(const flow_record& record) {
    talkers.add(source_key(record), record.bytes);
    if (has_ports(record))
        ports.add(service_key(record), record.bytes);
    protocols[record.l4protocol] += record.bytes;
    totals.records += 1;
    totals.packets += record.packets;
    totals.bytes += record.bytes;
}

void traffic_bucket::clear() {
    talkers.clear();
    ports.clear();
    protocols.fill(0);
    totals = {};
}

traffic_meter::traffic_meter(uint64_t seed) : first_(seed), second_(seed) {}

const traffic_bucket& traffic_meter::take() {
    spare_->clear();
    for (;;) {
        traffic_bucket* held = active_.load(std::memory_order_relaxed);
        if (held != nullptr &&
            active_.compare_exchange_strong(held, spare_, std::memory_order_acq_rel,
                                            std::memory_order_relaxed)) {
            spare_ = held;
            return *held;
        }
        std::this_thread::yield();
    }
}

void traffic_minute::add_second(const traffic_bucket& bucket) {
    second added{bucket.talkers.list(),  bucket.ports.list(),  {},
                 bucket.talkers.error(), bucket.ports.error(), bucket.totals};
    for (uint64_t protocol = 0; protocol < bucket.protocols.size(); ++protocol)
        if (bucket.protocols[protocol] != 0)
            added.protocols.push_back({{0, protocol}, bucket.protocols[protocol]});
    seconds_.push_back(std::move(added));
    if (seconds_.size() > seconds)
        seconds_.pop_front();
    is_current_ = false;
}

const top_of_minute& traffic_minute::top() {
    if (is_current_)
        return top_;
    is_current_ = true;
    top_ = {};
    top_.seconds = static_cast<unsigned>(seconds_.size());
    for (const second& one : seconds_) {
        top_.totals.records += one.totals.records;
        top_.totals.packets += one.totals.packets;
        top_.totals.bytes += one.totals.bytes;
        top_.talkers.error += one.talkers_error;
        top_.ports.error += one.ports_error;
    }
    top_.talkers.entries = greatest_of(seconds_, &second::talkers);
    top_.ports.entries = greatest_of(seconds_, &second::ports);
    top_.protocols.entries = greatest_of(seconds_, &second::protocols);
    return top_;
}

}  // namespace metrics
