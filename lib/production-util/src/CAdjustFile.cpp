#include "CAdjustFile.h"

#include "kernel.h"

#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char* kDirectory = "/mnt/ubi1/pref/";
constexpr const char* kFrontName = "adj_front.dat";
constexpr const char* kBackName = "adj_back.dat";
constexpr unsigned long kRecordSize = 140;
constexpr unsigned long kChunkSize = 1024;
constexpr size_t kMaxNameLength = 240;

FILE* openDevice(const char* devicePath, const char* mode)
{
    if (devicePath == nullptr || devicePath[0] == '\0') return nullptr;
    return std::fopen(KernelPath(devicePath).c_str(), mode);
}

/// Closes the stream (when open); false when closing reports an error, as a
/// buffered write that could not be completed does.
bool closeStream(FILE*& stream)
{
    if (stream == nullptr) return true;
    const bool ok = std::fclose(stream) == 0;
    stream = nullptr;
    return ok;
}

bool removeDevice(const char* devicePath)
{
    return std::remove(KernelPath(devicePath).c_str()) == 0;
}

/// A staging step failed while the backing file is still whole: keep it and drop
/// the incomplete temporaries. -3, or -4 when a temporary cannot be deleted.
int discardTemporaries(const char* frontPath, const char* backPath)
{
    int result = -3;
    if (!removeDevice(frontPath)) result = -4;
    if (!removeDevice(backPath)) result = -4;
    return result;
}

void temporaryPaths(char (&front)[256], char (&back)[256])
{
    std::snprintf(front, sizeof front, "%s%s", kDirectory, kFrontName);
    std::snprintf(back, sizeof back, "%s%s", kDirectory, kBackName);
}

} // namespace

CAdjustFile::CAdjustFile() : m_path{}, m_itemNum(0) {}

CAdjustFile::~CAdjustFile() = default;

bool CAdjustFile::Mount(const char* name)
{
    // A cut name would name another file; the temporaries would be destroyed by
    // the next Insert or Remove.
    if (name == nullptr || std::strlen(name) > kMaxNameLength || std::strcmp(name, kFrontName) == 0
        || std::strcmp(name, kBackName) == 0) {
        m_path[0] = '\0';
        return false;
    }
    std::snprintf(m_path, sizeof m_path, "%s%s", kDirectory, name);
    FILE* file = openDevice(m_path, "rb");
    if (file == nullptr) return false;
    bool mounted = false;
    if (crcCheck()) {
        const long size = getFileSize(file);
        if (size > 0) {
            m_itemNum = static_cast<uint32_t>(static_cast<unsigned long>(size) / kRecordSize);
            mounted = true;
        }
    }
    closeStream(file);
    return mounted;
}

void CAdjustFile::Umount() {}

unsigned long CAdjustFile::GetItemNum()
{
    return m_itemNum;
}

bool CAdjustFile::crcCheck()
{
    return true;
}

bool CAdjustFile::Read(unsigned long offset, void* buffer, unsigned long size)
{
    FILE* file = openDevice(m_path, "rb");
    if (file == nullptr) return false;
    bool ok = seek(file, offset, SEEK_SET);
    if (ok && size > 0) ok = buffer != nullptr && std::fread(buffer, size, 1, file) == 1;
    closeStream(file);
    return ok;
}

bool CAdjustFile::Write(unsigned long offset, void* buffer, unsigned long size)
{
    FILE* file = openDevice(m_path, "r+b");
    if (file == nullptr) file = openDevice(m_path, "w+b");
    if (file == nullptr) return false;
    bool ok = seek(file, offset, SEEK_SET);
    if (ok && size > 0) ok = buffer != nullptr && std::fwrite(buffer, size, 1, file) == 1;
    return closeStream(file) && ok;
}

int CAdjustFile::Insert(unsigned long offset, unsigned long size)
{
    char frontPath[256];
    char backPath[256];
    temporaryPaths(frontPath, backPath);
    FILE* front = openDevice(frontPath, "w+b");
    FILE* back = openDevice(backPath, "w+b");
    FILE* file = openDevice(m_path, "r+b");
    if (file == nullptr) file = openDevice(m_path, "w+b");
    if (front == nullptr || back == nullptr || file == nullptr) {
        closeStream(front);
        closeStream(back);
        closeStream(file);
        return -1;
    }

    bool staged = copy(file, front, 0, 0, offset) == 0;
    if (size > 0) {
        void* zeros = std::calloc(size, 1);
        // A missing run of zeros would shift the tail: it counts as a failed step.
        staged = zeros != nullptr && seek(front, offset, SEEK_SET) && std::fwrite(zeros, size, 1, front) == 1 && staged;
        std::free(zeros);
    }
    const long fileSize = getFileSize(file);
    const unsigned long tail = fileSize > 0 && static_cast<unsigned long>(fileSize) > offset
                                   ? static_cast<unsigned long>(fileSize) - offset
                                   : 0;
    staged = fileSize >= 0 && copy(file, back, offset, 0, tail) == 0 && staged;
    staged = closeStream(front) && staged;
    staged = closeStream(back) && staged;
    closeStream(file);

    return staged ? rebuildFrom(frontPath, backPath) : discardTemporaries(frontPath, backPath);
}

