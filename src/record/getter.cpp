// Getter tables: growing, copying and searching them. Tables are built at start-up on the main
// thread; what only reads them (search, bitmaps) may run on any thread afterwards.
#include "kestrelexp/getter.h"

#include <cstdlib>
#include <cstring>

#include "base/log.h"

namespace kestrel {
namespace {

constexpr uint32_t end_of_table = 0xFFFFFFFF;

size_t entry_count(const getter* table) {
    size_t count = 0;
    for (; table && table->name; ++table)
        ++count;
    return count;
}

// Puts count entries after those of *table. The entries may lie in the table itself: the old array
// goes last.
void append(getter** table, const getter* entries, size_t count) {
    const size_t before = entry_count(*table);
    const size_t size = (before + count + 1) * sizeof(getter);
    getter* grown = static_cast<getter*>(malloc_wrapper(size, 0));
    if (*table)
        std::memcpy(grown, *table, before * sizeof(getter));
    if (count > 0)
        std::memcpy(grown + before, entries, count * sizeof(getter));
    grown[before + count].length = end_of_table;
    std::free(*table);
    *table = grown;
}

uint64_t bit_of(const getter& entry) {
    return uint64_t{1} << (entry.index & 63);
}

}  // namespace
}  // namespace kestrel

using namespace kestrel;

void getter_add(struct getter** table, const char* name, uint32_t length, void* context,
                getter_valid_function* valid, getter_length_function* length_fn,
                getter_get_function* get) {
    if (getter_by_name(*table, name))
        die(exit_config, "Duplicate getter found: %s", name);
    const size_t count = entry_count(*table);
    if (count >= GETTER_LIMIT)
        die(exit_config, "Limit of 64 fields exceeded");
    const getter entry = {
        static_cast<uint32_t>(count), name, length, context, valid, length_fn, get};
    append(table, &entry, 1);
}

// The given name has only to begin the entry's: callers rely on exact names being unique prefixes.
struct getter* getter_by_name(struct getter* table, const char* name) {
    const size_t length = std::strlen(name);
    for (getter* entry = table; entry && entry->name; ++entry) {
        if (std::strncmp(name, entry->name, length) == 0)
            return entry;
    }
    return nullptr;
}

uint64_t getter_bitmap_from_list(const struct getter* table) {
    uint64_t bitmap = 0;
    for (const getter* entry = table; entry && entry->name; ++entry)
        bitmap |= bit_of(*entry);
    return bitmap;
}

uint64_t getter_bitmap_from_record(const struct getter* table, const struct flow_record* record) {
    uint64_t bitmap = 0;
    for (const getter* entry = table; entry && entry->name; ++entry) {
        if (entry->valid(entry->context, record))
            bitmap |= bit_of(*entry);
    }
    return bitmap;
}

getter_length_function* __length_helper(uint32_t length) {
    switch (length) {
        case 1:
            return record_length_1;
        case 2:
            return record_length_2;
        case 4:
            return record_length_4;
        case 6:
            return record_length_6;
        case 8:
            return record_length_8;
        case 16:
            return record_length_16;
        default:
            die(exit_config, "Invalid field length");
    }
}

void getter_copy_list(struct getter** destination, const struct getter* source) {
    const size_t source_count = entry_count(source);
    verbose_msg(2, "gcpy: %i %i", static_cast<int>(source_count),
                static_cast<int>(entry_count(*destination)));
    append(destination, source, source_count);
}

void getter_copy_to(struct getter** destination, const struct getter* entry) {
    append(destination, entry, 1);
}
