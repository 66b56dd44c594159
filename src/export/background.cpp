// Exports in the background; see background.h.
#include "export/background.h"

#include <cstring>

#include "base/log.h"
#include "base/memory.h"

namespace kestrel {
namespace {

struct bounded_setting {
    const char* key;
    int32_t background_settings::*place;
    int32_t standard;
    int32_t least;
    int32_t most;
};
constexpr bounded_setting queue_setting = {"queue", &background_settings::queue_mib, 16, 1, 4096};
constexpr bounded_setting drain_setting = {"drain", &background_settings::drain_s, 10, 0, 3600};

void check(const background_settings& settings, const bounded_setting& row) {
    const int32_t value = settings.*row.place;
    if (value == background_settings::not_given)
        return;
    if (settings.reconnect == nullptr)
        die(exit_config, "%s goes with reconnect=background", row.key);
    if (value < row.least || value > row.most)
        die(exit_config, "%s is from %d to %d", row.key, row.least, row.most);
}

int32_t value_of(const background_settings& settings, const bounded_setting& row) {
    const int32_t value = settings.*row.place;
    return value == background_settings::not_given ? row.standard : value;
}

int32_t tend(void* context, outlet* queue, int32_t is_closing, outlet_wait* wait) {
    return static_cast<collector_connection*>(context)->tend(queue, is_closing != 0, *wait) ? 1 : 0;
}

int32_t deliver(void* context, outlet* queue, outlet_message* message) {
    return static_cast<collector_connection*>(context)->deliver(queue, *message);
}

void end(void* context, outlet* queue) {
    static_cast<collector_connection*>(context)->end(queue);
}

}  // namespace

bool is_background(const background_settings& settings) {
    check(settings, queue_setting);
    check(settings, drain_setting);
    if (settings.reconnect != nullptr && std::strcmp(settings.reconnect, "background") != 0)
        die(exit_config, "Unknown reconnect: %s (there is background)", settings.reconnect);
    return settings.reconnect != nullptr;
}

outlet* open_background(const char* name, const background_settings& settings, const collector& to,
                        conversation& protocol, send_account& account) {
    if (to.ip != 4 && to.ip != 6 && to.ip != 46 && to.ip != 64)
        die(exit_config, "Can't connect to collector");
    account.set_up(false);
    auto* const network = make_lifelong<collector_socket>();
    auto* const connection =
        make_lifelong<collector_connection>(name, to, protocol, account, *network);
    const outlet_owner owner = {connection, tend, deliver, end};
    constexpr unsigned mib_exponent = 20;
    return outlet_open(&owner,
                       static_cast<uint64_t>(value_of(settings, queue_setting)) << mib_exponent,
                       static_cast<uint32_t>(value_of(settings, drain_setting)));
}

}  // namespace kestrel
