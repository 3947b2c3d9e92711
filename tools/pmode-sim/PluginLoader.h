#pragma once
// Loads worker plug-ins the way the camera's application loads its plug-in
// libraries: every "*.so" of a directory, in name order, with dlopen. A plug-in
// registers its workers with CWorkerFactory when it is loaded. Plug-ins are never
// unloaded: the registry deletes their workers at process exit.

#include <string>
#include <vector>

struct PluginLoad {
    std::vector<std::string> loaded; ///< file names
    std::vector<std::string> errors; ///< "name: dlerror text"
};

PluginLoad LoadPlugins(const std::string& directory);

/// The demo plug-ins that belong to this pmode-sim, found from its own executable
/// (/proc/self/exe): "plugins" beside it in the build tree, the installed plug-in
/// directory ("<prefix>/lib/production-mode/plugins") once installed. The path
/// beside the executable when neither exists, so the message names it.
std::string DefaultPluginDirectory();
