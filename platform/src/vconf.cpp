// The simulated key-value store: values and sets (see vconf_store.h for the
// layout below the root directory).
#include "vconf.h"
#include "vconf_sim.h"
#include "vconf_store.h"

#include "kernel.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

namespace vconf_sim {
namespace {

bool plainKeyChar(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
}

/// Keys become single file names: '/' and every other unusual byte is %XX, so
/// no key can name a directory or one of the store's own dot files.
std::string encodeKey(const char* key)
{
    static const char hex[] = "0123456789ABCDEF";
    std::string name;
    for (const char* p = key; *p != '\0'; ++p) {
        const auto c = static_cast<unsigned char>(*p);
        if (plainKeyChar(*p)) {
            name += *p;
        } else {
            name += '%';
            name += hex[c >> 4];
            name += hex[c & 0xF];
        }
    }
    return name;
}

bool writeAll(int fd, const void* data, size_t size)
{
    const char* bytes = static_cast<const char*>(data);
    while (size > 0) {
        ssize_t n = write(fd, bytes, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        bytes += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool isVolatileKey(const char* key)
{
    return std::strncmp(key, "memory/", 7) == 0;
}

/// The link below the root that names the root's memory directory.
std::string memoryLink()
{
    return StoreDir() + kMemoryLink;
}

bool inMemoryAlready(const std::string& root)
{
    struct statfs info {};
    return statfs(root.c_str(), &info) == 0 && info.f_type == TMPFS_MAGIC;
}

/// A memory directory is an orphan once the link it names no longer leads back to it
/// (its root was removed, or made anew). Directories younger than a minute are left
/// alone: their process may not have linked them yet.
void removeOrphanedVolatileDirs()
{
    std::error_code ec;
    const auto now = std::filesystem::file_time_type::clock::now();
    for (std::filesystem::directory_iterator it(kMemoryParent, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string dir = it->path().string();
        if (it->path().filename().string().compare(0, std::strlen(kMemoryPrefix), kMemoryPrefix) != 0) continue;
        std::error_code timeError;
        const auto changed = std::filesystem::last_write_time(it->path(), timeError);
        if (timeError || now - changed < std::chrono::minutes(1)) continue;
        std::string link;
        std::getline(std::ifstream(dir + "/" + kOwnerFile), link);
        std::error_code linkError;
        const std::filesystem::path target = std::filesystem::read_symlink(link, linkError);
        std::error_code ignored;
        if (link.empty() || linkError || target != it->path()) std::filesystem::remove_all(it->path(), ignored);
    }
}

/// Makes this root's memory directory and links it; true when one is linked.
bool prepareVolatileDir()
{
    if (!VolatileDir().empty()) return true;
    std::string pattern = std::string(kMemoryParent) + "/" + kMemoryPrefix + "XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) return false;
    std::ofstream(pattern + "/" + kOwnerFile) << memoryLink() << '\n';
    if (symlink(pattern.c_str(), memoryLink().c_str()) != 0) {
        // Another process linked its own first: use that one.
        std::error_code ignored;
        std::filesystem::remove_all(pattern, ignored);
        return !VolatileDir().empty();
    }
    removeOrphanedVolatileDirs();
    return true;
}

/// Holds the store's lock file for the life of the object.
class StoreLock {
public:
    StoreLock()
    {
        m_fd = open((StoreDir() + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (m_fd < 0) return;
        while (flock(m_fd, LOCK_EX) != 0) {
            if (errno != EINTR) {
                close(m_fd);
                m_fd = -1;
                return;
            }
        }
    }
    ~StoreLock()
    {
        if (m_fd >= 0) close(m_fd); // closing releases the flock
    }
    StoreLock(const StoreLock&) = delete;
    StoreLock& operator=(const StoreLock&) = delete;
    bool Held() const { return m_fd >= 0; }

private:
    int m_fd = -1;
};

bool replaceValueFile(const std::string& path, int type, const std::string& value)
{
    const std::string header = std::to_string(type) + " " + std::to_string(value.size()) + "\n";
    const std::string temp = path + ".tmp." + std::to_string(getpid()) + "."
                             + std::to_string(std::hash<std::thread::id>{}(std::this_thread::get_id()));
    int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    bool ok = writeAll(fd, header.data(), header.size()) && writeAll(fd, value.data(), value.size());
    ok = (close(fd) == 0) && ok;
    if (ok) ok = rename(temp.c_str(), path.c_str()) == 0;
    if (!ok) unlink(temp.c_str());
    return ok;
}

bool appendJournal(const char* key, int type, const std::string& value)
{
    JournalHeader header{kJournalMagic, static_cast<uint32_t>(std::strlen(key)), static_cast<uint32_t>(value.size()),
                         type};
    std::string record(reinterpret_cast<const char*>(&header), sizeof header);
    record += key;
    record += value;
    int fd = open(JournalFile().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    // One write() per record: readers in other processes find whole records or
    // nothing past the last whole one (they skip a record until it is complete).
    bool ok = writeAll(fd, record.data(), record.size());
    return (close(fd) == 0) && ok;
}

int setValue(const char* key, int type, const std::string& value)
{
    if (TakeFault(GetFaults().failSet)) return -1;
    if (KeyFile(key).empty() || value.size() > kMaxValueLength) return -1;
    std::error_code error;
    std::filesystem::create_directories(StoreDir(), error);
    if (isVolatileKey(key) && !prepareVolatileDir()) return -1;
    const std::string path = KeyFile(key);
    {
        StoreLock lock;
        if (!lock.Held()) return -1;
        if (!replaceValueFile(path, type, value)) return -1;
        if (!appendJournal(key, type, value)) return -1;
    }
    PokeNotifier();
    return 0;
}

/// Reads a value file; false when it is missing, of another type or damaged.
bool getValue(const char* key, int type, std::string& value)
{
    if (TakeFault(GetFaults().failGet)) return false;
    const std::string path = KeyFile(key);
    if (path.empty()) return false;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    std::string content;
    char buffer[4096];
    ssize_t n;
    while ((n = read(fd, buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR)) {
        if (n > 0) content.append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    if (n < 0) return false;

    const size_t newline = content.find('\n');
    if (newline == std::string::npos) return false;
    char* end = nullptr;
    const std::string header = content.substr(0, newline);
    const long storedType = std::strtol(header.c_str(), &end, 10);
    if (end == header.c_str() || *end != ' ' || storedType != type) return false;
    const char* lengthText = end + 1;
    const unsigned long length = std::strtoul(lengthText, &end, 10);
    if (end == lengthText || *end != '\0' || length != content.size() - newline - 1) return false;
    value = content.substr(newline + 1);
    return true;
}

} // namespace

std::string StoreDir()
{
    return KernelPath(kStoreDir);
}

std::string JournalFile()
{
    return StoreDir() + ".journal";
}

std::string VolatileDir()
{
    const std::string root = kernel_root();
    if (root.empty() || inMemoryAlready(root) || access(kMemoryParent, W_OK) != 0) return StoreDir();
    char target[PATH_MAX];
    const ssize_t length = readlink(memoryLink().c_str(), target, sizeof target - 1);
    if (length <= 0) return std::string();
    return std::string(target, static_cast<size_t>(length)) + "/";
}

std::string KeyFile(const char* key)
{
    if (key == nullptr || key[0] == '\0' || std::strlen(key) > kMaxKeyLength) return std::string();
    if (!isVolatileKey(key)) return StoreDir() + encodeKey(key);
    const std::string dir = VolatileDir();
    // Before the first set of a volatile key the root has no memory directory yet:
    // the key's file would be in the store directory, where nothing is.
    return (dir.empty() ? StoreDir() : dir) + encodeKey(key);
}

Faults& GetFaults()
{
    static Faults faults;
    return faults;
}

bool TakeFault(std::atomic<int>& counter)
{
    int left = counter.load();
    while (left > 0) {
        if (counter.compare_exchange_weak(left, left - 1)) return true;
    }
    return false;
}

} // namespace vconf_sim

using namespace vconf_sim;

extern "C" int vconf_set_int(const char* key, int value)
{
    return setValue(key, VCONF_TYPE_INT, std::to_string(value));
}

extern "C" int vconf_set_str(const char* key, const char* value)
{
    if (value == nullptr) return -1;
    return setValue(key, VCONF_TYPE_STRING, value);
}

extern "C" int vconf_get_int(const char* key, int* value)
{
    std::string text;
    if (value == nullptr || !getValue(key, VCONF_TYPE_INT, text)) return -1;
    errno = 0;
    char* end = nullptr;
    const long parsed = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0 || parsed < INT32_MIN || parsed > INT32_MAX) return -1;
    *value = static_cast<int>(parsed);
    return 0;
}

extern "C" char* vconf_get_str(const char* key)
{
    std::string text;
    if (!getValue(key, VCONF_TYPE_STRING, text)) return nullptr;
    return strdup(text.c_str());
}

extern "C" int vconf_keynode_get_type(keynode_t* node)
{
    return node != nullptr ? node->type : -1;
}

extern "C" char* vconf_keynode_get_name(keynode_t* node)
{
    return node != nullptr ? node->name.data() : nullptr;
}

extern "C" int vconf_keynode_get_int(keynode_t* node)
{
    return node != nullptr && node->type == VCONF_TYPE_INT ? node->ivalue : -1;
}

extern "C" char* vconf_keynode_get_str(keynode_t* node)
{
    return node != nullptr && node->type == VCONF_TYPE_STRING ? node->svalue.data() : nullptr;
}

extern "C" void vconf_sim_fail_next_set(int count)
{
    GetFaults().failSet = count;
}

extern "C" void vconf_sim_fail_next_get(int count)
{
    GetFaults().failGet = count;
}

extern "C" void vconf_sim_fail_next_notify(int count)
{
    GetFaults().failNotify = count;
}

extern "C" void vconf_sim_fail_next_ignore(int count)
{
    GetFaults().failIgnore = count;
}

extern "C" void vconf_sim_drop_next_notification(int count)
{
    GetFaults().dropNotification = count;
}

extern "C" int vconf_sim_key_file(const char* key, char* out, size_t size)
{
    if (out == nullptr || size == 0) return -1;
    out[0] = '\0';
    const std::string path = KeyFile(key);
    if (path.empty() || path.size() + 1 > size) return -1;
    std::memcpy(out, path.c_str(), path.size() + 1);
    return static_cast<int>(path.size());
}
