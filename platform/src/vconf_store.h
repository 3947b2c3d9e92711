#pragma once
// Internals shared by the two halves of the simulated key-value store: the
// storage (vconf.cpp) and the notification thread (vconf_notify.cpp).
//
// Layout below the device directory "/var/run/vconf/" (mapped through the root):
//   <encoded key>   the value of a persistent key (volatile keys: see below), "<type> <length>\n<bytes>", replaced whole
//                   by rename() of a temporary file, so a reader sees the old or
//                   the new value, never a mixture;
//   .journal        one record per set of any key, appended in the order of the
//                   sets (all processes), read by every notification thread;
//   .lock           flock()ed by a set while it writes the value and appends its
//                   journal record, which orders the sets of all processes.

#include <atomic>
#include <cstdint>
#include <string>

struct _keynode_t {
    std::string name;
    int type = 0;
    int ivalue = 0;
    std::string svalue;
};

namespace vconf_sim {

constexpr const char* kStoreDir = "/var/run/vconf/";
// Volatile keys ("memory/...") live in memory, as on the device: in a directory
// "/dev/shm/pmode-vconf-XXXXXX" made for the root at its first set of one, named by
// the symbolic link ".memory" in the store directory, and naming that link in its
// file "root". A new one removes those whose link is gone or leads elsewhere (their
// root was removed). A root that lies in memory already, or a host without a
// writable /dev/shm, keeps volatile keys in the store directory with the others.
constexpr const char* kMemoryParent = "/dev/shm";
constexpr const char* kMemoryPrefix = "pmode-vconf-";
constexpr const char* kMemoryLink = ".memory";
constexpr const char* kOwnerFile = "root";
constexpr uint32_t kJournalMagic = 0x314A4B56; // "VKJ1"
constexpr uint32_t kMaxKeyLength = 1024;
constexpr uint32_t kMaxValueLength = 64u * 1024u * 1024u;

/// Fixed part of a journal record; the key's bytes and the value's bytes follow.
struct JournalHeader {
    uint32_t magic;
    uint32_t keyLength;
    uint32_t valueLength;
    int32_t type;
};

/// Host directory of the store (with a trailing slash), for the current root.
std::string StoreDir();
/// Host path of the journal, for the current root.
std::string JournalFile();
/// Host directory of the volatile keys (with a trailing slash), for the current root;
/// "" while the root has none (no volatile key was set yet).
std::string VolatileDir();
/// Host path of a key's value file; "" for a key that is not acceptable.
std::string KeyFile(const char* key);

/// Fault switches of vconf_sim.h.
struct Faults {
    std::atomic<int> failSet{0};
    std::atomic<int> failGet{0};
    std::atomic<int> failNotify{0};
    std::atomic<int> failIgnore{0};
    std::atomic<int> dropNotification{0};
};
Faults& GetFaults();
/// Uses up one count of a switch: true when the operation must fail.
bool TakeFault(std::atomic<int>& counter);

/// Wakes this process's notification thread (if any) after a local set.
void PokeNotifier();

} // namespace vconf_sim
