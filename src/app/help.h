// Names and versions that the help and version texts share with the rest of the program. The
// printers themselves are declared in kestrelexp/program.h; they run on the main thread while the
// program starts and never change anything.
#pragma once

namespace kestrel {

inline constexpr const char* program_name = "kestrelexp";
inline constexpr const char* program_version = "3.01.01";

}  // namespace kestrel
