#include "CProductionCSV.h"

#include "CAdjustDataManager.h"
#include "CPTPAdjInterface.h"
#include "CProductionMode.h"
#include "PMReport.h"
#include "kernel.h"

#include <cctype>
#include <cinttypes>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kAdjustCisSn = 27; // ADJUST_CIS_SN
constexpr int kLineMax = 4095;
constexpr size_t kIndexFieldMax = 11;
constexpr size_t kTailBlock = 8192; // holds the longest line the table writes
constexpr const char* kHeaderStart = "Index,CIS S/N";

bool hostLinkMode()
{
    return CProductionMode::GetInstance()->GetOperationType() == OP_TYPE_PTP;
}

bool isFloatConversion(char c)
{
    return c == 'e' || c == 'f' || c == 'g' || c == 'E' || c == 'G';
}

/// The format's arguments as vprintf takes them: for each one its text when it
/// is the string of a "%s" (null otherwise). False when the format numbers its
/// arguments ("%1$s"); the list then stops there.
bool listArguments(const char* format, va_list args, std::vector<const char*>& strings)
{
    for (const char* p = format; *p != '\0'; ++p) {
        if (*p != '%') continue;
        ++p;
        while (*p != '\0' && std::strchr("-+ #0'", *p) != nullptr) ++p;
        if (*p == '*') {
            (void)va_arg(args, int);
            strings.push_back(nullptr);
            ++p;
        } else {
            while (std::isdigit(static_cast<unsigned char>(*p))) ++p;
        }
        if (*p == '$') return false;
        if (*p == '.') {
            ++p;
            if (*p == '*') {
                (void)va_arg(args, int);
                strings.push_back(nullptr);
                ++p;
            } else {
                while (std::isdigit(static_cast<unsigned char>(*p))) ++p;
            }
        }
        enum { kInt, kLong, kWide, kLongDouble } size = kInt;
        if (*p == 'h') {
            ++p;
            if (*p == 'h') ++p;
        } else if (*p == 'l') {
            size = kLong;
            ++p;
            if (*p == 'l') {
                size = kWide;
                ++p;
            }
        } else if (*p == 'z' || *p == 'j' || *p == 't' || *p == 'q') {
            size = kWide;
            ++p;
        } else if (*p == 'L') {
            size = kLongDouble;
            ++p;
        }
        switch (*p) {
        case '\0': return true;
        case 'd':
        case 'i':
        case 'o':
        case 'u':
        case 'x':
        case 'X':
        case 'c':
            if (size == kWide) {
                (void)va_arg(args, long long);
            } else if (size == kLong) {
                (void)va_arg(args, long);
            } else {
                (void)va_arg(args, int);
            }
            strings.push_back(nullptr);
            break;
        case 'e':
        case 'f':
        case 'g':
        case 'E':
        case 'G':
        case 'F':
        case 'a':
        case 'A':
            if (size == kLongDouble) {
                (void)va_arg(args, long double);
            } else {
                (void)va_arg(args, double);
            }
            strings.push_back(nullptr);
            break;
        case 's': strings.push_back(va_arg(args, const char*)); break;
        case 'p':
        case 'n':
            (void)va_arg(args, void*);
            strings.push_back(nullptr);
            break;
        default: break;
        }
    }
    return true;
}

/// The length estimate's own walk of the format: only the one character after
/// each '%' counts (width, precision and flags are not understood). Gives the
/// position of the argument that this walk takes for the last "%s" (-1 for
/// none); false for an "l" that is not followed by a floating conversion.
bool lastStringPosition(const char* format, int& position)
{
    position = -1;
    int next = 0;
    for (const char* p = format; *p != '\0'; ++p) {
        if (*p != '%') continue;
        const char c = *++p;
        if (c == '\0') break;
        if (std::strchr("diouxXc", c) != nullptr || isFloatConversion(c)) {
            ++next;
        } else if (c == 's') {
            position = next++;
        } else if (c == 'l') {
            if (!isFloatConversion(p[1])) return false;
            ++next;
            ++p;
        }
    }
    return true;
}

