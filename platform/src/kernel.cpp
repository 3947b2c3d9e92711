#include "kernel.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

namespace {

/// Creates "<root>/tmp" the first time a root is met (a device always has one).
void ensureDeviceTmp(const char* root)
{
    // Never destroyed: a notification thread of the key-value store may still map a
    // path while the process runs its exit handlers.
    static std::mutex& mutex = *new std::mutex;
    static std::string& lastRoot = *new std::string;
    std::lock_guard<std::mutex> lock(mutex);
    if (lastRoot == root) return;
    std::string tmp = root;
    if (!tmp.empty() && tmp.back() == '/') tmp.pop_back();
    tmp += "/tmp";
    // A root that does not exist yet is tried again on the next call.
    if (mkdir(tmp.c_str(), 01777) == 0 || errno == EEXIST) lastRoot = root;
}

} // namespace

extern "C" const char* kernel_root(void)
{
    const char* root = std::getenv("PMODE_ROOT");
    if (root == nullptr || root[0] == '\0') return "";
    ensureDeviceTmp(root);
    return root;
}

extern "C" int kernel_map_path(const char* device_path, char* out, size_t size)
{
    if (out == nullptr || size == 0) return -1;
    out[0] = '\0';
    if (device_path == nullptr) return -1;
    const std::string mapped = KernelPath(device_path);
    if (mapped.size() + 1 > size) return -1;
    std::memcpy(out, mapped.c_str(), mapped.size() + 1);
    return static_cast<int>(mapped.size());
}
