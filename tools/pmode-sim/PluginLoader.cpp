#include "PluginLoader.h"

#include <dlfcn.h>

#include <algorithm>
#include <filesystem>

PluginLoad LoadPlugins(const std::string& directory)
{
    PluginLoad result;
    std::vector<std::filesystem::path> files;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(directory, error))
        if (entry.is_regular_file() && entry.path().extension() == ".so") files.push_back(entry.path());
    if (error) {
        result.errors.push_back(directory + ": " + error.message());
        return result;
    }
    std::sort(files.begin(), files.end());
    for (const auto& file : files) {
        if (dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL) == nullptr) {
            const char* why = dlerror();
            result.errors.push_back(file.filename().string() + ": " + (why != nullptr ? why : "cannot load"));
            continue;
        }
        result.loaded.push_back(file.filename().string());
    }
    return result;
}
