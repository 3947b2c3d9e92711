#pragma once
// Shared pieces of the fuzz targets: a simulated device root below a tmpfs that
// lives for the whole run and is emptied before each input, and a reader that
// takes bytes, words and strings from the front of an input.

#include <cstddef>
#include <cstdint>
#include <string>

namespace pmfuzz {

/// The device root of this process: "/dev/shm/pmode-fuzz-XXXXXX" (or below the
/// temporary directory when there is no /dev/shm), named by PMODE_ROOT from the
/// first call on and removed at exit.
class DeviceRoot {
public:
    static DeviceRoot& Get();
    /// Removes everything below the root and makes the directories a camera has:
    /// "/tmp", "/adj", "/mnt/mmc" and "/mnt/ubi1".
    void Clear();
    /// Host path of a device path.
    std::string Host(const char* devicePath) const;
    /// Writes a file at a device path (its directory must exist).
    void Write(const char* devicePath, const void* data, size_t size) const;

private:
    DeviceRoot();
    std::string m_dir;
};

/// Takes values from the front of an input; past its end every value is 0 and
/// every string empty, so a harness never reads outside the input.
class Input {
public:
    Input(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    bool Empty() const { return m_size == 0; }
    size_t Remaining() const { return m_size; }
    uint8_t Byte();
    uint32_t Word();
    /// Up to `size` bytes.
    std::string Bytes(size_t size);
    /// A string whose length (at most `max`) is the next byte.
    std::string ShortString(size_t max);
    /// Everything that is left.
    std::string Rest();

private:
    const uint8_t* m_data;
    size_t m_size;
};

} // namespace pmfuzz