int CAdjustFile::Remove(unsigned long offset, unsigned long size)
{
    char frontPath[256];
    char backPath[256];
    temporaryPaths(frontPath, backPath);
    FILE* front = openDevice(frontPath, "w+b");
    FILE* back = openDevice(backPath, "w+b");
    FILE* file = openDevice(m_path, "rb");
    if (front == nullptr || back == nullptr || file == nullptr) {
        closeStream(front);
        closeStream(back);
        closeStream(file);
        return -1;
    }

    bool staged = copy(file, front, 0, 0, offset) == 0;
    const long fileSize = getFileSize(file);
    const unsigned long end = size > ULONG_MAX - offset ? ULONG_MAX : offset + size;
    if (fileSize < 0) {
        staged = false;
    } else if (static_cast<unsigned long>(fileSize) > end) {
        staged = copy(file, back, end, 0, static_cast<unsigned long>(fileSize) - end) == 0 && staged;
    }
    staged = closeStream(front) && staged;
    staged = closeStream(back) && staged;
    closeStream(file);

    return staged ? rebuildFrom(frontPath, backPath) : discardTemporaries(frontPath, backPath);
}

int CAdjustFile::rebuildFrom(const char* frontPath, const char* backPath)
{
    int result = 0;
    // The temporaries first: the backing file is emptied only when both are there.
    FILE* front = openDevice(frontPath, "rb");
    FILE* back = openDevice(backPath, "rb");
    FILE* file = (front != nullptr && back != nullptr) ? openDevice(m_path, "w+b") : nullptr;
    if (front == nullptr || back == nullptr || file == nullptr) {
        closeStream(front);
        closeStream(back);
        closeStream(file);
        return -1;
    }

    bool written = true;
    const long frontSize = getFileSize(front);
    const long backSize = getFileSize(back);
    if (frontSize < 0 || copy(front, file, 0, 0, static_cast<unsigned long>(frontSize)) != 0) written = false;
    if (backSize < 0
        || copy(back, file, 0, static_cast<unsigned long>(frontSize), static_cast<unsigned long>(backSize)) != 0) {
        written = false;
    }
    written = closeStream(file) && written;
    closeStream(front);
    closeStream(back);

    if (!written) return -3; // the temporaries hold the whole new content: keep them
    if (!removeDevice(frontPath)) result = -4;
    if (!removeDevice(backPath)) result = -4;
    return result;
}

bool CAdjustFile::seek(FILE* stream, unsigned long offset, int origin)
{
    if (stream == nullptr || offset > static_cast<unsigned long>(LONG_MAX)) return false;
    return std::fseek(stream, static_cast<long>(offset), origin) == 0;
}

long CAdjustFile::getFileSize(FILE* stream)
{
    if (!seek(stream, 0, SEEK_END)) return -1;
    return std::ftell(stream);
}

int CAdjustFile::copy(FILE* source, FILE* destination, unsigned long from, unsigned long to, unsigned long size)
{
    unsigned char buffer[kChunkSize] = {};
    unsigned long readAt = from;
    unsigned long writeAt = to;
    const long sourceSize = getFileSize(source);
    if (size > ULONG_MAX - from || sourceSize < 0 || static_cast<unsigned long>(sourceSize) < from + size) return -4;
    const unsigned long end = from + size;

    while (readAt < end) {
        unsigned long chunk = kChunkSize;
        if (end - readAt < kChunkSize) {
            chunk = end - readAt;
            std::memset(buffer, 0, sizeof buffer);
        }
        // Each stream moves on with every chunk: positioning both once keeps their
        // buffers (positioning before each chunk would flush them every time).
        const bool first = readAt == from;
        if (first && !seek(source, readAt, SEEK_SET)) return -2;
        if (std::fread(buffer, chunk, 1, source) != 1) return -3;
        if (first && !seek(destination, writeAt, SEEK_SET)) return -2;
        if (std::fwrite(buffer, chunk, 1, destination) != 1) return -1;
        readAt += chunk;
        writeAt += chunk;
    }
    // A full disk may show only when the stream hands its buffer to the system.
    if (destination != nullptr && std::fflush(destination) != 0) return -1;
    return 0;
}
