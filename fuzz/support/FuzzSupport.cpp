#include "FuzzSupport.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace fs = std::filesystem;

namespace pmfuzz {

namespace {

std::string makeRootDir()
{
    std::error_code ec;
    const fs::path base = fs::is_directory("/dev/shm", ec) ? fs::path("/dev/shm") : fs::temp_directory_path();
    std::string pattern = (base / "pmode-fuzz-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        std::perror("pmode fuzz: cannot create a device root");
        std::abort();
    }
    return pattern;
}

} // namespace

DeviceRoot& DeviceRoot::Get()
{
    static DeviceRoot* root = new DeviceRoot; // lives until exit, as the library's singletons do
    return *root;
}

DeviceRoot::DeviceRoot() : m_dir(makeRootDir())
{
    setenv("PMODE_ROOT", m_dir.c_str(), 1);
    static std::string removeAtExit;
    removeAtExit = m_dir;
    std::atexit([] {
        std::error_code ignored;
        fs::remove_all(removeAtExit, ignored);
    });
}

void DeviceRoot::Clear()
{
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(m_dir, ec)) fs::remove_all(entry.path(), ec);
    for (const char* dir : {"/tmp", "/adj", "/mnt/mmc", "/mnt/ubi1"}) fs::create_directories(Host(dir), ec);
}

std::string DeviceRoot::Host(const char* devicePath) const
{
    return m_dir + devicePath;
}

void DeviceRoot::Write(const char* devicePath, const void* data, size_t size) const
{
    FILE* file = std::fopen(Host(devicePath).c_str(), "wb");
    if (file == nullptr) {
        std::perror(devicePath);
        std::abort();
    }
    if (size > 0 && std::fwrite(data, size, 1, file) != 1) std::abort();
    std::fclose(file);
}

uint8_t Input::Byte()
{
    if (m_size == 0) return 0;
    --m_size;
    return *m_data++;
}

uint32_t Input::Word()
{
    uint32_t value = 0;
    for (int i = 0; i < 4; ++i) value |= static_cast<uint32_t>(Byte()) << (8 * i);
    return value;
}

std::string Input::Bytes(size_t size)
{
    if (size > m_size) size = m_size;
    std::string bytes(reinterpret_cast<const char*>(m_data), size);
    m_data += size;
    m_size -= size;
    return bytes;
}

std::string Input::ShortString(size_t max)
{
    return Bytes(Byte() % (max + 1));
}

std::string Input::Rest()
{
    return Bytes(m_size);
}

} // namespace pmfuzz
