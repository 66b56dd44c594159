// The bytes of a capture file, as a stream that libpcap reads from. A file that has to be waited
// for (a pipe, a terminal) is waited for in short steps, so that an interrupt of the program ends
// the wait.
#pragma once

#include <cstdio>

namespace capture_file {

// Opens path for reading, or standard input for "-". Null when it cannot be opened; errno says why.
// The caller closes it.
std::FILE* open_stream(const char* path);

// Whether an interrupt ended a wait, and with it the stream. For the thread that reads.
bool was_interrupted();

}  // namespace capture_file