bool fitsIndex(int64_t index)
{
    return index >= INT32_MIN && index <= INT32_MAX;
}

} // namespace

CProductionCSV::CProductionCSV() : nLineIndex(0), strPTPData(), fpCSV(nullptr), nFileSize(0), strFilePath("/mnt/mmc/")
{}

CProductionCSV::~CProductionCSV()
{
    strPTPData.clear();
    if (fpCSV != nullptr) std::fclose(fpCSV);
}

bool CProductionCSV::SetFilePath(std::string directory)
{
    strFilePath = directory;
    return true;
}

int CProductionCSV::Create(std::string name, std::string header)
{
    if (hostLinkMode()) {
        strPTPData = name + "\r\n" + kHeaderStart + "," + header + "\r\n";
        return PM_CSV_OK;
    }

    if (fpCSV != nullptr) std::fclose(fpCSV);
    const std::string path = KernelPath((strFilePath + name).c_str());
    fpCSV = std::fopen(path.c_str(), "r+b");
    if (fpCSV == nullptr) fpCSV = std::fopen(path.c_str(), "w+b");
    if (fpCSV == nullptr) {
        PM_TRACE(" Error Load CSV File From Path [%s]\n", name.c_str());
        return PM_CSV_FILE_ERROR;
    }
    // Unbuffered: a line reaches the card whole or fails at once, nothing waits in a buffer.
    std::setvbuf(fpCSV, nullptr, _IONBF, 0);

    long size = 0;
    if (std::fseek(fpCSV, 0, SEEK_END) == 0) size = std::ftell(fpCSV);
    if (size < 0) {
        PM_TRACE(" Error Load CSV File From Path [%s]\n", name.c_str());
        std::fclose(fpCSV);
        fpCSV = nullptr;
        return PM_CSV_FILE_ERROR;
    }
    nFileSize = static_cast<int32_t>(size);

    if (nFileSize == 0 && write(header, true) != PM_CSV_OK) {
        std::fclose(fpCSV);
        fpCSV = nullptr;
        nFileSize = 0;
        return PM_CSV_FILE_ERROR;
    }
    const int64_t next = nextLineIndex();
    if (!fitsIndex(next)) {
        PM_ERROR_LOG("CSV %s: the index after its last line (%" PRId64 ") does not fit; start a new table\n",
                     name.c_str(), next);
        std::fclose(fpCSV);
        fpCSV = nullptr;
        return PM_CSV_FILE_ERROR;
    }
    nLineIndex = next;
    return PM_CSV_OK;
}

int CProductionCSV::Write(const char* format, ...)
{
    if (format == nullptr) return PM_CSV_OK;

    int position = -1;
    PM_CHECK(lastStringPosition(format, position), PM_CSV_LENGTH_ERROR);
    // The walk above may take a number for a string where the format has widths or
    // modifiers; the argument is looked at only when it really is a string.
    std::vector<const char*> strings;
    va_list walk;
    va_start(walk, format);
    listArguments(format, walk, strings);
    va_end(walk);
    const char* lastString = position >= 0 && static_cast<size_t>(position) < strings.size()
                                 ? strings[static_cast<size_t>(position)]
                                 : nullptr;

    const size_t estimate = std::strlen(format) + (lastString != nullptr ? std::strlen(lastString) : 0);
    if (estimate == 0 || estimate > static_cast<size_t>(kLineMax)) return PM_CSV_LENGTH_ERROR;

    char text[kLineMax + 1] = {};
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    PM_CHECK(length >= 0 && length <= kLineMax, PM_CSV_LENGTH_ERROR);

    return write(text, false);
}

