// The kernel services of kernel.h on the camera: device paths are host paths, and
// the library's shell commands and mounts run for real. Compiled into the library
// when it links the device's own platform (PM_PLATFORM=system).
#include "kernel.h"

#include <sys/mount.h>

#include <cstdlib>
#include <cstring>

const char* kernel_root(void)
{
    return "";
}

int kernel_map_path(const char* device_path, char* out, size_t size)
{
    if (out == nullptr || size == 0) return -1;
    out[0] = '\0';
    if (device_path == nullptr) return -1;
    const size_t length = std::strlen(device_path);
    if (length >= size) return -1;
    std::memcpy(out, device_path, length + 1);
    return static_cast<int>(length);
}

int kernel_system(const char* command)
{
    return std::system(command);
}

int kernel_mount(const char* source, const char* target, const char* fstype, unsigned long flags, const void* data)
{
    return ::mount(source, target, fstype, flags, data);
}
