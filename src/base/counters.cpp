// The registry of metrics: families of one name, their series of one set of labels each, and the
// cells of every series. One lock guards its lists, for registrations and readers; who counts never
// comes here. Registering allocates for good, a look allocates nothing.
#include "base/counters.h"

#include <cstring>
#include <mutex>
#include <utility>
#include <vector>

#include "base/log.h"
#include "base/memory.h"

namespace kestrel {
namespace {

constexpr size_t cell_line = 128;  // the adjacent-line prefetcher works on pairs of cache lines

struct series {
    std::string labels;
    std::vector<const metric_cell*> cells;
};

struct family {
    std::string name;
    std::string help;
    int32_t type;
    std::vector<series> members;
};

struct registry {
    std::mutex lock;
    std::vector<family> families;
    std::string label;  // of the plugin that is being initialised
};

// Never destroyed: threads read it until the process is gone.
registry& the_registry() {
    static registry& made = *make_lifelong<registry>();
    return made;
}

bool is_name_character(char c, bool is_first) {
    const bool is_letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':';
    return is_letter || (!is_first && c >= '0' && c <= '9');
}

bool is_metric_name(std::string_view name) {
    bool is_first = true;
    for (const char c : name) {
        if (!is_name_character(c, is_first))
            return false;
        is_first = false;
    }
    return !name.empty();
}

std::string joined(const char* first, const char* second) {
    std::string labels = first != nullptr ? first : "";
    if (second == nullptr || *second == '\0')
        return labels;
    if (!labels.empty())
        labels += ',';
    return labels + second;
}

family& family_of(registry& all, const metric_row& row) {
    if (row.name == nullptr || !is_metric_name(row.name))
        die(exit_config, "Metrics: bad name: %s", row.name != nullptr ? row.name : "(null)");
    for (family& known : all.families) {
        if (known.name != row.name)
            continue;
        if (known.type != row.type)
            die(exit_config, "Metrics: %s is registered with two types", row.name);
        return known;
    }
    return all.families.emplace_back(
        family{row.name, row.help != nullptr ? row.help : "", row.type, {}});
}

series& series_of(family& of, std::string labels) {
    for (series& known : of.members)
        if (known.labels == labels)
            return known;
    return of.members.emplace_back(series{std::move(labels), {}});
}

uint64_t value_of(const series& of) {
    uint64_t sum = 0;
    for (const metric_cell* cell : of.cells)
        sum += __atomic_load_n(&cell->value, __ATOMIC_RELAXED);
    return sum;
}

bool begins_with_labels(std::string_view labels, std::string_view first) {
    if (first.empty())
        return true;
    return labels.starts_with(first) &&
           (labels.size() == first.size() || labels[first.size()] == ',');
}

// Calls act with every series of the name whose labels begin with these.
template <typename Act>
void for_series(std::string_view name, std::string_view labels, Act act) {
    registry& all = the_registry();
    const std::scoped_lock locked(all.lock);
    for (const family& of : all.families) {
        if (of.name != name)
            continue;
        for (const series& member : of.members)
            if (begins_with_labels(member.labels, labels))
                act(member);
    }
}

}  // namespace

std::string metric_label(std::string_view key, std::string_view value) {
    std::string text(key);
    text += "=\"";
    for (const char c : value) {
        if (c == '\\' || c == '"')
            text += '\\';
        if (c == '\n')
            text += "\\n";
        else
            text += c;
    }
    return text + '"';
}

metrics_label_scope::metrics_label_scope(std::string labels)
    : outer_(std::exchange(the_registry().label, std::move(labels))) {}

metrics_label_scope::~metrics_label_scope() {
    the_registry().label = std::move(outer_);
}

uint64_t metrics_sum(std::string_view name, std::string_view labels) {
    uint64_t sum = 0;
    for_series(name, labels, [&sum](const series& member) { sum += value_of(member); });
    return sum;
}

bool metrics_known(std::string_view name, std::string_view labels) {
    bool is_known = false;
    for_series(name, labels, [&is_known](const series&) { is_known = true; });
    return is_known;
}

}  // namespace kestrel

using namespace kestrel;

struct metric_cell* metrics_register(const struct metric_row* rows, uint32_t count,
                                     const char* labels) {
    // Whole lines, so that no other writer's cell shares one.
    const size_t bytes = (count * sizeof(metric_cell) + cell_line - 1) / cell_line * cell_line;
    auto* const cells = static_cast<metric_cell*>(malloc_wrapper(bytes, 1));
    registry& all = the_registry();
    const std::scoped_lock locked(all.lock);
    for (uint32_t n = 0; n < count; ++n)
        series_of(family_of(all, rows[n]), joined(labels, rows[n].labels))
            .cells.push_back(cells + n);
    return cells;
}

const char* metrics_label(void) {
    return the_registry().label.c_str();
}

void metrics_snapshot(metrics_visit_function* visit, void* context) {
    registry& all = the_registry();
    const std::scoped_lock locked(all.lock);
    for (const family& of : all.families) {
        for (const series& member : of.members) {
            const metric_sample sample = {of.name.c_str(), of.help.c_str(), member.labels.c_str(),
                                          of.type, value_of(member)};
            visit(context, &sample);
        }
    }
}
