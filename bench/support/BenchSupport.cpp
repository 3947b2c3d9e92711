#include "BenchSupport.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

namespace pmbench {

namespace {

void require(bool ok, const char* what)
{
    if (!ok) {
        std::perror(what);
        std::abort();
    }
}

} // namespace

BenchRoot::BenchRoot()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "pmode-bench-XXXXXX").string();
    require(mkdtemp(pattern.data()) != nullptr, "mkdtemp");
    m_dir = pattern;
    setenv("PMODE_ROOT", m_dir.c_str(), 1);
    // The folders a booted camera has and the library writes to without creating them.
    for (const char* dir :
         {"/mnt/mmc", "/mnt/ubi1/log", "/mnt/ubi1/pref", "/adj", "/var/log", "/var/run/memory/private", "/tmp"}) {
        std::filesystem::create_directories(m_dir + dir);
    }
}

BenchRoot::~BenchRoot()
{
    std::error_code ignored;
    const std::filesystem::path memory = std::filesystem::read_symlink(m_dir + "/var/run/vconf/.memory", ignored);
    if (!memory.empty()) std::filesystem::remove_all(memory, ignored);
    std::filesystem::remove_all(m_dir, ignored);
}

BenchRoot& Root()
{
    static BenchRoot root;
    return root;
}

void AtomicSave(const std::string& path, const std::vector<unsigned char>& bytes)
{
    const std::string temporary = path + ".floor";
    const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    require(fd >= 0, "open");
    require(write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()), "write");
    require(fsync(fd) == 0, "fsync");
    close(fd);
    require(rename(temporary.c_str(), path.c_str()) == 0, "rename");
    const int dir = open(std::filesystem::path(path).parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    require(dir >= 0 && fsync(dir) == 0, "fsync of the directory");
    close(dir);
}

size_t ReadWhole(const std::string& path, std::vector<unsigned char>& into)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    require(fd >= 0, "open");
    const ssize_t got = read(fd, into.data(), into.size());
    close(fd);
    require(got >= 0, "read");
    return static_cast<size_t>(got);
}

} // namespace pmbench
