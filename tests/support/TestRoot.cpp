#include "TestRoot.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace {

fs::path rootParent(bool inMemory)
{
    constexpr unsigned long long kRoomNeeded = 512ULL << 20;
    std::error_code ec;
    if (inMemory && fs::space("/dev/shm", ec).available >= kRoomNeeded && !ec) return "/dev/shm";
    return fs::temp_directory_path();
}

} // namespace

TestRoot::TestRoot(bool inMemory)
{
    std::string pattern = (rootParent(inMemory) / "pmode-test-XXXXXX").string();
    char* made = mkdtemp(pattern.data());
    if (made == nullptr) ADD_FAILURE() << "cannot create a temporary root";
    m_dir = pattern;
    setenv("PMODE_ROOT", m_dir.c_str(), 1);
}

TestRoot::~TestRoot()
{
    unsetenv("PMODE_ROOT");
    std::error_code ignored;
    // The key-value store keeps a root's volatile keys in memory, behind this link.
    const fs::path memory = fs::read_symlink(fs::path(m_dir) / "var/run/vconf/.memory", ignored);
    if (!memory.empty()) fs::remove_all(memory, ignored);
    fs::remove_all(m_dir, ignored);
}

std::string TestRoot::Host(const std::string& devicePath) const
{
    return m_dir + devicePath;
}

void TestRoot::WriteFile(const std::string& devicePath, const std::string& content) const
{
    const fs::path path = Host(devicePath);
    fs::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    if (!out) ADD_FAILURE() << "cannot write " << path;
}

std::string TestRoot::ReadFile(const std::string& devicePath) const
{
    std::ifstream in(Host(devicePath), std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

bool TestRoot::Exists(const std::string& devicePath) const
{
    return fs::exists(Host(devicePath));
}
