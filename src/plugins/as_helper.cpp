// The "as_helper" filter plugin: finds the AS numbers of each finished flow's addresses in a table
// and offers them as getters. Record loop thread only: filters and exports of a record run before
// the next record, so the numbers wait in the state and not in the record. It keeps every flow,
// changes no record, and allocates nothing but for a reload of a changed file.
#include "plugins/as_helper.h"

#include <sys/stat.h>

#include <optional>
#include <utility>

#include "base/log.h"
#include "base/memory.h"
#include "kestrelexp/builtin.h"
#include "kestrelexp/getter.h"
#include "kestrelexp/record.h"
#include "plugins/as_table_file.h"

namespace kestrel {
namespace {

constexpr plugin_description description = {
    "as_helper",
    // The text names two fields by an older name; the getters are SRC_AS32 and DST_AS32.
    "AS helper converts SRC and DST IPv4/IPv6 address to 32bit AS number.\n"
    "Plugin provides SRC_AS, DST_AS, SRC_AS16 and DST_AS16 fields.\n"
    "Mandatory parameter is filename with AS helper configuration.\n"
    "For detail about AS helper configuration see the documentation.",
    0, 0};

constexpr uint64_t check_period_ns = 300'000;

std::optional<int64_t> modification_time(const char* path) {
    struct stat status;
    if (stat(path, &status) != 0)
        return std::nullopt;
    return status.st_mtime;
}

void look_up(as_helper_state& self, const flow_record& flow) {
    self.src_as = 0;
    self.dst_as = 0;
    if (flow.l3protocol == 4) {
        self.src_as = find_as4(self.tables.table4, flow.ipv4.srcipv4);
        self.dst_as = find_as4(self.tables.table4, flow.ipv4.dstipv4);
    } else if (flow.l3protocol == 6) {
        self.src_as = find_as6(self.tables.table6, flow.ipv6.srcipv6);
        self.dst_as = find_as6(self.tables.table6, flow.ipv6.dstipv6);
    }
}

// It may come with every flow.
void say_no_file(as_helper_state& self) {
    const uint64_t times = self.stat_limit.count(system_uptime_ns());
    if (times == 1)
        verbose_msg(-1, "Unable to stat: %s", self.path);
    else if (times > 1)
        verbose_msg(-1, "Unable to stat: %s (%lu times)", self.path, times);
}

void check_file(as_helper_state& self, uint64_t flow_end_ns) {
    verbose_msg(5, "It's time to reread config");
    self.next_check = flow_end_ns + check_period_ns;
    const std::optional<int64_t> mtime = modification_time(self.path);
    if (!mtime) {
        say_no_file(self);
    } else if (*mtime == self.mtime) {
        verbose_msg(5, "mtime not changed. leaving old config");
    } else {
        verbose_msg(5, "config changed. trying to reload");
        (void)__as_helper_init(self.path, &self);  // reports itself what keeps the old tables
    }
}

void note_time(as_helper_state& self, std::optional<int64_t> mtime) {
    if (mtime)
        self.mtime = *mtime;
    else
        say_no_file(self);
    self.next_check = timer_get_uptime() + check_period_ns;
}

as_helper_state* load(const char* path, std::optional<int64_t> mtime, as_file outcome,
                      as_tables tables) {
    if (outcome != as_file::loaded)
        return nullptr;
    auto* const self = make_lifelong<as_helper_state>();
    self->path = path;
    self->tables = std::move(tables);
    note_time(*self, mtime);
    verbose_msg(0, "AS-helper OK");
    return self;
}

// A table that is faulty or empty never replaces one that works, and is not read again before it
// changes. A file that cannot be opened leaves everything as it is.
void reload(as_helper_state& self, std::optional<int64_t> mtime, as_file outcome,
            as_tables tables) {
    if (outcome == as_file::not_opened)
        return;
    note_time(self, mtime);
    if (outcome == as_file::faulty || tables.empty()) {
        verbose_msg(-1, "Unable to reinit as helper using: %s. Leaving old config", self.path);
        return;
    }
    self.tables = std::move(tables);
    verbose_msg(0, "AS-helper OK");
}

}  // namespace
}  // namespace kestrel

using namespace kestrel;

const struct plugin_description* as_helper_desc(void) {
    return &description;
}

struct as_helper_state* __as_helper_init(const char* path, struct as_helper_state* old) {
    if (path == nullptr)
        return nullptr;
    // The time from before the lines are read: whoever writes the file meanwhile is noticed.
    const std::optional<int64_t> mtime = modification_time(path);
    as_tables tables;
    const as_file outcome = read_as_tables(path, tables);
    if (old == nullptr)
        return load(path, mtime, outcome, std::move(tables));
    reload(*old, mtime, outcome, std::move(tables));
    return old;
}

void* as_helper_init(char* params, struct getter** getters) {
    as_helper_state* const self = __as_helper_init(params, nullptr);
    if (self == nullptr)
        return nullptr;
    struct getter_row {
        const char* name;
        uint32_t length;
        getter_get_function* get;
    };
    // The short names first: a getter is found by the beginning of its name.
    static constexpr getter_row rows[] = {
        {"SRC_AS", 2, as_helper_get_src},
        {"DST_AS", 2, as_helper_get_dst},
        {"SRC_AS32", 4, as_helper_get_src},
        {"DST_AS32", 4, as_helper_get_dst},
    };
    for (const getter_row& row : rows)
        getter_add(getters, row.name, row.length, self, as_helper_ok, as_helper_4, row.get);
    return self;
}

int32_t as_helper_lookup(void* instance, struct flow_record* record) {
    auto& self = *static_cast<as_helper_state*>(instance);
    look_up(self, *record);
    if (record->end > self.next_check)
        check_file(self, record->end);
    return 0;
}

int as_helper_ok(void*, const struct flow_record*) {
    return 1;
}

uint32_t as_helper_4(void) {
    return 4;
}

void as_helper_get_src(void* context, const struct flow_record*, void* destination, uint32_t length,
                       uint32_t network_order, const struct getter*) {
    const auto& self = *static_cast<const as_helper_state*>(context);
    record_universal_get(destination, &self.src_as, 0, 4, static_cast<int32_t>(length),
                         network_order);
}

void as_helper_get_dst(void* context, const struct flow_record*, void* destination, uint32_t length,
                       uint32_t network_order, const struct getter*) {
    const auto& self = *static_cast<const as_helper_state*>(context);
    record_universal_get(destination, &self.dst_as, 0, 4, static_cast<int32_t>(length),
                         network_order);
}
