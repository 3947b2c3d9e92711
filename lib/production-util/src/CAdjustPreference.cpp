#include "CAdjustPreference.h"

#include "AdjustGroupLayout.h"
#include "PMReport.h"
#include "kernel.h"
#include "pref.h"

#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

namespace {

using namespace pm::adjust;
constexpr int kGroup = PREF_ID_ADJUST;
constexpr unsigned long kRecordSize = 140;
constexpr unsigned long kChunkSize = 1024;

constexpr const char* kTemporaryDirectory = "/tmp/";
constexpr const char* kTemporaryName = "adj_back.dat";
constexpr const char* kProcMounts = "/proc/mounts";
constexpr const char* kSnapshotVolume = "/dev/ubi2_0";
constexpr const char* kSnapshotMountPoint = "/mnt/ubi2";
constexpr const char* kSnapshotFileSystem = "ubifs";
constexpr const char* kSnapshotMountOptions = "bulk_read,no_chk_data_crc";
constexpr unsigned long kRemountFlags = MS_REMOUNT | MS_NOATIME | MS_NODIRATIME;
constexpr unsigned long kMountFlags = MS_NOATIME | MS_NODIRATIME;
static_assert(kRemountFlags == 0xC20 && kMountFlags == 0xC00, "mount flags of the snapshot partition");
constexpr useconds_t kAttachSettleMicroseconds = 100000;

// Set once the snapshot-boot command has completed; shared by every store. The
// adjust data manager's mutex serialises all callers.
bool g_snapshotPrepared = false;

void temporaryPath(char (&path)[256])
{
    std::snprintf(path, sizeof path, "%s%s", kTemporaryDirectory, kTemporaryName);
}

} // namespace

CAdjustPreference::CAdjustPreference()
    : m_size(0), m_dataOffset(0), m_sizeOffset(0), m_area(nullptr), m_snapshotMaking(false), m_modified(false)
{}

CAdjustPreference::~CAdjustPreference()
{
    m_area = nullptr;
}

bool CAdjustPreference::Mount(unsigned long dataOffset, unsigned long sizeOffset, long size)
{
    PM_CHECK(m_area == nullptr, false);
    m_dataOffset = static_cast<uint32_t>(dataOffset);
    m_sizeOffset = static_cast<uint32_t>(sizeOffset);
    m_size = static_cast<int32_t>(size);
    unsigned long imageSize = 0;
    unsigned char* image = pref_get_addr(kGroup, &imageSize);
    PM_CHECK(image != nullptr && imageSize == GROUP_SIZE, false);
    m_area = image + dataOffset;
    return m_size > 0;
}

void CAdjustPreference::Umount()
{
    m_area = nullptr;
}

unsigned long CAdjustPreference::GetItemNum()
{
    if (m_size <= 0) return 0;
    return static_cast<unsigned long>(m_size) / kRecordSize;
}

bool CAdjustPreference::crcCheck()
{
    return pref_get_byte(kGroup, MARKER1_OFFSET) == MARKER1 && pref_get_byte(kGroup, MARKER2_OFFSET) == MARKER2;
}

// Mount took only an image of the group's full size, so no read needs to ask the
// preference store (and take its lock) for the size again.
unsigned long CAdjustPreference::roomInImage() const
{
    return m_dataOffset <= GROUP_SIZE ? GROUP_SIZE - m_dataOffset : 0;
}

bool CAdjustPreference::Read(unsigned long offset, void* buffer, unsigned long size)
{
    if (m_area == nullptr) {
        PM_TRACE("CAdjustPreference::Read Error : No memory\n");
        return false;
    }
    // The length word may be corrupt: the image's end bounds every access as well.
    const unsigned long length = m_size > 0 ? static_cast<unsigned long>(m_size) : 0;
    if (m_size < 0 || offset > length || size > length - offset || offset + size > roomInImage()
        || (buffer == nullptr && size > 0)) {
        PM_TRACE("CAdjustPreference::Read Error %d, %d, %d\n", static_cast<int>(offset), static_cast<int>(size),
                 static_cast<int>(m_size));
        return false;
    }
    if (size > 0) std::memcpy(buffer, m_area + offset, size);
    return true;
}

bool CAdjustPreference::Write(unsigned long offset, void* buffer, unsigned long size)
{
    if (m_area == nullptr) {
        PM_TRACE("CAdjustPreference::Write Error : No memory\n");
        return false;
    }
    const unsigned long length = m_size > 0 ? static_cast<unsigned long>(m_size) : 0;
    const bool fits = m_size >= 0 && offset <= length && size <= length - offset && offset + size <= roomInImage()
                      && (buffer != nullptr || size == 0);
    if (fits && size > 0) std::memcpy(m_area + offset, buffer, size);
    prepareSnapshotBoot();
    return fits;
}

