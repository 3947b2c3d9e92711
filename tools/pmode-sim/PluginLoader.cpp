#include "PluginLoader.h"

#include <dlfcn.h>

#include <algorithm>
#include <filesystem>

std::string DefaultPluginDirectory()
{
    std::error_code error;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
    const std::filesystem::path besideProgram = program.parent_path() / "plugins";
    const std::filesystem::path installed = (program.parent_path() / PMODE_SIM_INSTALLED_PLUGINS).lexically_normal();
    if (!std::filesystem::is_directory(besideProgram, error) && std::filesystem::is_directory(installed, error))
        return installed.string();
    return besideProgram.string();
}

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
