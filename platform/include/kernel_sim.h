#pragma once
// Simulation-only controls of the simulated kernel (kernel.h), for tests and the
// simulator: the record of shell commands and mounts, fault switches and the
// state of the simulated flash partitions. A camera build has no such header.
//
// The record lives in the memory of the process. Every function may be called
// from any thread.

#ifdef __cplusplus
extern "C" {
#endif

/// Number of kernel_system and kernel_mount calls recorded so far.
int kernel_sim_record_count(void);

/// Copies the text of record `index` into out: the command as given to
/// kernel_system, or "mount(<source>, <target>, <fstype>, 0x<flags>, <data>)".
/// The length, or -1 for a bad index or a buffer that is too small.
int kernel_sim_record(int index, char* out, unsigned long size);

/// The result of record `index`: the status of kernel_system, or 0 / the errno
/// of a failed kernel_mount. -1 for a bad index.
int kernel_sim_record_result(int index);

/// The next `count` kernel_mount calls fail with errno `error_number` (no change
/// to "/proc/mounts").
void kernel_sim_fail_next_mount(int error_number, int count);

/// Replaces "/proc/mounts" below the root with `content`; NULL removes the file
/// (then it cannot be opened). 0, or -1 when the file cannot be written.
int kernel_sim_set_proc_mounts(const char* content);

/// 1 when "ubiattach ... -d <ubi>" has attached that partition below the current
/// root ("/dev/ubi<ubi>_0" exists), else 0.
int kernel_sim_ubi_attached(int ubi);

/// Forgets the record and clears the fault switches.
void kernel_sim_reset(void);

#ifdef __cplusplus
}

#include <string>
#include <vector>

/// All recorded texts, oldest first.
inline std::vector<std::string> KernelSimRecords()
{
    std::vector<std::string> records;
    const int count = kernel_sim_record_count();
    for (int i = 0; i < count; ++i) {
        char text[1024];
        records.emplace_back(kernel_sim_record(i, text, sizeof text) >= 0 ? text : "");
    }
    return records;
}
#endif
