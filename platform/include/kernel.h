#pragma once
// Kernel services the library reaches through the platform: the mapping of
// device paths, shell commands and mounts.
//
// On the camera the mapping is the identity and the commands run for real. The
// simulation maps every absolute device path below the root directory named by
// the environment variable PMODE_ROOT (identity when unset) and carries out the
// library's few shell commands and mounts itself, below that root, never on the
// host. Messages keep showing the device paths.

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/// The root directory of the simulated device ("" when PMODE_ROOT is unset).
/// Read at every call, so a test may change PMODE_ROOT between cases. Any thread.
const char* kernel_root(void);

/// Writes the host path of device_path into out (size bytes, NUL-terminated).
/// Relative paths are left as they are. The length written, or -1 when out is too
/// small or an argument is NULL (then out holds ""). Any thread.
int kernel_map_path(const char* device_path, char* out, size_t size);

#ifdef __cplusplus
}

#include <string>

/// The host path of a device path (see kernel_map_path).
inline std::string KernelPath(const char* device_path)
{
    std::string root = kernel_root();
    if (device_path == nullptr) return std::string();
    if (root.empty() || device_path[0] != '/') return device_path;
    if (root.back() == '/') root.pop_back();
    return root + device_path;
}
#endif
