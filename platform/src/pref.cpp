// The simulated preference store: group images in memory, saved whole to files
// below the root directory that stand for the NAND flash.
//
// Groups and defaults:
//   1 (line data)   48 bytes, all zero;
//   3 (adjust data) 5,294,098 bytes, all zero but 0x11 at offset 8 and 0x26 at
//                   offset 5,294,097 (the two validity markers).
//
// File framing, shared by the NAND files and pref_save_to_file: a 20-byte head
// ("PMPREF01", group, length, CRC-32), all little-endian, then the image. The CRC
// (IEEE 802.3, as zlib's crc32) covers the group and length words and the image,
// so a file of another group, a cut file and a changed byte are all refused.
// A file is accepted only when its length is exactly head + the group's size.
//
// pref_load with no NAND copy (a new device) puts the image to the defaults and
// succeeds; a NAND copy that is refused fails the load and leaves the image, or,
// at a group's first use, starts it from the defaults (reported to the system log).
// A group started that way is not saved over its NAND copy (pref_save fails) until a
// pref_load, pref_load_from_file or pref_reset succeeds: a copy that could not be read
// once (a transient I/O error) is never replaced by defaults nobody asked for.

#include "pref.h"
#include "pref_sim.h"

#include "dlog.h"
#include "kernel.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#ifdef PM_HAVE_ISAL
#include <isa-l/crc.h>
#else
#include <zlib.h>
#endif

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>

