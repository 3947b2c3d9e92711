#include "kernel.h"

#include <cstdlib>
#include <cstring>

extern "C" const char* kernel_root(void)
{
    const char* root = std::getenv("PMODE_ROOT");
    return root != nullptr ? root : "";
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
