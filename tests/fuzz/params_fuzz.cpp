// Parameter strings: any text cut at any separator, and applied to a settings table. Input: the
// separator, then the text up to its first NUL.
#include <cstring>
#include <string>
#include <vector>

#include "kestrelexp/service.h"
#include "tests/fuzz/fuzz_target.h"
#include "tests/support/lifelong.h"

namespace {

using pieces = std::vector<std::string>;

// The plain rule: what stands between separators, without what is empty.
pieces split(const std::string& text, char separator) {
    pieces result(1);
    for (const char c : text) {
        if (c == separator)
            result.emplace_back();
        else
            result.back() += c;
    }
    std::erase(result, "");
    return result;
}

void check_split(std::string text, char separator, int copy) {
    const pieces expected = split(text, separator);
    std::string handed = text;
    char** actual = char_split(handed.data(), separator, copy);
    size_t n = 0;
    for (; actual[n]; ++n) {
        if (n >= expected.size() || expected[n] != actual[n])
            kestrel_fuzz::fail("another piece");
    }
    if (n != expected.size())
        kestrel_fuzz::fail("another number of pieces");
    if (copy) {
        if (handed != text)
            kestrel_fuzz::fail("the text was changed");
        free(actual[0]);
    }
    free(actual);
}

// What config_set_values makes of a table of "port" (number), "host" and "ip" (texts).
struct settings {
    int32_t port = -7;
    const char* host = nullptr;
    const char* ip = nullptr;
    int result = 0;
};

settings expected_settings(const pieces& items, std::vector<pieces>& kept) {
    settings s;
    for (const std::string& item : items) {
        kept.push_back(split(item, '='));
        const pieces& pair = kept.back();
        if (pair.size() != 2) {
            s.result = -1;
            return s;
        }
        if (pair[0].starts_with("port"))
            s.port = static_cast<int32_t>(strtol(pair[1].c_str(), nullptr, 10));
        else if (pair[0].starts_with("host"))
            s.host = pair[1].c_str();
        else if (pair[0].starts_with("ip"))
            s.ip = pair[1].c_str();
    }
    return s;
}

bool same(const char* a, const char* b) {
    return a && b ? std::strcmp(a, b) == 0 : a == b;
}

void check_values(const std::string& text) {
    const pieces items = split(text, ',');
    std::vector<pieces> kept;
    kept.reserve(items.size());
    const settings expected = expected_settings(items, kept);

    settings actual;
    const config_setting table[] = {{"port", &actual.port, CONFIG_INTEGER},
                                    {"host", &actual.host, CONFIG_STRING},
                                    {"ip", &actual.ip, CONFIG_STRING},
                                    {nullptr, nullptr, 0}};
    std::string handed = text;
    actual.result = config_set_values(handed.data(), table);
    kestrel_test::keep(actual.host);  // texts lent for the life of the program
    kestrel_test::keep(actual.ip);
    if (actual.result != expected.result || actual.port != expected.port ||
        !same(actual.host, expected.host) || !same(actual.ip, expected.ip))
        kestrel_fuzz::fail("other settings");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    verbose_level = -2;
    const auto* text = reinterpret_cast<const char*>(data + 1);
    const std::string whole(text, strnlen(text, size - 1));
    if (data[0] != 0) {
        check_split(whole, static_cast<char>(data[0]), 1);
        check_split(whole, static_cast<char>(data[0]), 0);
    }
    check_values(whole);
    return 0;
}
