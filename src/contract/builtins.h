// The plugins that come with the program. Main thread, while the program starts; they are
// registered through the same door as external ones and never treated differently.
#pragma once

#include "kestrelexp/plugin.h"

namespace kestrel {

// Registers every built-in plugin, in the order that prefix matching and the plugin list rely on.
void register_builtins(plugin_registry& registry);

}  // namespace kestrel
