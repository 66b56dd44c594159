// The parser on any frame, held against its model. Input: flow mask (two bytes, little-endian),
// blocks of the record (low four bits) and entry point (bit 4), filling of the record, frame.
#include <string>
#include <vector>

#include "tests/fuzz/fuzz_target.h"
#include "tests/model/parser_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr size_t choices = 4;
    if (size < choices)
        return 0;
    kestrel_model::check_settings settings;
    settings.mask = static_cast<uint32_t>(data[0] | data[1] << 8);
    settings.blocks = data[2] & 0x0F;
    settings.through_reader = (data[2] & 0x10) != 0;
    settings.filling = data[3];
    const std::string difference =
        kestrel_model::compare_parsers({data + choices, data + size}, settings);
    if (!difference.empty())
        kestrel_fuzz::fail(difference.c_str());
    return 0;
}
