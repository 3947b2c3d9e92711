// The simulated kernel's shell commands and mounts: their effect is carried out
// below the root directory, nothing runs on the host, and every call is recorded.

#include "kernel.h"
#include "kernel_sim.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr int kStatusRefused = 127; // as a shell answers a command it does not know
constexpr const char* kProcMounts = "/proc/mounts";

struct Record {
    std::string text;
    int result;
};

struct Kernel {
    std::mutex mutex;
    std::vector<Record> records;
    int failMountErrno = 0;
    int failMountCount = 0;
};

Kernel& kernel()
{
    static Kernel* instance = new Kernel; // reachable from static destructors
    return *instance;
}

std::vector<std::string> words(const std::string& statement)
{
    std::istringstream in(statement);
    std::vector<std::string> result;
    for (std::string word; in >> word;) result.push_back(word);
    return result;
}

bool allDigits(const std::string& text)
{
    if (text.empty()) return false;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
    }
    return true;
}

bool isOctal(const std::string& text)
{
    if (text.empty() || text.size() > 4) return false;
    for (char c : text) {
        if (c < '0' || c > '7') return false;
    }
    return true;
}

/// One statement the simulation knows, ready to run.
struct Statement {
    enum Kind { Sync, UbiAttach, Echo, Mkdir } kind;
    std::string path; // ubiattach: volume node; echo: target file; mkdir: directory
    std::string text; // echo: the text
    mode_t mode = 0755;
};

bool parseStatement(const std::vector<std::string>& w, Statement& out)
{
    if (w.size() == 1 && w[0] == "sync") {
        out.kind = Statement::Sync;
        return true;
    }
    if (w.size() == 5 && w[0] == "ubiattach" && w[1] == "-p" && w[2].compare(0, 8, "/dev/mtd") == 0
        && allDigits(w[2].substr(8)) && w[3] == "-d" && allDigits(w[4])) {
        out.kind = Statement::UbiAttach;
        out.path = "/dev/ubi" + w[4] + "_0";
        return true;
    }
    if (w.size() >= 3 && w[0] == "echo" && w[w.size() - 2] == ">" && w.back()[0] == '/') {
        out.kind = Statement::Echo;
        out.path = w.back();
        for (size_t i = 1; i + 2 < w.size(); ++i) out.text += (i > 1 ? " " : "") + w[i];
        return true;
    }
    if (w.size() == 4 && w[0] == "mkdir" && w[1] == "-p") {
        const std::string modeFlag = "--mode=";
        const bool modeLast = w[3].compare(0, modeFlag.size(), modeFlag) == 0;
        const std::string& path = modeLast ? w[2] : w[3];
        const std::string& mode = modeLast ? w[3] : w[2];
        if (mode.compare(0, modeFlag.size(), modeFlag) != 0 || !isOctal(mode.substr(modeFlag.size()))
            || path[0] != '/') {
            return false;
        }
        out.kind = Statement::Mkdir;
        out.path = path;
        out.mode = static_cast<mode_t>(std::strtoul(mode.c_str() + modeFlag.size(), nullptr, 8));
        return true;
    }
    return false;
}

bool parseCommand(const char* command, std::vector<Statement>& out)
{
    std::string text = command;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find(';', start);
        if (end == std::string::npos) end = text.size();
        const std::vector<std::string> w = words(text.substr(start, end - start));
        if (!w.empty()) {
            Statement statement;
            if (!parseStatement(w, statement)) return false;
            out.push_back(statement);
        }
        start = end + 1;
    }
    return !out.empty();
}

/// Exit code of one statement (0 success).
int run(const Statement& s)
{
    namespace fs = std::filesystem;
    std::error_code ec;
    switch (s.kind) {
    case Statement::Sync: return 0;
    case Statement::UbiAttach: {
        const std::string node = KernelPath(s.path.c_str());
        if (fs::exists(node, ec)) return 1; // "cannot attach: File exists"
        fs::create_directories(fs::path(node).parent_path(), ec);
        std::ofstream(node).put('\0');
        return fs::exists(node, ec) ? 0 : 1;
    }
    case Statement::Echo: {
        const std::string file = KernelPath(s.path.c_str());
        fs::create_directories(fs::path(file).parent_path(), ec);
        std::ofstream out(file, std::ios::trunc);
        out << s.text << '\n';
        out.flush();
        return out ? 0 : 1;
    }
    case Statement::Mkdir: {
        const std::string dir = KernelPath(s.path.c_str());
        fs::create_directories(dir, ec);
        if (ec || !fs::is_directory(dir, ec)) return 1;
        return chmod(dir.c_str(), s.mode) == 0 ? 0 : 1;
    }
    }
    return 1;
}

void record(Kernel& k, std::string text, int result)
{
    k.records.push_back(Record{std::move(text), result});
}

