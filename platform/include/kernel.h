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
/// Read at every call, so a test may change PMODE_ROOT between cases. Like every
/// booted device, a simulated one has a "/tmp": the first call that meets a root
/// creates "<root>/tmp" when it is missing. Any thread.
const char* kernel_root(void);

/// Writes the host path of device_path into out (size bytes, NUL-terminated).
/// Relative paths are left as they are. The length written, or -1 when out is too
/// small or an argument is NULL (then out holds ""). Any thread.
int kernel_map_path(const char* device_path, char* out, size_t size);

/// Stands for system(3): runs one of the device's shell commands. The simulation
/// knows only the library's own commands and carries out their effect below the
/// root directory, never on the host:
///   "ubiattach -p /dev/mtdN -d M"   attaches the flash partition: "/dev/ubiM_0" appears;
///                                   fails (status 1) when it is attached already;
///   "echo TEXT > PATH"              writes "TEXT\n" to PATH (its directory is created);
///   "mkdir -p PATH --mode=MODE"     creates PATH and its parents with MODE (octal);
///   "sync"                          nothing to do.
/// Statements may be joined with ";". A command with any other statement is
/// refused as a whole (status 127, nothing done). Every call is recorded (see
/// kernel_sim.h). The result is a wait status as system(3) gives it: 0 when every
/// statement succeeded, else the exit code in bits 8 to 15. Without a root
/// directory (PMODE_ROOT unset) the simulation refuses every command. Any thread.
int kernel_system(const char* command);

/// Stands for mount(2). The simulation mounts only "ubifs" volumes of attached
/// partitions ("/dev/ubiM_0" present below the root): it adds a line
/// "<source> <target> ubifs rw,<options> 0 0" to "/proc/mounts" below the root
/// (creating the target directory), or, with MS_REMOUNT, rewrites the line of a
/// target that is mounted. 0, or -1 with errno set (ENODEV unknown file system,
/// ENOENT source not attached, EBUSY target mounted already, EINVAL remount of a
/// target that is not mounted, EPERM without a root directory, or the errno a
/// test asked for). Recorded as
/// kernel_system is. Any thread.
int kernel_mount(const char* source, const char* target, const char* fstype, unsigned long flags, const void* data);

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
