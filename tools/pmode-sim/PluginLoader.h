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