std::string readProcMounts()
{
    std::ifstream in(KernelPath(kProcMounts));
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

bool writeProcMounts(const std::string& content)
{
    const std::string path = KernelPath(kProcMounts);
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
    std::ofstream out(path, std::ios::trunc);
    out << content;
    out.flush();
    return static_cast<bool>(out);
}

std::string mountOptions(unsigned long flags, const char* data)
{
    std::string options = (flags & MS_RDONLY) ? "ro" : "rw";
    if (flags & MS_NOATIME) options += ",noatime";
    if (flags & MS_NODIRATIME) options += ",nodiratime";
    if (data != nullptr && data[0] != '\0') options += std::string(",") + data;
    return options;
}

/// Carries out a mount; 0 or an errno.
int doMount(const char* source, const char* target, const char* fstype, unsigned long flags, const char* data)
{
    namespace fs = std::filesystem;
    if (source == nullptr || target == nullptr || fstype == nullptr) return EFAULT;
    if (std::strcmp(fstype, "ubifs") != 0) return ENODEV;
    std::error_code ec;
    if (!fs::exists(KernelPath(source), ec)) return ENOENT;

    std::istringstream lines(readProcMounts());
    std::string updated;
    bool mounted = false;
    for (std::string line; std::getline(lines, line);) {
        const std::vector<std::string> w = words(line);
        if (w.size() >= 2 && w[1] == target) {
            mounted = true;
            if (flags & MS_REMOUNT) {
                line = w[0] + " " + w[1] + " " + fstype + " " + mountOptions(flags, data) + " 0 0";
            }
        }
        updated += line + "\n";
    }
    if (flags & MS_REMOUNT) {
        if (!mounted) return EINVAL;
    } else {
        if (mounted) return EBUSY;
        fs::create_directories(KernelPath(target), ec);
        updated += std::string(source) + " " + target + " " + fstype + " " + mountOptions(flags, data) + " 0 0\n";
    }
    return writeProcMounts(updated) ? 0 : EIO;
}

} // namespace

extern "C" int kernel_system(const char* command)
{
    Kernel& k = kernel();
    std::lock_guard<std::mutex> lock(k.mutex);
    if (command == nullptr) {
        record(k, "", kStatusRefused << 8);
        return kStatusRefused << 8;
    }
    std::vector<Statement> statements;
    if (kernel_root()[0] == '\0') {
        // Without a device root the effects would land on the host itself.
        std::fprintf(stderr, "kernel_system: no PMODE_ROOT, refused \"%s\"\n", command);
        record(k, command, kStatusRefused << 8);
        return kStatusRefused << 8;
    }
    if (!parseCommand(command, statements)) {
        std::fprintf(stderr, "kernel_system: refused \"%s\"\n", command);
        record(k, command, kStatusRefused << 8);
        return kStatusRefused << 8;
    }
    int exitCode = 0;
    for (const Statement& statement : statements) {
        const int code = run(statement);
        if (code != 0) exitCode = code;
    }
    record(k, command, exitCode << 8);
    return exitCode << 8;
}

extern "C" int kernel_mount(const char* source, const char* target, const char* fstype, unsigned long flags,
                            const void* data)
{
    Kernel& k = kernel();
    std::lock_guard<std::mutex> lock(k.mutex);
    const char* options = static_cast<const char*>(data);
    char text[1024];
    std::snprintf(text, sizeof text, "mount(%s, %s, %s, 0x%lx, %s)", source ? source : "(null)",
                  target ? target : "(null)", fstype ? fstype : "(null)", flags, options ? options : "(null)");
    int error;
    if (kernel_root()[0] == '\0') {
        error = EPERM; // without a device root the mount would land on the host itself
    } else if (k.failMountCount > 0) {
        --k.failMountCount;
        error = k.failMountErrno;
    } else {
        error = doMount(source, target, fstype, flags, options);
    }
    record(k, text, error);
    if (error != 0) {
        errno = error;
        return -1;
    }
    return 0;
}

extern "C" int kernel_sim_record_count(void)
{
    Kernel& k = kernel();
    std::lock_guard<std::mutex> lock(k.mutex);
    return static_cast<int>(k.records.size());
}

extern "C" int kernel_sim_record(int index, char* out, unsigned long size)
{
    if (out == nullptr || size == 0) return -1;
    out[0] = '\0';
    Kernel& k = kernel();
    std::lock_guard<std::mutex> lock(k.mutex);
    if (index < 0 || static_cast<size_t>(index) >= k.records.size()) return -1;
    const std::string& text = k.records[static_cast<size_t>(index)].text;
    if (text.size() + 1 > size) return -1;
    std::memcpy(out, text.c_str(), text.size() + 1);
    return static_cast<int>(text.size());
}

extern "C" int kernel_sim_record_result(int index)
{
    Kernel& k = kernel();
    std::lock_guard<std::mutex> lock(k.mutex);
    if (index < 0 || static_cast<size_t>(index) >= k.records.size()) return -1;
    return k.records[static_cast<size_t>(index)].result;
}

extern "C" void kernel_sim_fail_next_mount(int error_number, int count)
{
    Kernel& k = kernel();
    std::lock_guard<std::mutex> lock(k.mutex);
    k.failMountErrno = error_number != 0 ? error_number : EIO;
    k.failMountCount = count;
}

extern "C" int kernel_sim_set_proc_mounts(const char* content)
{
    Kernel& k = kernel();
    std::lock_guard<std::mutex> lock(k.mutex);
    if (content == nullptr) {
        std::error_code ec;
        std::filesystem::remove(KernelPath(kProcMounts), ec);
        return ec ? -1 : 0;
    }
    return writeProcMounts(content) ? 0 : -1;
}

extern "C" int kernel_sim_ubi_attached(int ubi)
{
    std::error_code ec;
    const std::string node = "/dev/ubi" + std::to_string(ubi) + "_0";
    return std::filesystem::exists(KernelPath(node.c_str()), ec) ? 1 : 0;
}

extern "C" void kernel_sim_reset(void)
{
    Kernel& k = kernel();
    std::lock_guard<std::mutex> lock(k.mutex);
    k.records.clear();
    k.failMountErrno = 0;
    k.failMountCount = 0;
}