namespace {

constexpr unsigned long kGroup1Size = 48;
constexpr unsigned long kGroup3Size = 5294098;
constexpr unsigned long kGroup3FirstMarker = 8;
constexpr unsigned long kGroup3SecondMarker = 5294097;

constexpr const char* kNandDir = "/mnt/ubi1/pref/store";
constexpr char kMagic[8] = {'P', 'M', 'P', 'R', 'E', 'F', '0', '1'};
constexpr size_t kHeadSize = 20;

struct Group {
    int id;
    unsigned long size;
    unsigned char* image; // allocated once, never freed: addresses handed out stay valid
    bool loaded;
    bool nandUnread; // started from defaults because its NAND copy was refused
    int saves;
};

struct Store {
    std::mutex mutex;
    Group groups[2] = {{1, kGroup1Size, nullptr, false, false, 0}, {3, kGroup3Size, nullptr, false, false, 0}};
    int failNext[PREF_SIM_OP_COUNT] = {};
    bool diskFull = false;
};

// Never destroyed: users may still reach the images from static destructors.
Store& store()
{
    static Store* instance = new Store;
    return *instance;
}

Group* findGroup(Store& s, int group)
{
    for (Group& g : s.groups) {
        if (g.id == group) return &g;
    }
    return nullptr;
}

void report(const char* fmt, const char* what, int group)
{
    __dlog_print(3, DLOG_WARN, "PREF", fmt, what, group);
}

void putWord(unsigned char* at, uint32_t value)
{
    for (int i = 0; i < 4; ++i) at[i] = static_cast<unsigned char>(value >> (8 * i));
}

uint32_t getWord(const unsigned char* at)
{
    return uint32_t(at[0]) | uint32_t(at[1]) << 8 | uint32_t(at[2]) << 16 | uint32_t(at[3]) << 24;
}

using Head = std::array<unsigned char, kHeadSize>;

/// CRC-32 (IEEE 802.3, reflected, as zlib's crc32) of data, going on from crc. ISA-L's
/// carry-less multiplication is about seven times zlib's speed on the image.
uint32_t crcUpdate(uint32_t crc, const unsigned char* data, size_t size)
{
#ifdef PM_HAVE_ISAL
    return crc32_gzip_refl(crc, data, size);
#else
    return static_cast<uint32_t>(crc32_z(crc, data, size));
#endif
}

/// CRC-32 of a file's group and length words and of its image.
uint32_t frameCrc(const unsigned char* head, const unsigned char* image, unsigned long size)
{
    return crcUpdate(crcUpdate(0, head + 8, 8), image, size);
}

/// The head of group g's file as its image is now.
Head frameHead(const Group& g)
{
    Head head{};
    std::memcpy(head.data(), kMagic, sizeof kMagic);
    putWord(&head[8], static_cast<uint32_t>(g.id));
    putWord(&head[12], static_cast<uint32_t>(g.size));
    putWord(&head[16], frameCrc(head.data(), g.image, g.size));
    return head;
}

/// Reads until size bytes are in or the file ends; the count read, -1 on an error.
ssize_t readFully(int fd, unsigned char* data, size_t size)
{
    size_t got = 0;
    while (got < size) {
        ssize_t n = read(fd, data + got, size - got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -1;
        if (n == 0) break;
        got += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(got);
}

enum class ReadResult { Ok, Missing, Refused };

constexpr size_t kReadChunk = size_t{256} * 1024; // checked while it is still in the cache

/// Reads and checks a framed file of group g into `image` (g.size bytes), which holds
/// any bytes unless the answer is Ok. The image is read once, straight to its place,
/// and its checksum taken chunk by chunk as it arrives.
ReadResult readFramed(const std::string& hostPath, const Group& g, unsigned char* image, const char** why)
{
    *why = "";
    int fd = open(hostPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        *why = std::strerror(errno);
        return errno == ENOENT ? ReadResult::Missing : ReadResult::Refused;
    }
    Head head{};
    const ssize_t headBytes = readFully(fd, head.data(), head.size());
    ReadResult result = ReadResult::Refused;
    if (headBytes < static_cast<ssize_t>(kHeadSize) || std::memcmp(head.data(), kMagic, sizeof kMagic) != 0) {
        *why = "not a preference file";
    } else if (getWord(&head[8]) != static_cast<uint32_t>(g.id)) {
        *why = "file of another group";
    } else if (getWord(&head[12]) != g.size) {
        *why = "wrong group length";
    } else {
        uint32_t crc = crcUpdate(0, &head[8], 8);
        size_t got = 0;
        while (got < g.size) {
            const ssize_t n = readFully(fd, image + got, std::min<size_t>(kReadChunk, g.size - got));
            if (n <= 0) break;
            crc = crcUpdate(crc, image + got, static_cast<size_t>(n));
            got += static_cast<size_t>(n);
        }
        unsigned char extra = 0;
        if (got < g.size) {
            *why = "truncated file";
        } else if (readFully(fd, &extra, 1) != 0) {
            *why = "trailing bytes";
        } else if (crc != getWord(&head[16])) {
            *why = "checksum mismatch";
        } else {
            result = ReadResult::Ok;
        }
    }
    close(fd);
    return result;
}

bool writeAll(int fd, const unsigned char* data, size_t size)
{
    while (size > 0) {
        ssize_t n = write(fd, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool syncDirectory(const std::string& dir)
{
    int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    bool ok = fsync(fd) == 0;
    close(fd);
    return ok;
}

/// Temporaries "<name>.tmp.<pid>" left by processes that died while saving.
void removeStaleTemporaries(const std::string& dir, const std::string& name)
{
    std::error_code ec;
    const std::string prefix = name + ".tmp.";
    for (std::filesystem::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string entry = it->path().filename().string();
        if (entry.compare(0, prefix.size(), prefix) != 0) continue;
        const long pid = std::strtol(entry.c_str() + prefix.size(), nullptr, 10);
        if (pid > 0 && kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) {
            std::error_code ignored;
            std::filesystem::remove(it->path(), ignored);
        }
    }
}

/// Writes group g's file (head, then image) to hostPath so that, after a crash at
/// any moment, the file is either the old one or the new one: temporary, fsync,
/// rename, fsync of the directory. A full disk takes half of the file.
bool writeAtomically(const std::string& hostPath, const Group& g, bool diskFull)
{
    const std::filesystem::path path(hostPath);
    const std::string dir = path.has_parent_path() ? path.parent_path().string() : std::string(".");
    const std::string name = path.filename().string();
    removeStaleTemporaries(dir, name);
    const std::string temporary = hostPath + ".tmp." + std::to_string(getpid());

    int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    const Head head = frameHead(g);
    bool ok;
    if (diskFull) {
        writeAll(fd, head.data(), head.size());
        writeAll(fd, g.image, (kHeadSize + g.size) / 2 - kHeadSize);
        errno = ENOSPC;
        ok = false;
    } else {
        ok = writeAll(fd, head.data(), head.size()) && writeAll(fd, g.image, g.size) && fsync(fd) == 0;
    }
    const int savedErrno = errno;
    ok = (close(fd) == 0) && ok;
    if (ok) ok = rename(temporary.c_str(), hostPath.c_str()) == 0;
    if (!ok) {
        unlink(temporary.c_str());
        errno = savedErrno;
        return false;
    }
    syncDirectory(dir);
    return true;
}

std::string nandDevicePath(int group)
{
    return std::string(kNandDir) + "/group" + std::to_string(group) + ".bin";
}

void fillDefaults(Group& g)
{
    std::memset(g.image, 0, g.size);
    if (g.id == 3) {
        g.image[kGroup3FirstMarker] = 0x11;
        g.image[kGroup3SecondMarker] = 0x26;
    }
}

void allocate(Group& g)
{
    if (g.image == nullptr) g.image = new unsigned char[g.size];
}

/// Loads the group from NAND into its image. 0 done (defaults when NAND holds
/// none), -1 refused (the image is left as it was).
int loadFromNand(Group& g)
{
    allocate(g);
    // An image in use is replaced only by a copy that was read whole and checked; one
    // not loaded yet (nothing can see it) takes the file straight in.
    std::unique_ptr<unsigned char[]> copy(g.loaded ? new unsigned char[g.size] : nullptr);
    const char* why = "";
    switch (readFramed(KernelPath(nandDevicePath(g.id).c_str()), g, copy ? copy.get() : g.image, &why)) {
    case ReadResult::Ok:
        if (copy) std::memcpy(g.image, copy.get(), g.size);
        break;
    case ReadResult::Missing: fillDefaults(g); break;
    case ReadResult::Refused: report("pref: NAND copy refused (%s), group %d\n", why, g.id); return -1;
    }
    g.loaded = true;
    g.nandUnread = false;
    return 0;
}

/// First use of a group: its image from NAND, or the defaults when NAND has none
/// or holds a copy that is refused.
void ensureLoaded(Group& g)
{
    if (g.loaded) return;
    if (loadFromNand(g) < 0) {
        fillDefaults(g);
        g.loaded = true;
        g.nandUnread = true;
    }
}

/// Consumes one pending failure of op; true when the call has to fail.
bool injectedFailure(Store& s, pref_sim_op op)
{
    if (s.failNext[op] <= 0) return false;
    --s.failNext[op];
    return true;
}

bool inRange(const Group& g, unsigned long offset, unsigned long size)
{
    return offset <= g.size && size <= g.size - offset;
}

} // namespace

extern "C" int pref_load(int group)
{
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    Group* g = findGroup(s, group);
    if (g == nullptr || injectedFailure(s, PREF_SIM_OP_LOAD)) return -1;
    return loadFromNand(*g);
}

extern "C" int pref_save(int group)
{
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    Group* g = findGroup(s, group);
    if (g == nullptr || injectedFailure(s, PREF_SIM_OP_SAVE)) return -1;
    ensureLoaded(*g);
    if (g->nandUnread) {
        report("pref_save: %s, group %d\n", "its NAND copy could not be read, not saved over it", group);
        return -1;
    }
    std::error_code ec;
    std::filesystem::create_directories(KernelPath(kNandDir), ec);
    if (!writeAtomically(KernelPath(nandDevicePath(group).c_str()), *g, s.diskFull)) {
        report("pref_save: %s, group %d\n", std::strerror(errno), group);
        return -1;
    }
    ++g->saves;
    return 0;
}

extern "C" int pref_reset(int group)
{
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    Group* g = findGroup(s, group);
    if (g == nullptr || injectedFailure(s, PREF_SIM_OP_RESET)) return -1;
    allocate(*g);
    fillDefaults(*g);
    g->loaded = true;
    g->nandUnread = false;
    return 0;
}

extern "C" long pref_get_long(int group, unsigned long offset)
{
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    Group* g = findGroup(s, group);
    if (g == nullptr || !inRange(*g, offset, 4)) return 0;
    ensureLoaded(*g);
    return static_cast<int32_t>(getWord(g->image + offset));
}

extern "C" int pref_set_long(int group, unsigned long offset, long value)
{
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    Group* g = findGroup(s, group);
    if (g == nullptr || !inRange(*g, offset, 4) || injectedFailure(s, PREF_SIM_OP_SET_LONG)) return -1;
    ensureLoaded(*g);
    putWord(g->image + offset, static_cast<uint32_t>(value));
    return 4;
}

extern "C" unsigned char pref_get_byte(int group, unsigned long offset)
{
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    Group* g = findGroup(s, group);
    if (g == nullptr || offset >= g->size) return 0;
    ensureLoaded(*g);
    return g->image[offset];
}

extern "C" unsigned char* pref_get_addr(int group, unsigned long* size)
{
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    Group* g = findGroup(s, group);
    if (g == nullptr) {
        if (size != nullptr) *size = 0;
        return nullptr;
    }
    ensureLoaded(*g);
    if (size != nullptr) *size = g->size;
    return g->image;
}

extern "C" int pref_set_bytes(int group, unsigned long offset, const void* src, unsigned long size)
{
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    Group* g = findGroup(s, group);
    if (g == nullptr || (src == nullptr && size > 0) || size > INT_MAX || !inRange(*g, offset, size)) return -1;
    if (injectedFailure(s, PREF_SIM_OP_SET_BYTES)) return -1;
    ensureLoaded(*g);
    if (size > 0) std::memmove(g->image + offset, src, size); // src may lie inside the image
    return static_cast<int>(size);
}

extern "C" int pref_save_to_file(int group, const char* path)
{
    if (path == nullptr) return -1;
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    Group* g = findGroup(s, group);
    if (g == nullptr) return -1;
    ensureLoaded(*g);
    if (!writeAtomically(KernelPath(path), *g, s.diskFull)) {
        report("pref_save_to_file: %s, group %d\n", std::strerror(errno), group);
        return -1;
    }
    return 0;
}

extern "C" int pref_load_from_file(int group, const char* path)
{
    if (path == nullptr) return -1;
    Store& s = store();
    Group* g = nullptr;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        g = findGroup(s, group);
    }
    if (g == nullptr) return -1;
    // Read and check the file before touching the image, without holding the lock.
    std::unique_ptr<unsigned char[]> image(new unsigned char[g->size]);
    const char* why = "";
    if (readFramed(KernelPath(path), *g, image.get(), &why) != ReadResult::Ok) {
        report("pref_load_from_file: refused (%s), group %d\n", why, group);
        return -1;
    }
    std::lock_guard<std::mutex> lock(s.mutex);
    allocate(*g);
    std::memcpy(g->image, image.get(), g->size);
    g->loaded = true;
    g->nandUnread = false;
    return 0;
}

// ---- simulation controls ------------------------------------------------------------------

extern "C" void pref_sim_fail_next(pref_sim_op op, int count)
{
    if (op < 0 || op >= PREF_SIM_OP_COUNT) return;
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.failNext[op] = count;
}

extern "C" void pref_sim_set_disk_full(int on)
{
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.diskFull = on != 0;
}

extern "C" int pref_sim_save_count(int group)
{
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    Group* g = findGroup(s, group);
    return g != nullptr ? g->saves : 0;
}

extern "C" void pref_sim_forget_images(void)
{
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    for (Group& g : s.groups) g.loaded = false;
}

extern "C" void pref_sim_reset(void)
{
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    for (Group& g : s.groups) {
        g.loaded = false;
        g.saves = 0;
    }
    for (int& count : s.failNext) count = 0;
    s.diskFull = false;
}

extern "C" int pref_sim_nand_path(int group, char* out, unsigned long size)
{
    if (out == nullptr || size == 0) return -1;
    out[0] = '\0';
    if (group != 1 && group != 3) return -1;
    const std::string path = nandDevicePath(group);
    if (path.size() + 1 > size) return -1;
    std::memcpy(out, path.c_str(), path.size() + 1);
    return static_cast<int>(path.size());
}
