// What a run that ended in the middle of a line has left. The worker's thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "compression.h"

namespace json_export {

// Cuts a file after its last whole line, or its last whole member where it is compressed, and says
// so. Returns the bytes that are left. One that ends in more than a message has (bytes, as it was
// offered) is no file that a crash tore: it is said and left alone, and nothing is returned.
std::optional<uint64_t> cut_partial(int descriptor, const std::string& path, compression packing,
                                    size_t longest_message);

// Cuts a file that was being written and gives it the name of a complete one; one without a whole
// line goes. Nothing is done while another process writes it.
void complete_leftover(const std::string& path, compression packing, size_t longest_message);

}  // namespace json_export
