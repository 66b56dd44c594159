// Files: one that is appended to, or one after the other, each written aside until it is complete.
// Every message goes to the disk as it comes, so a crash of the program tears one line at most,
// and the next start cuts that off. The worker's thread.
#pragma once

#include <kestrelexp/outlet.h>

#include <cstdint>
#include <span>
#include <string>

#include "account.h"
#include "compression.h"
#include "settings.h"

namespace json_export {

class file_output {
  public:
    file_output(const file_settings& settings, output_account& account)
        : settings_(settings),
          suffix_(suffix_of(settings.packing)),
          packer_(settings.packing),
          account_(account) {}

    // For an outlet that borrows it for good.
    outlet_owner owner();

    bool tend(bool is_closing, outlet_wait& wait);
    // message.number: when its first record was received, ns since 1970.
    outlet_answer deliver(const outlet_message& message);
    void end();

  private:
    bool open(uint64_t time_s);
    enum class opening { done, failed, left_alone };
    opening open_path(const std::string& path);
    std::string path_of(uint32_t number) const;
    void give_name();
    void complete();
    void take_up_what_was_left();
    void reopen_when_moved();
    bool write_all(std::span<const uint8_t> bytes);
    bool is_set_back(uint64_t time_s) const;
    bool is_due(uint64_t time_s, size_t bytes) const;
    void say_fault(const std::string& path, int error);
    void pause();

    const file_settings settings_;
    const std::string_view suffix_;
    packer packer_;
    output_account& account_;
    int descriptor_ = -1;
    std::string name_;         // of the complete file, without its suffix
    uint32_t left_alone_ = 0;  // files of this name that are not ours to cut
    std::string path_;         // of the file that is open
    uint64_t size_ = 0;        // of it, bytes
    uint64_t end_s_ = 0;       // when its time is over
    uint64_t began_s_ = 0;     // no file begins before this
    std::string last_name_;
    uint32_t last_number_ = 0;  // of the files of the last name
    bool has_begun_ = false;
    bool is_fault_said_ = false;
    uint64_t retry_ns_ = 0;      // uptime
    uint64_t delivered_ns_ = 0;  // the same, of the last message
    uint64_t looked_ns_ = 0;     // the same, of the last look whether the file is still there
};

}  // namespace json_export
