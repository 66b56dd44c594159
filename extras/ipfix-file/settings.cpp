#include "settings.h"

#include <fcntl.h>
#include <kestrelexp/service.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <ctime>
#include <string_view>

#include "file_name.h"

namespace ipfix_file {
namespace {

constexpr unsigned mib_exponent = 20;

// A whole number within bounds; without a text it is the standard one.
struct number {
    const char* key;
    uint64_t standard;
    uint64_t least;
    uint64_t most;
    char* text = nullptr;
    uint64_t value = 0;
};

bool read_number(number& row) {
    row.value = row.standard;
    if (row.text == nullptr)
        return true;
    const std::string_view text = row.text;
    const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), row.value);
    const bool is_number = fault == std::errc{} && end == text.data() + text.size();
    if (is_number && row.value >= row.least && row.value <= row.most)
        return true;
    verbose_msg(-1, "ipfix-file: %s=%s is no number from %lu to %lu", row.key, row.text, row.least,
                row.most);
    return false;
}

void split_path(const std::string& path, settings& wanted) {
    const size_t slash = path.rfind('/');
    wanted.pattern = slash == std::string::npos ? path : path.substr(slash + 1);
    wanted.directory = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

bool is_name_good(const settings& wanted, const char* path) {
    const std::string name = expand_name(wanted.pattern, static_cast<uint64_t>(std::time(nullptr)));
    if (!name.empty() && name.size() <= longest_name && name.find('/') == std::string::npos)
        return true;
    verbose_msg(-1,
                "ipfix-file: file=%s names no file: after the last '/' comes a name of 1 to %zu "
                "bytes, without a '/' among its fields",
                path, longest_name);
    return false;
}

bool is_directory_good(const std::string& directory) {
    const int descriptor = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool is_good =
        descriptor >= 0 && faccessat(descriptor, ".", W_OK | X_OK, AT_EACCESS) == 0;
    if (!is_good)
        verbose_msg(-1, "ipfix-file: cannot write to the directory %s: %s", directory.c_str(),
                    std::strerror(errno));
    if (descriptor >= 0)
        (void)close(descriptor);  // nothing was written
    return is_good;
}

}  // namespace

bool read_settings(char* params, settings& wanted) {
    char* file = nullptr;
    char* templates = nullptr;
    number rotate_time = {"rotate-time", 0, 1, 366 * uint64_t{86400}};
    number rotate_size = {"rotate-size", 0, 1, 1 << 20};
    number queue = {"queue", 16, 1, 4096};
    number drain = {"drain", 10, 0, 3600};
    number source_id = {"source_id", 0, 0, UINT32_MAX};
    const config_setting rows[] = {
        {"file", static_cast<void*>(&file), CONFIG_STRING},
        {rotate_time.key, static_cast<void*>(&rotate_time.text), CONFIG_STRING},
        {rotate_size.key, static_cast<void*>(&rotate_size.text), CONFIG_STRING},
        {"template-file", static_cast<void*>(&templates), CONFIG_STRING},
        {"template_file", static_cast<void*>(&templates), CONFIG_STRING},  // as ipfix has it
        {queue.key, static_cast<void*>(&queue.text), CONFIG_STRING},
        {drain.key, static_cast<void*>(&drain.text), CONFIG_STRING},
        {source_id.key, static_cast<void*>(&source_id.text), CONFIG_STRING},
        {nullptr, nullptr, 0},
    };
    if (config_set_values(params, rows) != 0)
        return false;
    if (file == nullptr) {
        verbose_msg(-1, "ipfix-file: file=PATH is mandatory");
        return false;
    }
    for (number* row : {&rotate_time, &rotate_size, &queue, &drain, &source_id})
        if (!read_number(*row))
            return false;
    if (templates != nullptr)
        wanted.template_file = templates;
    wanted.rotate_s = rotate_time.value;
    wanted.rotate_bytes = rotate_size.value << mib_exponent;
    wanted.queue_bytes = queue.value << mib_exponent;
    wanted.drain_s = static_cast<uint32_t>(drain.value);
    wanted.source_id = static_cast<uint32_t>(source_id.value);
    split_path(file, wanted);
    return is_name_good(wanted, file) && is_directory_good(wanted.directory);
}

}  // namespace ipfix_file
