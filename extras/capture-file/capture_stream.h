// The bytes of a capture or filter file, as a stream that libpcap and others read from. What has to
// be waited for (the writer of a FIFO, bytes of a pipe or a terminal) is waited for in short steps,
// so that an interrupt of the program ends the wait.
#pragma once

#include <cstdio>

namespace capture_file {

// Open a file, or standard input, for reading. Null when that cannot be done; errno says why. The
// caller closes the stream. ftell() tells how many bytes have been read from it.
std::FILE* open_stream(const char* path);
std::FILE* open_standard_input();

// Whether an interrupt ended a wait, and with it the stream. For the thread that reads.
bool was_interrupted();

}  // namespace capture_file