int CAdjustPreference::Insert(unsigned long offset, unsigned long size)
{
    int result = 0;
    if (m_area == nullptr) {
        result = -7;
        PM_TRACE("CAdjustPreference::Insert Error : %d\n", result);
        return result;
    }
    const unsigned long length = m_size > 0 ? static_cast<unsigned long>(m_size) : 0;
    const unsigned long room = roomInImage();
    const unsigned long reach = offset > length ? offset : length;
    if (reach > room || size > room - reach || length + size > static_cast<unsigned long>(INT32_MAX)) {
        result = -3; // pref_set_bytes could not hold it: refused before anything moves
        PM_TRACE("CAdjustPreference::Insert Error : %d\n", result);
        return result;
    }

    char path[256];
    FILE* temporary = nullptr;
    if (offset >= length) {
        if (size > 0) std::memset(m_area + offset, 0, size);
    } else {
        temporaryPath(path);
        temporary = std::fopen(KernelPath(path).c_str(), "w+b");
        if (temporary == nullptr) {
            PM_ASSERT_FAILED();
            result = -1;
            PM_TRACE("CAdjustPreference::Insert Error : %d\n", result);
            return result;
        }
        const unsigned long moving = length - offset;
        if (copy(m_area, temporary, offset, 0, moving) != 0) {
            // The tail is not safe in the file: leave the area as it is.
            result = -1;
            std::fclose(temporary);
            if (std::remove(KernelPath(path).c_str()) != 0) result = -6;
            PM_TRACE("CAdjustPreference::Insert Error : %d\n", result);
            return result;
        }
        if (size > 0) std::memset(m_area + offset, 0, size);
        if (copy(temporary, m_area, 0, offset + size, moving) != 0) result = -2;
    }

    m_size = static_cast<int32_t>(length + size);
    result = storeArea(result);
    prepareSnapshotBoot();
    if (temporary != nullptr) {
        std::fclose(temporary);
        if (std::remove(KernelPath(path).c_str()) != 0) result = -6;
    }
    if (result < 0) PM_TRACE("CAdjustPreference::Insert Error : %d\n", result);
    return result;
}

int CAdjustPreference::Remove(unsigned long offset, unsigned long size)
{
    int result = 0;
    if (m_area == nullptr) {
        result = -7;
        PM_TRACE("CAdjustPreference::Remove Error : %d\n", result);
        return result;
    }
    const unsigned long length = m_size > 0 ? static_cast<unsigned long>(m_size) : 0;
    if (m_size < 0 || offset > length || size > length - offset) {
        result = -5;
        PM_TRACE("CAdjustPreference::Remove Error : %d\n", result);
        return result;
    }

    char path[256];
    temporaryPath(path);
    FILE* temporary = std::fopen(KernelPath(path).c_str(), "w+b");
    if (temporary == nullptr) {
        PM_ASSERT_FAILED();
        result = -1;
        PM_TRACE("CAdjustPreference::Remove Error : %d\n", result);
        return result;
    }
    const unsigned long moving = length - (offset + size);
    if (copy(m_area, temporary, offset + size, 0, moving) != 0) {
        result = -1;
        std::fclose(temporary);
        if (std::remove(KernelPath(path).c_str()) != 0) result = -6;
        PM_TRACE("CAdjustPreference::Remove Error : %d\n", result);
        return result;
    }
    if (copy(temporary, m_area, 0, offset, moving) != 0) result = -2;

    m_size = static_cast<int32_t>(length - size);
    result = storeArea(result);
    prepareSnapshotBoot();
    std::fclose(temporary);
    if (std::remove(KernelPath(path).c_str()) != 0) result = -6;
    if (result < 0) PM_TRACE("CAdjustPreference::Remove Error : %d\n", result);
    return result;
}

int CAdjustPreference::storeArea(int result)
{
    if (pref_set_long(kGroup, m_sizeOffset, m_size) != 4) result = -4;
    if (pref_set_bytes(kGroup, m_dataOffset, m_area, static_cast<unsigned long>(m_size)) != m_size) result = -3;
    return result;
}

void CAdjustPreference::Reset()
{
    prepareSnapshotBootCommand();
    if (pref_reset(kGroup) < 0) PM_TRACE("CAdjustPreference::Reset Error1\n");
    if (pref_save(kGroup) < 0) PM_TRACE("CAdjustPreference::Reset Error2\n");
}

void CAdjustPreference::SelectSnapshotMaking(bool making)
{
    m_snapshotMaking = making;
    if (m_snapshotMaking && m_modified) prepareSnapshotBootCommand();
}

void CAdjustPreference::prepareSnapshotBoot()
{
    if (m_modified) return;
    if (m_snapshotMaking) prepareSnapshotBootCommand();
    m_modified = true;
}

