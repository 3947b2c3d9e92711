#include "DeviceRoot.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace fs = std::filesystem;

namespace devroot {

const char* const kHowToGive = "give --root DIR or set PMODE_ROOT=DIR (a directory that stands for the device's \"/\")";

bool Check(const std::string& path, bool mustExist, std::string& resolved, std::string& error)
{
    if (path.empty()) {
        error = std::string("no device root: ") + kHowToGive;
        return false;
    }
    std::error_code failure;
    fs::path absolute = fs::absolute(path, failure);
    fs::path canonical = failure ? fs::path() : fs::weakly_canonical(absolute, failure);
    if (failure) {
        error = "the device root " + path + " cannot be resolved: " + failure.message();
        return false;
    }
    canonical = canonical.lexically_normal();
    if (canonical == canonical.root_path()) {
        error = "the device root " + path + " resolves to the host's own \"/\", which is refused";
        return false;
    }
    if (mustExist && !fs::is_directory(canonical, failure)) {
        error = "the device root " + path + " is not a directory";
        return false;
    }
    resolved = canonical.string();
    if (resolved.size() > 1 && resolved.back() == '/') resolved.pop_back();
    return true;
}

bool Use(const std::string& given, std::string& resolved, std::string& error)
{
    std::string path = given;
    if (path.empty()) {
        const char* environment = std::getenv("PMODE_ROOT");
        path = environment != nullptr ? environment : "";
    }
    if (!Check(path, true, resolved, error)) {
        if (!path.empty()) error += std::string(": ") + kHowToGive;
        return false;
    }
    setenv("PMODE_ROOT", resolved.c_str(), 1);
    return true;
}

} // namespace devroot
