// Names of files; see file_names.h.
#include "file_names.h"

#include <fcntl.h>
#include <glob.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <iterator>

namespace json_export {
namespace {

constexpr uint32_t numbers_limit = 1'000'000;
// Of a letter each, without a '/' in what they make. shape: what that looks like, as of glob(7).
struct conversion {
    char letter;
    std::string_view shape;
};
constexpr std::string_view two_digits = "[0-9][0-9]";
constexpr std::string_view four_digits = "[0-9][0-9][0-9][0-9]";
constexpr conversion conversions[] = {
    {'%', "%"},
    {'a', "*"},
    {'A', "*"},
    {'b', "*"},
    {'B', "*"},
    {'c', "*"},
    {'C', two_digits},
    {'d', two_digits},
    {'e', "[ 0-9][0-9]"},
    {'F', "[0-9][0-9][0-9][0-9]-[0-9][0-9]-[0-9][0-9]"},
    {'g', two_digits},
    {'G', four_digits},
    {'h', "*"},
    {'H', two_digits},
    {'I', two_digits},
    {'j', "[0-9][0-9][0-9]"},
    {'k', "[ 0-9][0-9]"},
    {'l', "[ 0-9][0-9]"},
    {'m', two_digits},
    {'M', two_digits},
    {'p', "*"},
    {'P', "*"},
    {'r', "*"},
    {'R', "[0-9][0-9]:[0-9][0-9]"},
    {'s', "[0-9]*"},
    {'S', two_digits},
    {'T', "[0-9][0-9]:[0-9][0-9]:[0-9][0-9]"},
    {'u', "[0-9]"},
    {'U', two_digits},
    {'V', two_digits},
    {'w', "[0-9]"},
    {'W', two_digits},
    {'X', "*"},
    {'y', two_digits},
    {'Y', four_digits},
    {'z', "*"},
    {'Z', "*"},
};
constexpr mode_t directory_mode = 0755;

std::string without(const std::string& text, std::string_view suffix) {
    return text.ends_with(suffix) ? text.substr(0, text.size() - suffix.size()) : text;
}

// Null for a letter that is none of a conversion.
const conversion* conversion_of(char letter) {
    const auto* const found = std::ranges::find(conversions, letter, &conversion::letter);
    return found != std::end(conversions) ? found : nullptr;
}

// Renames where no file has the name.
int rename_anew(const std::string& from, const std::string& to) {
    if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0)
        return 0;
    if (errno != EINVAL && errno != ENOSYS)
        return errno;
    // A file system that cannot promise it: the look comes a moment before the act.
    if (access(to.c_str(), F_OK) == 0)
        return EEXIST;
    return std::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

}  // namespace

std::string odd_conversion(const std::string& pattern) {
    for (size_t n = pattern.find('%'); n != pattern.npos; n = pattern.find('%', n + 2))
        if (n + 1 == pattern.size() || conversion_of(pattern[n + 1]) == nullptr)
            return pattern.substr(n, 2);
    return {};
}

std::string name_at(const std::string& pattern, std::string_view suffix, uint64_t time_s) {
    std::string plain = without(pattern, suffix);
    if (plain.find('%') == plain.npos)
        return plain;
    const auto time = static_cast<time_t>(time_s);
    tm parts{};
    std::array<char, 4096> name{};
    if (gmtime_r(&time, &parts) == nullptr ||
        strftime(name.data(), name.size(), plain.c_str(), &parts) == 0)
        return plain;  // longer than any path
    return name.data();
}

std::string numbered(const std::string& name, uint32_t n, std::string_view suffix) {
    std::string made = name;
    if (n > 0)
        made += '.' + std::to_string(n);
    return made.append(suffix);
}

int take_name(const std::string& aside, const std::string& name, std::string_view suffix,
              uint32_t& n) {
    int error = EEXIST;
    for (; error == EEXIST && n < numbers_limit; ++n)
        error = rename_anew(aside, numbered(name, n, suffix));
    --n;
    return error;
}

int make_directories(const std::string& path) {
    for (size_t slash = path.find('/', 1); slash != path.npos; slash = path.find('/', slash + 1))
        if (mkdir(path.substr(0, slash).c_str(), directory_mode) != 0 && errno != EEXIST)
            return errno;
    return 0;
}

std::vector<std::string> asides_of(const std::string& pattern, std::string_view suffix) {
    std::string wanted;
    const std::string plain = without(pattern, suffix);
    for (size_t n = 0; n < plain.size(); ++n) {
        if (plain[n] == '%' && n + 1 < plain.size()) {
            const conversion* const known = conversion_of(plain[++n]);
            wanted += known != nullptr ? known->shape : "*";
            continue;
        }
        if (std::string_view("*?[\\").find(plain[n]) != std::string_view::npos)
            wanted += '\\';
        wanted += plain[n];
    }
    std::vector<std::string> found;
    for (const std::string_view number : {"", ".[0-9]*"}) {
        const std::string each = std::string(wanted).append(number).append(suffix);
        glob_t paths{};
        if (glob((each + std::string(aside_suffix)).c_str(), 0, nullptr, &paths) == 0)
            found.insert(found.end(), paths.gl_pathv, paths.gl_pathv + paths.gl_pathc);
        globfree(&paths);
    }
    return found;
}

}  // namespace json_export
