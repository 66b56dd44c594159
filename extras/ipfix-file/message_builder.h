// IPFIX messages (RFC 7011) of a file: records in, whole messages out. Used on the thread of the
// record loop; never writes.
#pragma once

#include <kestrelexp/outlet.h>
#include <kestrelexp/record.h>
#include <kestrelexp/template.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ipfix_file {

// RFC 7011 section 3.1; all in network order.
constexpr size_t header_length = 16;
constexpr size_t export_time_at = 4;  // s since the epoch
constexpr size_t sequence_at = 8;     // data records of the file before this message

void store_be32(uint8_t* to, uint32_t value);
uint32_t load_be32(const uint8_t* from);

class message_builder {
  public:
    // False after saying that there is no template file. Faults in it end the program (status 255).
    bool load(const char* template_file, uint32_t domain, getter* getters);

    // The message that opens a file: all templates. Its time is 0.
    const std::vector<uint8_t>& opening() const { return opening_; }

    // Stores the template that a record takes, negative when none does; returns bytes.
    uint32_t find(const flow_record& record, int32_t& index) const {
        return exporter_template_find(templates_, &record, &index);
    }
    // Whether a record of so many bytes may be added before the message is closed.
    bool has_room(uint32_t length) const {
        return data_size_ + header_length + length <= TEMPLATE_SETS_SIZE;
    }
    void add(const flow_record& record, int32_t index);
    bool is_empty() const { return records_ == 0; }

    // The message with all records since the one before. Its number is that of the records before
    // it; the sequence number in it is 0. Valid until the next call.
    outlet_message close(uint64_t time_s);

  private:
    bool make_opening();
    void write_header(uint8_t* message, size_t length, uint64_t time_s) const;

    template_collection* templates_ = nullptr;
    uint32_t domain_ = 0;
    std::vector<uint8_t> opening_;
    uint32_t data_size_ = 0;  // exporter_template_current_data_size after the last record
    uint32_t records_ = 0;    // in the message, and packets in them
    uint64_t packets_ = 0;
    uint64_t records_before_ = 0;
    uint8_t message_[header_length + TEMPLATE_SETS_SIZE] = {};
};

}  // namespace ipfix_file
