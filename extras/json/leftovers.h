// What a run that ended in the middle of a line has left. The worker's thread.
#pragma once

#include <cstdint>
#include <string>

#include "compression.h"

namespace json_export {

// Cuts a file after its last whole line, or its last whole member where it is compressed, and says
// so. Returns the bytes that are left.
uint64_t cut_partial(int descriptor, compression packing, const char* path);

// Cuts a file that was being written and gives it the name of a complete one; one without a whole
// line goes. Nothing is done while another process writes it.
void complete_leftover(const std::string& path, compression packing);

}  // namespace json_export
