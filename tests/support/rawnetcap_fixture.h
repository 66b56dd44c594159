// The emulated capture module (rawnetcap/module.h) for unit tests: what it is told, the frames that
// it captures, and its log of what was asked of it.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <string>
#include <vector>

#include "tests/support/scratch_file.h"

namespace kestrel_test {

class rawnetcap_module {
  public:
    struct setting {
        const char* name;  // without the common beginning
        std::string value;
    };

    explicit rawnetcap_module(std::initializer_list<setting> settings = {}) {
        set({"LOG", log_.path()});
        for (const setting& each : settings)
            set(each);
    }
    ~rawnetcap_module() {
        for (const std::string& name : names_)
            (void)unsetenv(name.c_str());
    }
    rawnetcap_module(const rawnetcap_module&) = delete;
    rawnetcap_module& operator=(const rawnetcap_module&) = delete;

    void set(const setting& each) {
        names_.push_back(std::string("RAWNETCAP_") + each.name);
        (void)setenv(names_.back().c_str(), each.value.c_str(), 1);
    }

    // Frames that come one after the other; wire_surplus bytes of each were not captured.
    void capture(const std::vector<std::string>& frames, uint32_t wire_surplus = 0) {
        std::string file;
        for (const uint32_t word : {0xA1B2C3D4u, 0x00040002u, 0u, 0u, 65535u, 1u})
            put(file, word);
        for (const std::string& frame : frames) {
            const auto size = static_cast<uint32_t>(frame.size());
            for (const uint32_t word : {0u, 0u, size, size + wire_surplus})
                put(file, word);
            file += frame;
        }
        frames_.write(file);
        set({"FRAMES", frames_.path()});
    }

    // What was asked so far, line by line, up to a line that begins with the text (if there is
    // one).
    std::vector<std::string> log(const std::string& end = "no such line") {
        std::vector<std::string> lines;
        std::ifstream file(log_.path());
        for (std::string line; std::getline(file, line) && !line.starts_with(end);)
            lines.push_back(line);
        return lines;
    }

    // Lines of the log that begin with the text.
    size_t count(const std::string& beginning) {
        size_t found = 0;
        for (const std::string& line : log())
            found += line.starts_with(beginning) ? 1 : 0;
        return found;
    }

  private:
    static void put(std::string& file, uint32_t word) {
        file.append(reinterpret_cast<const char*>(&word), sizeof word);
    }

    scratch_file log_, frames_;
    std::vector<std::string> names_;
};

}  // namespace kestrel_test