int CProductionCSV::write(std::string text, bool header)
{
    std::string line = "," + text + "\r\n";
    if (header) {
        line = kHeaderStart + line;
    } else {
        if (!fitsIndex(nLineIndex)) {
            PM_ERROR_LOG("CSV table full: no index left for another line\n");
            return PM_CSV_FILE_ERROR;
        }
        const int64_t index = nLineIndex++;
        int32_t serial = 0;
        PM_CHECK(CAdjustDataManager::GetInstance()->GetData(kAdjustCisSn, &serial, sizeof serial), PM_CSV_FILE_ERROR);
        line = std::to_string(index) + "," + std::to_string(serial) + line;
    }

    if (hostLinkMode()) {
        if (!strPTPData.empty()) strPTPData += line;
        return PM_CSV_OK;
    }

    if (fpCSV == nullptr) {
        PM_TRACE("Not Ready to Write write\n");
        return PM_CSV_FILE_ERROR;
    }
    if (std::fseek(fpCSV, 0, SEEK_END) != 0) {
        // The line is lost but answers 0 and keeps its index; only what reached the file is counted.
        PM_ERROR_LOG("CSV file cannot be positioned: a line of %zu bytes is not written\n", line.size());
        return PM_CSV_OK;
    }
    if (std::fwrite(line.data(), line.size(), 1, fpCSV) != 1) {
        // Cut off what part of the line reached the card: the table never ends in half a line.
        std::clearerr(fpCSV);
        if (ftruncate(fileno(fpCSV), nFileSize) != 0) PM_TRACE("CSV line could not be cut off\n");
        return PM_CSV_FILE_ERROR;
    }
    nFileSize += static_cast<int32_t>(line.size());
    return PM_CSV_OK;
}

bool CProductionCSV::readTail(std::string& tail)
{
    const size_t size = static_cast<size_t>(nFileSize);
    for (size_t want = kTailBlock;; want *= 2) {
        const size_t from = size > want ? size - want : 0;
        tail.assign(size - from, '\0');
        if (std::fseek(fpCSV, static_cast<long>(from), SEEK_SET) != 0) {
            PM_TRACE("File control error[getlinelindex->Seek]: ");
            return false;
        }
        if (std::fread(&tail[0], 1, tail.size(), fpCSV) != tail.size()) {
            PM_TRACE("File control error[getlinelindex->Read]: ");
            return false;
        }
        // Done once the break before the last line is in, or the file is read whole.
        if (from == 0 || (tail.size() > 2 && tail.find_last_of('\n', tail.size() - 2) != std::string::npos))
            return true;
    }
}

int32_t CProductionCSV::getLineIndex()
{
    const int64_t next = nextLineIndex();
    if (!fitsIndex(next)) {
        PM_ERROR_LOG("CSV: the index after the last line (%" PRId64 ") does not fit\n", next);
        return -1;
    }
    return static_cast<int32_t>(next);
}

int64_t CProductionCSV::nextLineIndex()
{
    if (nFileSize == 0 || fpCSV == nullptr) return 0;

    std::string content;
    PM_CHECK(readTail(content), 0);
    PM_CHECK(nFileSize > 2, 0);

    // The last line starts after the last '\n' before the file's final byte.
    const size_t lastBreak = content.find_last_of('\n', content.size() - 2);
    const size_t start = lastBreak == std::string::npos ? 0 : lastBreak + 1;
    const size_t comma = content.find(',', start);
    if (comma == std::string::npos) return 1;

    const std::string field = content.substr(start, comma - start);
    if (field.empty() || field.size() > kIndexFieldMax) {
        PM_TRACE("[PM] Too many Index was created");
        PM_ASSERT_FAILED();
        return 0;
    }
    if (field == "Index") return 0;
    // Read as atoi would, but wide enough for any 11 characters: nothing wraps.
    const int64_t next = std::strtoll(field.c_str(), nullptr, 10) + 1;
    PM_TRACE("Get Last Line Index [%" PRId64 "]\n", next);
    return next;
}

void CProductionCSV::Close()
{
    if (fpCSV != nullptr) {
        std::fclose(fpCSV);
        fpCSV = nullptr;
    }
    if (hostLinkMode()) {
        CPTPAdjInterface::GetInstance()->SetData(reinterpret_cast<unsigned char*>(const_cast<char*>(strPTPData.data())),
                                                 static_cast<int>(strPTPData.size()));
    }
}

std::string CProductionCSV::GetCSVData4PTPTrans()
{
    return strPTPData;
}
