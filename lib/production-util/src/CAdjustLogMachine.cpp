#include "CAdjustLogMachine.h"

#include "CAdjustData.h"
#include "PMReport.h"
#include "kernel.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

const char* CAdjustLogMachine::FILE_NAME = "/adj/AdjLog.txt";

namespace {

constexpr int kMaxLines = 255;
constexpr size_t kTextSize = 512;
constexpr size_t kIndexDigitsMax = 30;
constexpr mode_t kLogFileMode = 0600;

// File errors are plain diagnostics on standard output, without colour or tag.
void printFileError(const char* what)
{
    const int error = errno;
    std::printf("%s: %d, %s", what, error, std::strerror(error));
    std::fflush(stdout);
}

/// Reads up to size bytes; stops at end of file or at the first error (reported).
long readWhole(int fd, char* buffer, long size, const char* errorFormat)
{
    long total = 0;
    while (total < size) {
        const ssize_t got = ::read(fd, buffer + total, static_cast<size_t>(size - total));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            const int error = errno;
            std::printf(errorFormat, error, std::strerror(error));
            std::fflush(stdout);
            break;
        }
        if (got == 0) break;
        total += got;
    }
    return total;
}

bool writeWhole(int fd, const char* data, size_t size)
{
    while (size > 0) {
        const ssize_t put = ::write(fd, data, size);
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) return false;
        data += put;
        size -= static_cast<size_t>(put);
    }
    return true;
}

} // namespace

CAdjustLogMachine* CAdjustLogMachine::GetInstance()
{
    static CAdjustLogMachine instance;
    return &instance;
}

CAdjustLogMachine::CAdjustLogMachine() : nLineCount(0), nLastIndex(0), pFileContent(nullptr), blTurnedOn(false) {}

CAdjustLogMachine::~CAdjustLogMachine()
{
    delete[] pFileContent;
}

void CAdjustLogMachine::TurnOn()
{
    PM_CHECK(create());
    blTurnedOn = true;
}

void CAdjustLogMachine::TurnOff()
{
    destroy();
    blTurnedOn = false;
}

bool CAdjustLogMachine::Log(const char* format, ...)
{
    if (!blTurnedOn) create();
    if (nLineCount > kMaxLines) remove1line();

    char text[kTextSize];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    const size_t length = std::strlen(text);
    if (length > 0 && text[length - 1] == '\n') text[length - 1] = '\0';

    ++nLastIndex;
    const bool written = write1line(nLastIndex, text);

    if (!blTurnedOn) destroy();
    return written;
}

bool CAdjustLogMachine::Log(CAdjustData* main, CAdjustData* base1, CAdjustData* base2, CAdjustData* base3)
{
    if (!blTurnedOn) create();
    if (nLineCount > kMaxLines) {
        // One removal per line to come; the main record is counted even when absent.
        for (CAdjustData* base : {base1, base2, base3}) {
            if (base != nullptr) remove1line();
        }
        remove1line();
    }

    ++nLastIndex;
    bool written = true;
    written = writeItemRecord(nLastIndex, "[BASE1]", base1) && written;
    written = writeItemRecord(nLastIndex, "[BASE2]", base2) && written;
    written = writeItemRecord(nLastIndex, "[BASE3]", base3) && written;
    written = writeItemRecord(nLastIndex, "[MAIN]", main) && written;

    if (!blTurnedOn) destroy();
    return written;
}

bool CAdjustLogMachine::writeItemRecord(unsigned long index, const char* tag, CAdjustData* item)
{
    if (item == nullptr) return true;
    CAdjustData::_tAdjDataExtHeader header;
    header = *item;
    char record[kTextSize];
    std::snprintf(record, sizeof record, "%s Name: %s, O_OFF: %d, O_SIZE: %d, N_OFF: %d, N_SIZE: %d, INDEX: %d", tag,
                  header.name, static_cast<int>(header.offset), static_cast<int>(header.size),
                  static_cast<int>(item->Infomation(CAdjustData::ADJ_INFO_NEW_OFFSET)),
                  static_cast<int>(item->Infomation(CAdjustData::ADJ_INFO_NEW_SIZE)),
                  static_cast<int>(header.position));
    return write1line(index, record);
}

void CAdjustLogMachine::AdjustAssert(const char* /*format*/, ...) {}