int CAdjustPreference::checkMountState(const char* fileSystemType, const char* mountPoint)
{
    FILE* mounts = std::fopen(KernelPath(kProcMounts).c_str(), "r");
    if (mounts == nullptr) {
        PM_TRACE("fopen(%s) failed \n", kProcMounts);
        return -1;
    }
    char device[256];
    char point[256];
    char type[256];
    char options[256];
    int dump = 0;
    int pass = 0;
    for (;;) {
        const int fields =
            std::fscanf(mounts, "%255s %255s %255s %255s %d %d\n", device, point, type, options, &dump, &pass);
        device[255] = point[255] = type[255] = options[255] = '\0';
        if (fields == 6 && std::strcmp(type, fileSystemType) == 0 && std::strcmp(point, mountPoint) == 0) {
            std::fclose(mounts);
            return 1;
        }
        if (fields == EOF) {
            std::fclose(mounts);
            return 0;
        }
    }
}

void CAdjustPreference::prepareSnapshotBootCommand()
{
    if (g_snapshotPrepared) return;
    if (checkMountState(kSnapshotFileSystem, kSnapshotMountPoint) == 1) {
        if (kernel_mount(kSnapshotVolume, kSnapshotMountPoint, kSnapshotFileSystem, kRemountFlags,
                         kSnapshotMountOptions)
            != 0) {
            PM_TRACE("[/mnt/ubi2] rw remount failed [%s] \n", std::strerror(errno));
            return;
        }
        PM_TRACE("[/mnt/ubi2] rw remount done! \n");
    } else {
        kernel_system("ubiattach -p /dev/mtd2 -d 2");
        usleep(kAttachSettleMicroseconds);
        if (kernel_mount(kSnapshotVolume, kSnapshotMountPoint, kSnapshotFileSystem, kMountFlags, kSnapshotMountOptions)
            != 0) {
            PM_TRACE("[/mnt/ubi2] rw mount failed [%s] \n", std::strerror(errno));
            return;
        }
        PM_TRACE("[/mnt/ubi2] rw mount done! \n");
    }
    kernel_system("echo 1 > /pref/dirty_adj; sync; ");
    g_snapshotPrepared = true;
}

bool CAdjustPreference::seek(FILE* stream, unsigned long offset, int origin)
{
    if (stream == nullptr) return false;
    if (offset > static_cast<unsigned long>(LONG_MAX) || std::fseek(stream, static_cast<long>(offset), origin) != 0) {
        if (offset > static_cast<unsigned long>(LONG_MAX)) errno = EOVERFLOW;
        std::printf("msg = %s\n", std::strerror(errno));
        return false;
    }
    return true;
}

long CAdjustPreference::getFileSize(FILE* stream)
{
    if (!seek(stream, 0, SEEK_END)) return -1;
    return std::ftell(stream);
}

int CAdjustPreference::copy(unsigned char* area, FILE* file, unsigned long from, unsigned long to, unsigned long size)
{
    if (area == nullptr) return -5;
    const unsigned long length = m_size > 0 ? static_cast<unsigned long>(m_size) : 0;
    if (m_size < 0 || from > length || size > length - from || from + size > roomInImage()) return -4;
    unsigned char buffer[kChunkSize];
    for (unsigned long done = 0; done < size;) {
        const unsigned long chunk = size - done < kChunkSize ? size - done : kChunkSize;
        const unsigned char* source = area + from + done;
        if (chunk < kChunkSize) {
            std::memset(buffer, 0, sizeof buffer);
            std::memcpy(buffer, source, chunk);
            source = buffer;
        }
        // The stream moves on with every chunk: positioning once keeps its buffer.
        if (done == 0 && !seek(file, to, SEEK_SET)) return -2;
        if (std::fwrite(source, chunk, 1, file) != 1) return -1;
        done += chunk;
    }
    // A full disk may show only when the stream hands its buffer to the system.
    if (file != nullptr && std::fflush(file) != 0) return -1;
    return 0;
}

int CAdjustPreference::copy(FILE* file, unsigned char* area, unsigned long from, unsigned long to, unsigned long size)
{
    if (area == nullptr) return -5;
    const unsigned long length = m_size > 0 ? static_cast<unsigned long>(m_size) : 0;
    const unsigned long room = roomInImage();
    // The area may be about to grow (Insert): its bytes must stay inside the image.
    if (m_size < 0 || from > length || size > length - from || to > room || size > room - to) return -4;
    unsigned char buffer[kChunkSize];
    for (unsigned long done = 0; done < size;) {
        const unsigned long chunk = size - done < kChunkSize ? size - done : kChunkSize;
        if (chunk < kChunkSize) std::memset(buffer, 0, sizeof buffer);
        if (done == 0 && !seek(file, from, SEEK_SET)) return -2;
        if (std::fread(buffer, chunk, 1, file) != 1) return -1;
        std::memcpy(area + to + done, buffer, chunk);
        done += chunk;
    }
    return 0;
}
