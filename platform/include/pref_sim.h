#pragma once
// Simulation-only controls of the preference store (pref.h), for tests and the
// simulator. A camera build has no such header.
//
// Where the simulated NAND keeps a group: one file per group below the root
// directory, "/mnt/ubi1/pref/store/group<N>.bin", framed like the files of
// pref_save_to_file (magic, group, length, CRC-32 of the content). A save writes
// "group<N>.bin.tmp.<pid>", flushes and fsyncs it, renames it over the group's
// file and fsyncs the directory, so the group on NAND is always one whole image.
//
// Every function may be called from any thread.

#ifdef __cplusplus
extern "C" {
#endif

/// Operations a test can make fail on purpose.
typedef enum {
    PREF_SIM_OP_LOAD = 0,      ///< pref_load
    PREF_SIM_OP_SAVE = 1,      ///< pref_save
    PREF_SIM_OP_RESET = 2,     ///< pref_reset
    PREF_SIM_OP_SET_LONG = 3,  ///< pref_set_long
    PREF_SIM_OP_SET_BYTES = 4, ///< pref_set_bytes
    PREF_SIM_OP_COUNT = 5
} pref_sim_op;

/// The next `count` calls of `op` (any group) fail with -1 and change nothing.
void pref_sim_fail_next(pref_sim_op op, int count);

/// While on, the simulated NAND is full: pref_save and pref_save_to_file write
/// part of their temporary file, fail with -1 (errno ENOSPC), remove the
/// temporary and leave the old file as it was.
void pref_sim_set_disk_full(int on);

/// Number of successful pref_save calls of the group since the process started
/// (or since pref_sim_reset).
int pref_sim_save_count(int group);

/// Simulates a restart: every group forgets its in-memory image, so its next use
/// loads it again from NAND. Image addresses handed out stay valid (the memory is
/// kept and refilled in place).
void pref_sim_forget_images(void);

/// Forgets the images (as pref_sim_forget_images), clears the failure switches,
/// the full-disk state and the save counters.
void pref_sim_reset(void);

/// Writes the device path of the group's NAND file into out. The length, or -1
/// for an unknown group or a buffer that is too small.
int pref_sim_nand_path(int group, char* out, unsigned long size);

#ifdef __cplusplus
}
#endif