bool CAdjustLogMachine::create()
{
    const std::string path = KernelPath(FILE_NAME);
    const int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) {
        nLastIndex = 0;
        nLineCount = 0;
        return true;
    }

    const long size = getFileSize(FILE_NAME);
    nLastIndex = 0;
    nLineCount = 0;
    if (size >= 1) {
        delete[] pFileContent;
        pFileContent = new (std::nothrow) char[static_cast<size_t>(size) + 1]();
        if (pFileContent != nullptr) {
            readWhole(fd, pFileContent, size, "AdjLog Create Error: %d, %s\n");
            nLastIndex = static_cast<uint32_t>(getLastIndex());
            nLineCount = static_cast<int32_t>(getLastLine());
            delete[] pFileContent;
            pFileContent = nullptr;
        }
    }
    ::close(fd);
    return true;
}

void CAdjustLogMachine::destroy()
{
    delete[] pFileContent;
    pFileContent = nullptr;
    nLineCount = 0;
    nLastIndex = 0;
}

unsigned long CAdjustLogMachine::getLastIndex()
{
    if (pFileContent == nullptr) return 0;
    const char* hash = std::strrchr(pFileContent, '#');
    if (hash == nullptr) return 0;

    size_t lineStart = 0;
    for (size_t i = static_cast<size_t>(hash - pFileContent); i > 0; --i) {
        if (pFileContent[i - 1] == '\n') {
            lineStart = i;
            break;
        }
    }
    const size_t length = static_cast<size_t>(hash - pFileContent) - lineStart;
    if (length > kIndexDigitsMax) return 0;

    char digits[kIndexDigitsMax + 1] = {};
    std::memcpy(digits, pFileContent + lineStart, length);
    const long long number = std::strtoll(digits, nullptr, 10);
    // A negative index, or one that cannot be a 32-bit index, belongs to a damaged line.
    if (number < 0 || number > static_cast<long long>(UINT32_MAX)) return 0;
    return static_cast<unsigned long>(number);
}

unsigned long CAdjustLogMachine::getLastLine()
{
    if (pFileContent == nullptr) return 0;
    unsigned long lines = 0;
    for (const char* p = pFileContent; *p != '\0'; ++p) {
        if (*p == '\n') ++lines;
    }
    return lines;
}

long CAdjustLogMachine::getFileSize(const char* path)
{
    struct stat status;
    if (::stat(KernelPath(path).c_str(), &status) != 0) return -1;
    return static_cast<long>(status.st_size);
}

bool CAdjustLogMachine::write1line(unsigned long index, const char* text)
{
    char head[32];
    std::snprintf(head, sizeof head, "%u%c", static_cast<unsigned>(index), '#');
    std::string line = head;
    line += text;
    line += '\n';

    const std::string path = KernelPath(FILE_NAME);
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT, kLogFileMode);
    if (fd < 0) {
        printFileError("write1line[O]");
        return false;
    }
    // One write per line, so that a line is never interleaved or split.
    if (::write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        printFileError("write1line[W]");
        ::close(fd);
        return false;
    }
    if (::fdatasync(fd) != 0) {
        printFileError("write1line[S]");
        ::close(fd);
        return false;
    }
    ++nLineCount;
    ::close(fd);
    return true;
}

bool CAdjustLogMachine::remove1line()
{
    if (nLineCount < 1) return false;
    const std::string path = KernelPath(FILE_NAME);

    char* content = nullptr;
    long contentLength = 0;
    const int in = ::open(path.c_str(), O_RDONLY);
    if (in >= 0) {
        const long size = getFileSize(FILE_NAME);
        if (size > 0) {
            content = new (std::nothrow) char[static_cast<size_t>(size) + 1]();
            if (content != nullptr) contentLength = readWhole(in, content, size, "remove1line[R]: %d, %s");
        }
        ::close(in);
    } else {
        printFileError("remove1line[O]");
    }

    const int out = ::open(path.c_str(), O_WRONLY | O_TRUNC | O_CREAT, kLogFileMode);
    if (out < 0) {
        printFileError("remove1line[O]");
        delete[] content;
        return false;
    }

    bool removed = false;
    const char* lineFeed =
        content != nullptr ? static_cast<const char*>(std::memchr(content, '\n', static_cast<size_t>(contentLength)))
                           : nullptr;
    if (lineFeed != nullptr) {
        const char* rest = lineFeed + 1;
        const size_t restLength = static_cast<size_t>(content + contentLength - rest);
        if (writeWhole(out, rest, restLength)) {
            removed = true;
        } else {
            printFileError("remove1line[W]");
        }
    }
    ::close(out);
    delete[] content;
    return removed;
}
