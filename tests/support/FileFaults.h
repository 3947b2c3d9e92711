#pragma once
// File-operation faults for power-loss and write-error sweeps. The test program that
// links FileFaults.cpp puts its own definitions of the C library's file functions
// (open, fopen, read, write, fread, fwrite, fflush, fclose, fseek, fsync, fdatasync,
// rename, remove, unlink, mkdir, ftruncate) in front of the library's, so every file
// operation of the library and of the simulated platform passes through here.
// Standard output and standard error are never counted.
//
// While armed, every operation is counted; operation number `at` (from 1) fails with
// EIO, or every operation from `at` on fails (a device that stays broken), or the
// process is killed there with SIGKILL (a power loss). Disarmed, everything passes
// straight through. Any thread may call these; tests arm them on one thread.

#include <string>
#include <vector>

namespace filefaults {

enum class Action {
    Count,    ///< only count (and name) the operations
    FailOnce, ///< operation `at` fails, the others succeed
    FailFrom, ///< operation `at` and every later one fail
    Kill,     ///< the process is killed with SIGKILL at operation `at`
};

/// Starts counting from 0 with the given action.
void Arm(Action action, long at = 0);
/// Stops counting and failing.
void Disarm();
/// Operations counted since Arm.
long Count();
/// The names of the operations counted since Arm (in order).
std::vector<std::string> Names();

/// The operation numbers worth a fault: the first and last of every run of operations
/// of the same name (a fault in the middle of a run of equal chunks takes the same path).
std::vector<long> SweepPoints(const std::vector<std::string>& names);

} // namespace filefaults
