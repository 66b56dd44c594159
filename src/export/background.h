// reconnect=background: an export whose record loop never waits for its collector. Its parameters,
// and what puts an outlet with a connection after the export. While the program starts, and on the
// thread of the record loop.
#pragma once

#include <array>
#include <cstdint>

#include "export/collector_connection.h"
#include "export/net.h"
#include "export/send_account.h"
#include "kestrelexp/outlet.h"
#include "kestrelexp/service.h"

namespace kestrel {

struct background_settings {
    static constexpr int32_t not_given = INT32_MIN;

    char* reconnect = nullptr;
    int32_t queue_mib = not_given;
    int32_t drain_s = not_given;

    // Rows for config_set_values.
    std::array<config_setting, 3> rows() {
        return {{{"reconnect", &reconnect, CONFIG_STRING},
                 {"queue", &queue_mib, CONFIG_INTEGER},
                 {"drain", &drain_s, CONFIG_INTEGER}}};
    }
};

// Whether the export is to run in the background. Settings that make no sense end the program
// (status 255).
bool is_background(const background_settings& settings);

// The outlet of an export, with a worker that connects to the collector. All that is referred to is
// borrowed for good. name: the export's.
outlet* open_background(const char* name, const background_settings& settings, const collector& to,
                        conversation& protocol, send_account& account);

// Hands over a message with the records that wait in the account. number: see outlet_message.
inline void offer_message(outlet* queue, send_account& account, void* message, uint32_t length,
                          uint64_t number) {
    const send_account::contents contents = account.take_pending();
    const outlet_message offered = {message, length, contents.records, contents.packets, number, 0};
    (void)outlet_offer(queue, &offered);  // what does not fit is counted there
}

}  // namespace kestrel
