// Parameters; see settings.h.
#include "settings.h"

#include <kestrelexp/service.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <vector>

#include "file_names.h"

namespace json_export {
namespace {

struct number {
    const char* name;
    int32_t value;
    int32_t least;
    int32_t most;
};

bool are_in_range(const number* numbers, size_t count) {
    for (const number* it = numbers; it != numbers + count; ++it) {
        if (it->value >= it->least && it->value <= it->most)
            continue;
        verbose_msg(-1, "json: %s is from %d to %d", it->name, it->least, it->most);
        return false;
    }
    return true;
}

struct compression_row {
    std::string_view name;
    compression packing;
};
constexpr compression_row compressions[] = {{"gzip", compression::gzip},
                                            {"zstd", compression::zstd}};

bool read_compression(const char* name, compression& packing) {
    for (const compression_row& row : compressions)
        if (row.name == name) {
            packing = row.packing;
            return true;
        }
    verbose_msg(-1, "json: compress=%s is none of gzip and zstd", name);
    return false;
}

// A mistake in the name of a directory is to be seen at the start. One whose name is made by time
// comes to be later.
bool is_writable_directory(const std::string& pattern) {
    const size_t slash = pattern.rfind('/');
    const std::string directory =
        slash == pattern.npos ? "." : pattern.substr(0, slash == 0 ? 1 : slash);
    if (directory.find('%') != directory.npos || access(directory.c_str(), W_OK | X_OK) == 0)
        return true;
    verbose_msg(-1, "json: no file can be made in %s: %s", directory.c_str(),
                strerrordesc_np(errno));
    return false;
}

// What a run has left is found by its name.
bool has_plain_conversions(const std::string& pattern) {
    const std::string odd = odd_conversion(pattern);
    if (odd.empty())
        return true;
    verbose_msg(-1, "json: %s in the name of a file is none of the conversions that are taken",
                odd.c_str());
    return false;
}

bool is_fifo(const char* path) {
    struct stat status;
    return stat(path, &status) == 0 && S_ISFIFO(status.st_mode);
}

// Other files than this one are not written under the plain name.
bool is_no_directory(const file_settings& wanted) {
    const bool is_plain = !wanted.is_aside() && wanted.packing == compression::none;
    struct stat status;
    if (!is_plain || stat(wanted.pattern.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
        return true;
    verbose_msg(-1, "json: %s is a directory", wanted.pattern.c_str());
    return false;
}

bool fits_an_address(const std::string& path) {
    constexpr size_t most = sizeof(sockaddr_un::sun_path) - 1;
    if (path.size() <= most)
        return true;
    verbose_msg(-1, "json: the name of a socket has %lu bytes at most", most);
    return false;
}

// What the words of the command line name.
struct output_words {
    char* file = nullptr;
    char* socket = nullptr;
    char* compress = nullptr;
};

bool choose_stream(output_kind kind, const char* path, const settings& wanted) {
    if (wanted.file.rotate_s == 0 && wanted.file.rotate_bytes == 0 &&
        wanted.file.packing == compression::none)
        return true;
    verbose_msg(-1, "json: rotate-time, rotate-size and compress are for files, and %s is none",
                kind == output_kind::standard ? "standard output" : path);
    return false;
}

bool choose_output(const output_words& words, settings& wanted) {
    if ((words.file == nullptr) == (words.socket == nullptr)) {
        verbose_msg(-1, "json: one of file and socket is mandatory");
        return false;
    }
    if (words.compress != nullptr && !read_compression(words.compress, wanted.file.packing))
        return false;
    if (words.socket != nullptr)
        wanted.output = output_kind::socket;
    else if (std::strcmp(words.file, "-") == 0)
        wanted.output = output_kind::standard;
    else
        wanted.output = is_fifo(words.file) ? output_kind::fifo : output_kind::file;
    wanted.path = words.socket != nullptr ? words.socket : words.file;
    wanted.file.pattern = wanted.path;
    if (wanted.output == output_kind::socket && !fits_an_address(wanted.path))
        return false;
    return wanted.output == output_kind::file
               ? has_plain_conversions(wanted.file.pattern) &&
                     is_writable_directory(wanted.file.pattern) && is_no_directory(wanted.file)
               : choose_stream(wanted.output, wanted.path.c_str(), wanted);
}

bool read_encoding(const flow_encoding::json_parameters& parameters, settings& wanted) {
    std::string fault;
    if (flow_encoding::read_json_settings(parameters, wanted.encoding, fault))
        return true;
    verbose_msg(-1, "json: %s", fault.c_str());
    return false;
}

}  // namespace

bool read_settings(char* params, settings& wanted) {
    enum place { rotate_time, rotate_size, queue, drain, count };
    number numbers[count] = {
        {"rotate-time", 0, 0, 7 * 86'400},  // seconds
        {"rotate-size", 0, 0, 1 << 30},     // KiB
        {"queue", 16, 1, 4096},             // MiB
        {"drain", 10, 0, 3600},             // seconds
    };
    output_words words;
    flow_encoding::json_parameters parameters;
    std::vector<config_setting> table = {
        {"file", static_cast<void*>(&words.file), CONFIG_STRING},
        {"socket", static_cast<void*>(&words.socket), CONFIG_STRING},
        {"compress", static_cast<void*>(&words.compress), CONFIG_STRING},
    };
    for (number& row : numbers)
        table.push_back({row.name, &row.value, CONFIG_INTEGER});
    for (const config_setting& row : parameters.rows())
        table.push_back(row);
    table.push_back({nullptr, nullptr, 0});
    if (config_set_values(params, table.data()) != 0 || !are_in_range(numbers, count))
        return false;
    wanted.file.rotate_s = static_cast<uint64_t>(numbers[rotate_time].value);
    wanted.file.rotate_bytes = static_cast<uint64_t>(numbers[rotate_size].value) << 10;
    wanted.queue_bytes = static_cast<uint64_t>(numbers[queue].value) << 20;
    wanted.drain_s = static_cast<uint32_t>(numbers[drain].value);
    return choose_output(words, wanted) && read_encoding(parameters, wanted);
}

}  // namespace json_export
