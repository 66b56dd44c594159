// What the probe looks at, as exports tell their collectors: how the input samples, which
// interfaces it captures from, and what the command line has put in front of an export. The first
// two are written while the program starts and then by the thread that calls the input; any thread
// reads them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kestrel {

struct input_sampling {
    uint32_t rate = 0;  // one packet in so many; 0: all
    bool is_random = false;
    bool is_in_records = false;  // finished flows may each bring a rate of their own
};

// Main thread, while the program starts.
void observation_set_sampling(input_sampling sampling);
input_sampling observed_sampling();

struct observed_interface {
    uint32_t number = 0;  // as in the flow records
    std::string name;
    std::string description;  // may be empty

    bool operator==(const observed_interface&) const = default;
};

// Whether any export wants to know of the interfaces; until one does the input is asked once.
void observation_want_interfaces();
bool are_interfaces_wanted();

// Takes a new list of interfaces: tell() for each, and its end. It is compared with the one before
// as it comes, so a list that stays as it was costs no memory and changes no version. Readers never
// wait for whoever tells. One thread at a time.
class interface_update {
  public:
    interface_update() = default;
    ~interface_update();
    interface_update(const interface_update&) = delete;
    interface_update& operator=(const interface_update&) = delete;

    void tell(uint32_t number, const char* name, const char* description);

  private:
    void begin_change();

    size_t told_ = 0;
    bool has_changed_ = false;
    std::vector<observed_interface> changed_;  // the whole list, as far as it has come
};

// Changes whenever the list does.
uint32_t interfaces_version();
std::vector<observed_interface> observed_interfaces();

// Where an export stands on the command line, and what was given in front of it.
struct export_place {
    uint32_t position = 0;          // among the exports, from 0
    uint32_t sampling_rate = 0;     // -S, 0: every record
    int32_t input_interface = -1;   // -N; -1: not given
    int32_t output_interface = -1;  // -n; -1: not given
};

// While it lives, this_export() tells the place. Main thread, while the program starts.
class export_place_scope {
  public:
    explicit export_place_scope(const export_place& place);
    ~export_place_scope();
    export_place_scope(const export_place_scope&) = delete;
    export_place_scope& operator=(const export_place_scope&) = delete;
};

// Of the export that is just being initialised.
export_place this_export();

}  // namespace kestrel
