// Parameter strings: "key=value,key=value" cut into pieces and stored into a plugin's settings
// table. Start-up only, main thread. There is no quoting and no trimming; a value never holds ','
// or '='.
#include <cstdlib>
#include <cstring>

#include "base/heap.h"
#include "base/log.h"
#include "kestrelexp/service.h"

namespace kestrel {
namespace {

size_t count_separators(const char* text, char separator) {
    size_t count = 0;
    for (; *text; ++text)
        count += *text == separator;
    return count;
}

enum class outcome { ignored, stored, borrowed, failed };

outcome store_value(const config_setting& setting, char* value) {
    switch (setting.type) {
        case CONFIG_INTEGER:
            // No error check: "12x" is 12 and "abc" is 0.
            *static_cast<int32_t*>(setting.target) =
                static_cast<int32_t>(std::strtol(value, nullptr, 10));
            return outcome::stored;
        case CONFIG_STRING:
            *static_cast<char**>(setting.target) = value;
            return outcome::borrowed;
        default:
            verbose_msg(-1, "INVALID config value type (programming error)");
            return outcome::failed;
    }
}

outcome apply_item(char* item, const config_setting* table) {
    const heap_array pieces(char_split(item, '=', 0));
    if (!pieces[0] || !pieces[1] || pieces[2]) {
        verbose_msg(-1, "Cfgline problem: %s", item);
        return outcome::failed;
    }
    const char* key = pieces[0];
    char* value = pieces[1];
    verbose_msg(2, "Cfg processing: %s=%s", key, value);
    for (; table->key; ++table) {
        // The row's key is a prefix of the item's: "port" takes "portnumber=5" too, and of two rows
        // that share a beginning the longer one has to come first.
        if (std::strncmp(table->key, key, std::strlen(table->key)) == 0) {
            verbose_msg(2, "Cfg found match: %s %s", key, value);
            return store_value(*table, value);
        }
    }
    return outcome::ignored;
}

}  // namespace
}  // namespace kestrel

using namespace kestrel;

char** char_split(char* text, int separator, int copy) {
    const char cut = static_cast<char>(separator);
    if (!text)
        return static_cast<char**>(malloc_wrapper(sizeof(char*), 0));
    if (copy) {
        // Leading separators make no piece: without them the copy starts at its first piece, and
        // who frees that piece frees the copy.
        while (*text && *text == cut)
            ++text;
        if (!*text)
            return char_split(nullptr, separator, 0);
        const size_t size = std::strlen(text) + 1;
        text = static_cast<char*>(std::memcpy(malloc_wrapper(size, 0), text, size));
    }
    const size_t most = count_separators(text, cut) + 2;
    char** pieces = static_cast<char**>(malloc_wrapper(most * sizeof(char*), 0));
    char** next = pieces;
    for (char* piece = text; piece;) {
        char* end = piece;
        while (*end && *end != cut)
            ++end;
        if (end != piece)
            *next++ = piece;
        piece = *end ? end + 1 : nullptr;
        *end = '\0';
    }
    return pieces;  // closed by the zeros after the last piece
}

int config_set_values(char* params, const struct config_setting* table) {
    const heap_array items(char_split(params, ',', 1));
    outcome last = outcome::ignored;
    bool borrowed = false;
    for (char** item = items.get(); *item && last != outcome::failed; ++item) {
        last = apply_item(*item, table);
        borrowed |= last == outcome::borrowed;
    }
    if (!borrowed)
        std::free(
            items[0]);  // the one copy that holds all items; a string target keeps it for ever
    return last == outcome::failed ? -1 : 0;
}
