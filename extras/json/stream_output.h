// Standard output, a pipe with a name, or a unix socket: what somebody reads at the other end, who
// may stop and may go away. Writes only what there is room for, and never tears a line for a reader
// who has come anew. The worker's thread.
#pragma once

#include <kestrelexp/outlet.h>

#include <cstdint>
#include <string>

#include "account.h"
#include "settings.h"

namespace json_export {

class stream_output {
  public:
    // kind: any but a file. path: nothing for standard output.
    stream_output(output_kind kind, std::string path, output_account& account)
        : kind_(kind), path_(std::move(path)), account_(account) {}

    // For an outlet that borrows it for good.
    outlet_owner owner();

    // A message up to this long is written as a whole or not at all.
    static size_t whole_message(output_kind kind);

    bool tend(bool is_closing, outlet_wait& wait);
    outlet_answer deliver(outlet_message& message);

  private:
    bool open();
    void say_broken(int error);
    void note_success();
    outlet_answer follow_error(outlet_message& message, int error);

    output_kind kind_;
    std::string path_;
    output_account& account_;
    int descriptor_ = -1;
    bool is_socket_ = false;
    bool is_full_ = false;     // until the descriptor can be written to again
    bool is_over_ = false;     // standard output, which nobody can open anew
    bool is_failing_ = false;  // standard output, which is a file on a full disk, say
    bool has_been_open_ = false;
    bool is_outage_said_ = false;
    uint64_t retry_ns_ = 0;  // uptime
};

}  // namespace json_export
