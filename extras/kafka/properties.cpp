#include "properties.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string_view>

namespace kafka {

namespace {

struct property {
    const char* name;
    const char* value;
};

// What a probe wants, where librdkafka's own choice is another.
constexpr property probe_properties[] = {
    {"client.id", "kestrelexp"},
    {"enable.idempotence", "true"},
    {"compression.codec", "lz4"},
    {"linger.ms", "100"},
    // Without end: the queue keeps what it has for as long as brokers are away.
    {"message.timeout.ms", "0"},
    {"statistics.interval.ms", "1000"},
};

struct own_property {
    std::string_view name;
    const char* reason;
};

constexpr own_property own_properties[] = {
    {"delivery.report.only.error", "each message is counted when its report comes"},
    {"transactional.id", "the export makes no transactions"},
};

bool set_property(rd_kafka_conf_t* conf, const std::string& name, const std::string& value,
                  std::string& fault) {
    char words[512];
    if (rd_kafka_conf_set(conf, name.c_str(), value.c_str(), words, sizeof words) ==
        RD_KAFKA_CONF_OK)
        return true;
    fault = words;
    return false;
}

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\r\n";
    const size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// A comment has its '#' at the start: passwords may have one anywhere.
bool is_comment(std::string_view line) {
    return line.empty() || line.front() == '#';
}

// Whether a file may set it.
bool is_open_to_files(std::string_view name, std::string& fault) {
    const auto* const found = std::ranges::find(own_properties, name, &own_property::name);
    if (found == std::end(own_properties))
        return true;
    fault = std::string(name) + " cannot be set here: " + found->reason;
    return false;
}

bool set_line(rd_kafka_conf_t* conf, std::string_view line, std::string& fault) {
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos) {
        fault = "name=value is expected";
        return false;
    }
    const std::string name(trimmed(line.substr(0, equals)));
    return is_open_to_files(name, fault) &&
           set_property(conf, name, std::string(trimmed(line.substr(equals + 1))), fault);
}

struct file_closer {
    void operator()(FILE* file) const { (void)std::fclose(file); }  // it was read only
};

// A line that is too long comes in pieces, of which the second is no property.
bool set_file(rd_kafka_conf_t* conf, const std::string& path, std::string& fault) {
    const std::unique_ptr<FILE, file_closer> file(std::fopen(path.c_str(), "re"));
    char place[16384];
    unsigned number = 1;
    for (; file && std::fgets(place, sizeof place, file.get()) != nullptr; ++number) {
        const std::string_view line = trimmed(place);
        if (!is_comment(line) && !set_line(conf, line, fault)) {
            fault.insert(0, path + ":" + std::to_string(number) + ": ");
            return false;
        }
    }
    if (file && std::ferror(file.get()) == 0)
        return true;
    fault = path + ": " + std::strerror(errno);
    return false;
}

// Commas alone name none.
bool has_broker(const rd_kafka_conf_t* conf) {
    constexpr const char* name = "bootstrap.servers";
    size_t size = 0;
    if (rd_kafka_conf_get(conf, name, nullptr, &size) != RD_KAFKA_CONF_OK)
        return false;
    std::string brokers(size, '\0');  // with the zero at its end
    return rd_kafka_conf_get(conf, name, brokers.data(), &size) == RD_KAFKA_CONF_OK &&
           brokers.find_first_not_of(std::string_view(", \0", 3)) != std::string::npos;
}

}  // namespace

conf_pointer make_configuration(const settings& wanted, std::string& fault) {
    conf_pointer conf(rd_kafka_conf_new());
    for (const property& one : probe_properties)
        if (!set_property(conf.get(), one.name, one.value, fault))
            return nullptr;
    if (!wanted.properties_file.empty() && !set_file(conf.get(), wanted.properties_file, fault))
        return nullptr;
    if (!wanted.brokers.empty() &&
        !set_property(conf.get(), "bootstrap.servers", wanted.brokers, fault))
        return nullptr;
    if (!has_broker(conf.get())) {
        fault = "brokers=HOST:PORT is missing";
        return nullptr;
    }
    return conf;
}

}  // namespace kafka
