// Opens plugin shared objects and registers what they hold. Main thread, while the program starts.
// Never closes an object and never initialises a plugin.
#pragma once

#include "kestrelexp/plugin.h"

namespace kestrel {

// The plugin directory, in the two parts that its messages and paths are made of.
inline constexpr const char* plugin_prefix = "/usr";
inline constexpr const char* plugin_directory = "/lib64/kestrelexp";

// Loads every entry of prefix + directory whose name does not begin with '.', in alphabetical
// order. A directory that cannot be read counts as empty.
void load_plugin_directory(const char* prefix, const char* directory, plugin_registry& registry);

}  // namespace kestrel
