#pragma once
// A fresh simulated device root for one test: a temporary directory that
// PMODE_ROOT points at while the object lives, removed afterwards.

#include <string>

class TestRoot {
public:
    /// With inMemory the root lies below /dev/shm when that has room (fault sweeps save
    /// the 5 MB adjust group hundreds of times), else in the temporary directory.
    explicit TestRoot(bool inMemory = false);
    ~TestRoot();
    TestRoot(const TestRoot&) = delete;
    TestRoot& operator=(const TestRoot&) = delete;

    /// The host directory standing for "/".
    const std::string& Dir() const { return m_dir; }
    /// Host path of a device path ("/mnt/mmc/x" -> <root>/mnt/mmc/x).
    std::string Host(const std::string& devicePath) const;
    /// Writes a file at a device path, creating its directories.
    void WriteFile(const std::string& devicePath, const std::string& content) const;
    /// The whole content of the file at a device path ("" when missing).
    std::string ReadFile(const std::string& devicePath) const;
    bool Exists(const std::string& devicePath) const;

private:
    std::string m_dir;
};
