// A regular file in memory, read from its beginning to its end. Pages are made ready some megabytes
// ahead, and let go after the reader, so that a file of any size takes little memory.
//
// A file may be cut while it is mapped. The pages that it loses then cannot be read: the kernel
// sends SIGBUS to whoever touches one. A handler of ours puts pages of zeros in the place of what
// is lost, for this mapping alone, and the reader learns it from mapping_has(). Any other SIGBUS
// takes the way that it took before.
//
// One thread, and one mapping in the process. The handler is for all threads.
#pragma once

#include <cstddef>
#include <cstdint>

namespace capture_file {

struct mapped_file {
    int descriptor;
    const uint8_t* data;
    size_t size;       // bytes, when it was mapped
    size_t ready_end;  // pages before it were made ready
    size_t let_go;     // pages before it were given back
};

// Maps the file if it is a regular one that can be mapped and has so many bytes at least. Keeps the
// descriptor, which stays the caller's.
bool map_file(int descriptor, size_t least_size, mapped_file& file);

// The reader has come to this byte and hardly reads one before it any more. Returns at which byte
// this is to be called again. The speed depends on it, nothing else.
size_t mapping_advance(mapped_file& file, size_t at);

// Whether all bytes before this one can still be read, neither cut off nor lost to a fault.
bool mapping_has(const mapped_file& file, size_t end);

// Nobody looks at the mapping any more.
void unmap_file(mapped_file& file);

// Whether the file has become shorter than it was.
bool mapping_was_cut(const mapped_file& file);

}  // namespace capture_file
