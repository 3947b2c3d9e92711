// adjtool: the production engineer's view of a camera's calibration (adjust) data.
//
// It works on the adjust group of a simulated device (the NAND store below --root DIR
// or $PMODE_ROOT) or on a dump file (--image FILE), through the library itself: list,
// get, set and reset go through CAdjustDataManager, as a worker would; dump and load
// are the manager's own; verify and diff read the raw group image so that they see the
// store exactly as it is, without the start-up re-arrangement.
//
//   adjtool [--root DIR | --image FILE] list
//   adjtool [--root DIR | --image FILE] get ITEM [--hex] [--out FILE]
//   adjtool [--root DIR | --image FILE] set ITEM VALUE
//   adjtool [--root DIR | --image FILE] reset ITEM|line
//   adjtool [--root DIR] dump FILE | load FILE
//   adjtool [--root DIR | --image FILE] verify
//   adjtool [--root DIR] diff A [B]
//   adjtool --help | --version
//  --root DIR    the simulated device (default: $PMODE_ROOT; never the host's "/")
//  --image FILE  work on a dump file instead of the device's NAND
//  ITEM          an item's id (0..132) or name, or a line value's id (134..143) or name
//  VALUE         a number (12, 0x7f, -3), text:STR, hex:0a0b.., file:PATH (text, hex and
//                file are padded with zero bytes to the item's size); a value that
//                starts with "-" may follow "--"
//  --hex         get: also a hex dump of the bytes;  --out FILE  get: the bytes into FILE
//  A, B          dump files, or @device (B defaults to @device); diff of two files
//                needs no device root
//
// Exit status: 0 done (verify found nothing, diff found no difference); 1 the check
// found problems, the images differ, or the work was not done: a library call
// answered failure or the library reported a failed check ("Assertion Failed!")
// while the command ran; 2 a wrong argument (named in the message), bad input
// (unknown item, value that does not fit, unreadable file) or no usable device root.
//
// A value is printed after set or reset only once it is saved (on the device's
// NAND, or written back into the --image file).
//
// Notes:
//  - list, get, set and reset start the manager, which brings a store of another
//    software version in line with the catalogue and saves it, as the camera does.
//  - with --image the work is done on a scratch device root that is removed at the
//    end; set and reset write the changed group back into the image file.
//  - file paths on the command line are host paths, also when a device root is set.
//  - the device root is --root DIR or $PMODE_ROOT; one that resolves to the host's
//    "/" is refused, so the tool never writes the host's own /mnt/ubi1.

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "AdjustDataList.h"
#include "AdjustGroupLayout.h"
#include "CAdjustData.h"
#include "CAdjustDataManager.h"
#include "DeviceRoot.h"
#include "LineDataList.h"
#include "PMReport.h"
#include "ToolCommandLine.h"
#include "pref.h"

namespace fs = std::filesystem;

namespace {

constexpr int EXIT_OK = 0;
constexpr int EXIT_FOUND = 1;
constexpr int EXIT_USAGE = 2;

using namespace pm::adjust;
constexpr unsigned long RECORD_SIZE = ADJ_HEADER_RECORD_SIZE;
constexpr const char* DEVICE_OPERAND = "@device";

// Items whose GetData answer comes from the shipment-country table.
constexpr int COUNTRY_DERIVED_IDS[] = {70, 71, 72, 73, 74, 75, 76, 95, 96, 97, 98, 101};

const char* const LINE_NAMES[LINE_DATA_COUNT] = {
    "LINE_CONTROL_FINISHED_STEP", "LINE_CONTROL_NEXT_STEP", "", "", "", "LINE_PTP_AUTO_ENABLE", "", "", "", "",
};

using Bytes = std::vector<unsigned char>;

struct UsageError {
    std::string message;
};

// The work of the command was not done: a library call answered failure, or the
// library reported a failed check while it ran.
struct NotDone {
    std::string message;
};

unsigned long g_checksBefore = 0; // failed checks reported before the command began

// The library reports a failed check on standard output and answers on, sometimes
// with success: a command's work counts as done only when none was reported.
void requireNoFailedCheck(const std::string& what)
{
    const unsigned long reported = pm::AssertionCount() - g_checksBefore;
    if (reported == 0) return;
    throw NotDone{"the library reported " + std::to_string(reported) + " failed check" + (reported == 1 ? "" : "s")
                  + " (\"Assertion Failed!\" above): " + what};
}

bool isCountryDerived(int id)
{
    for (int derived : COUNTRY_DERIVED_IDS)
        if (derived == id) return true;
    return false;
}

bool isLineId(int id)
{
    return id >= LINE_DATA_ID_FIRST && id < LINE_DATA_ID_FIRST + LINE_DATA_COUNT;
}

// Paths given on the command line are host paths; the platform maps absolute paths
// below the device root and leaves relative ones alone.
std::string platformPath(const std::string& hostPath)
{
    if (hostPath.empty() || hostPath[0] != '/') return hostPath;
    std::error_code error;
    fs::path relative = fs::relative(fs::path(hostPath), fs::current_path(), error);
    if (error || relative.empty()) return hostPath;
    return relative.string();
}

std::optional<Bytes> readHostFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// ---- item names and values --------------------------------------------------------

std::string lowerCase(std::string text)
{
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

bool parseInteger(const std::string& text, long long& value)
{
    if (text.empty()) return false;
    errno = 0;
    char* end = nullptr;
    value = std::strtoll(text.c_str(), &end, 0);
    return errno == 0 && end != nullptr && *end == '\0';
}

// An item or line id by number or by name (exact, or case-insensitive).
int parseItem(const std::string& text)
{
    long long number = 0;
    if (parseInteger(text, number)) {
        if ((number >= 0 && number < ADJUST_DATA_ID_MAX) || isLineId(static_cast<int>(number)))
            return static_cast<int>(number);
        throw UsageError{"no item or line value has the id " + text + " (items 0..132, line values 134..143)"};
    }
    const std::string wanted = lowerCase(text);
    for (int id = 0; id < ADJUST_DATA_ID_MAX; ++id)
        if (lowerCase(ADJUST_DATA_LIST[id].name) == wanted) return id;
    for (int i = 0; i < LINE_DATA_COUNT; ++i)
        if (LINE_NAMES[i][0] != '\0' && lowerCase(LINE_NAMES[i]) == wanted) return LINE_DATA_ID_FIRST + i;
    throw UsageError{"unknown item '" + text + "'"};
}

std::string itemName(int id)
{
    if (isLineId(id)) {
        const char* name = LINE_NAMES[id - LINE_DATA_ID_FIRST];
        return name[0] != '\0' ? name : "LINE_VALUE_" + std::to_string(id);
    }
    return ADJUST_DATA_LIST[id].name;
}

bool looksLikeText(const Bytes& bytes)
{
    size_t length = 0;
    while (length < bytes.size() && bytes[length] != 0) {
        if (!std::isprint(bytes[length])) return false;
        ++length;
    }
    if (length == 0) return false;
    for (size_t i = length; i < bytes.size(); ++i)
        if (bytes[i] != 0) return false;
    return true;
}

std::string hexBytes(const Bytes& bytes, size_t count)
{
    std::string text;
    char digits[4];
    for (size_t i = 0; i < count && i < bytes.size(); ++i) {
        std::snprintf(digits, sizeof(digits), i == 0 ? "%02x" : " %02x", bytes[i]);
        text += digits;
    }
    return text;
}

uint32_t littleEndian(const Bytes& bytes)
{
    uint32_t value = 0;
    for (size_t i = bytes.size(); i-- > 0;) value = (value << 8) | bytes[i];
    return value;
}

// A number for the small items, text where the bytes are text, hex otherwise.
std::string formatValue(int id, const Bytes& bytes)
{
    if (bytes.empty()) return "(empty)";
    if (id == ADJUST_5GHZ_WIFI_CONTRY_CODE || (bytes.size() > 4 && looksLikeText(bytes))) {
        std::string text(bytes.begin(), bytes.end());
        return "\"" + std::string(text.c_str()) + "\"";
    }
    if (bytes.size() == 1 || bytes.size() == 2 || bytes.size() == 4) {
        char text[48];
        std::snprintf(text, sizeof(text), "%" PRIu32 " (0x%0*" PRIx32 ")", littleEndian(bytes),
                      static_cast<int>(bytes.size() * 2), littleEndian(bytes));
        return text;
    }
    size_t nonZero = 0;
    for (unsigned char byte : bytes) nonZero += byte != 0;
    if (nonZero == 0) return "all zero (" + std::to_string(bytes.size()) + " bytes)";
    constexpr size_t shown = 16;
    std::string text = hexBytes(bytes, shown);
    if (bytes.size() > shown)
        text += " ... (" + std::to_string(bytes.size()) + " bytes, " + std::to_string(nonZero) + " non-zero)";
    return text;
}

void printHexDump(const Bytes& bytes)
{
    for (size_t row = 0; row < bytes.size(); row += 16) {
        Bytes line(bytes.begin() + static_cast<long>(row),
                   bytes.begin() + static_cast<long>(std::min(bytes.size(), row + 16)));
        std::printf("%08zx  %s\n", row, hexBytes(line, line.size()).c_str());
    }
}

Bytes parseHexDigits(const std::string& text)
{
    Bytes bytes;
    std::string digits;
    for (char c : text) {
        if (c == ' ' || c == ':' || c == '-' || c == '_') continue;
        if (!std::isxdigit(static_cast<unsigned char>(c))) throw UsageError{"'" + text + "' is not hex"};
        digits += c;
    }
    if (digits.empty() || digits.size() % 2 != 0) throw UsageError{"hex value needs an even number of digits"};
    for (size_t i = 0; i < digits.size(); i += 2)
        bytes.push_back(static_cast<unsigned char>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    return bytes;
}

// The bytes to store for a value given on the command line, size bytes long.
Bytes parseValue(int id, const std::string& text, unsigned long size)
{
    Bytes bytes;
    const std::string name = itemName(id);
    if (text.rfind("text:", 0) == 0) {
        const std::string value = text.substr(5);
        bytes.assign(value.begin(), value.end());
    } else if (text.rfind("hex:", 0) == 0) {
        bytes = parseHexDigits(text.substr(4));
    } else if (text.rfind("file:", 0) == 0) {
        std::optional<Bytes> content = readHostFile(text.substr(5));
        if (!content) throw UsageError{"cannot read " + text.substr(5) + ": " + std::strerror(errno)};
        bytes = *content;
    } else {
        long long number = 0;
        if (!parseInteger(text, number)) throw UsageError{"'" + text + "' is not a number, text:, hex: or file: value"};
        if (size != 1 && size != 2 && size != 4)
            throw UsageError{name + " holds " + std::to_string(size) + " bytes: give text:, hex: or file:"};
        const int bits = static_cast<int>(size * 8);
        const long long lowest = -(1LL << (bits - 1));
        const long long highest = (1LL << bits) - 1;
        if (number < lowest || number > highest)
            throw UsageError{"value " + text + " does not fit " + name + " (" + std::to_string(size) + " bytes)"};
        for (unsigned long i = 0; i < size; ++i)
            bytes.push_back(static_cast<unsigned char>(static_cast<unsigned long long>(number) >> (8 * i)));
        return bytes;
    }
    if (bytes.size() > size)
        throw UsageError{"value of " + std::to_string(bytes.size()) + " bytes does not fit " + name + " ("
                         + std::to_string(size) + " bytes)"};
    bytes.resize(size, 0);
    return bytes;
}

// ---- the raw group image (verify, diff) ---------------------------------------------

struct RawRecord {
    std::string name;
    uint32_t offset = 0;
    uint32_t size = 0;
    bool nameTerminated = true;
};

struct RawImage {
    std::string label;
    Bytes group;
    long headerLength = 0;
    long bodyLength = 0;
    std::vector<RawRecord> records;

    uint32_t word(unsigned long offset) const
    {
        uint32_t value = 0;
        for (int i = 3; i >= 0; --i) value = (value << 8) | group[offset + i];
        return value;
    }
    bool bodyHolds(const RawRecord& record) const
    {
        return bodyLength >= 0
               && static_cast<uint64_t>(record.offset) + record.size <= static_cast<uint64_t>(bodyLength);
    }
    Bytes itemBytes(const RawRecord& record) const
    {
        if (!bodyHolds(record)) return Bytes();
        const auto start = group.begin() + static_cast<long>(BODY_DATA_OFFSET + record.offset);
        return Bytes(start, start + record.size);
    }
};

void parseRecords(RawImage& image)
{
    image.headerLength = static_cast<int32_t>(image.word(HEADER_SIZE_OFFSET));
    image.bodyLength = static_cast<int32_t>(image.word(BODY_SIZE_OFFSET));
    const long usable = std::max(0L, std::min(image.headerLength, HEADER_CAPACITY));
    for (long position = 0; position + static_cast<long>(RECORD_SIZE) <= usable; position += RECORD_SIZE) {
        const unsigned char* record = image.group.data() + HEADER_DATA_OFFSET + position;
        RawRecord parsed;
        const void* end = std::memchr(record, 0, 64);
        parsed.nameTerminated = end != nullptr;
        parsed.name.assign(reinterpret_cast<const char*>(record),
                           end != nullptr ? static_cast<const unsigned char*>(end) - record : 64);
        parsed.offset = image.word(HEADER_DATA_OFFSET + position + 128);
        parsed.size = image.word(HEADER_DATA_OFFSET + position + 132);
        image.records.push_back(parsed);
    }
}

// Loads an image into the preference store's group 3 and copies it out. Nothing is
// saved: the device's NAND is read, never written.
RawImage loadRawImage(const std::string& operand)
{
    RawImage image;
    image.label = operand;
    if (operand == DEVICE_OPERAND) {
        if (pref_load(PREF_ID_ADJUST) < 0) throw UsageError{"the device holds no adjust group on NAND"};
    } else {
        if (!fs::exists(operand)) throw UsageError{"cannot read " + operand + ": no such file"};
        if (pref_load_from_file(PREF_ID_ADJUST, platformPath(operand).c_str()) < 0)
            throw UsageError{operand + " is not an adjust dump (truncated, corrupt or of another group)"};
    }
    unsigned long size = 0;
    const unsigned char* address = pref_get_addr(PREF_ID_ADJUST, &size);
    if (address == nullptr || size <= MARKER2_OFFSET) throw UsageError{"the preference store has no adjust group"};
    image.group.assign(address, address + size);
    parseRecords(image);
    return image;
}

int verify(const RawImage& image)
{
    std::vector<std::string> problems;
    auto report = [&problems](const std::string& text) { problems.push_back(text); };
    char text[256];

    for (const auto& [offset, marker] : {std::pair{MARKER1_OFFSET, MARKER1}, std::pair{MARKER2_OFFSET, MARKER2}}) {
        if (image.group[offset] == marker) continue;
        std::snprintf(text, sizeof(text), "marker byte at %lu is 0x%02x, expected 0x%02x", offset, image.group[offset],
                      marker);
        report(text);
    }
    if (image.headerLength < 0 || image.headerLength > HEADER_CAPACITY)
        report("header area length " + std::to_string(image.headerLength) + " is outside 0.."
               + std::to_string(HEADER_CAPACITY));
    else if (image.headerLength % RECORD_SIZE != 0)
        report("header area length " + std::to_string(image.headerLength) + " is not a whole number of "
               + std::to_string(RECORD_SIZE) + "-byte records");
    if (image.bodyLength < 0 || image.bodyLength > BODY_CAPACITY)
        report("body area length " + std::to_string(image.bodyLength) + " is outside 0.."
               + std::to_string(BODY_CAPACITY));

    std::map<std::string, size_t> seen;
    uint64_t expectedOffset = 0;
    for (size_t i = 0; i < image.records.size(); ++i) {
        const RawRecord& record = image.records[i];
        const std::string where = "record " + std::to_string(i) + " (" + record.name + ")";
        if (!record.nameTerminated) report(where + ": name is not NUL-terminated");
        int id = -1;
        for (int row = 0; row < ADJUST_DATA_ID_MAX; ++row)
            if (record.name == ADJUST_DATA_LIST[row].name) id = row;
        if (id < 0) {
            report(where + ": not in the catalogue");
        } else if (record.size != ADJUST_DATA_LIST[id].size) {
            report(where + ": size " + std::to_string(record.size) + ", catalogue size "
                   + std::to_string(ADJUST_DATA_LIST[id].size));
        }
        auto previous = seen.find(record.name);
        if (previous != seen.end()) report(where + ": same name as record " + std::to_string(previous->second));
        seen[record.name] = i;
        if (record.offset != expectedOffset)
            report(where + ": offset " + std::to_string(record.offset) + ", expected " + std::to_string(expectedOffset)
                   + (record.offset > expectedOffset ? " (gap)" : " (overlap)"));
        if (!image.bodyHolds(record))
            report(where + ": bytes " + std::to_string(record.offset) + ".."
                   + std::to_string(static_cast<uint64_t>(record.offset) + record.size) + " pass the body area's end "
                   + std::to_string(image.bodyLength));
        expectedOffset = static_cast<uint64_t>(record.offset) + record.size;
    }
    for (int row = 0; row < ADJUST_DATA_ID_MAX; ++row)
        if (seen.find(ADJUST_DATA_LIST[row].name) == seen.end())
            report(std::string("catalogue item ") + std::to_string(row) + " (" + ADJUST_DATA_LIST[row].name
                   + ") has no record");
    if (image.bodyLength >= 0 && expectedOffset != static_cast<uint64_t>(image.bodyLength))
        report("the records end at " + std::to_string(expectedOffset) + ", the body area holds "
               + std::to_string(image.bodyLength) + " bytes");

    for (const std::string& problem : problems) std::printf("verify: %s\n", problem.c_str());
    if (!problems.empty()) {
        std::printf("verify: FAILED, %zu problem(s) in %s\n", problems.size(), image.label.c_str());
        return EXIT_FOUND;
    }
    std::printf("verify: OK, %zu items, header %ld bytes, body %ld bytes\n", image.records.size(), image.headerLength,
                image.bodyLength);
    return EXIT_OK;
}

std::string describeDifference(const Bytes& a, const Bytes& b)
{
    size_t differing = 0;
    size_t first = a.size();
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i] == b[i]) continue;
        if (differing++ == 0) first = i;
    }
    return "first difference at byte " + std::to_string(first) + ", " + std::to_string(differing) + " of "
           + std::to_string(a.size()) + " bytes differ";
}

int diff(const RawImage& a, const RawImage& b)
{
    std::map<std::string, const RawRecord*> inA, inB;
    for (const RawRecord& record : a.records) inA[record.name] = &record; // the last record of a name counts
    for (const RawRecord& record : b.records) inB[record.name] = &record;

    std::vector<std::string> names;
    names.reserve(ADJUST_DATA_ID_MAX);
    for (int row = 0; row < ADJUST_DATA_ID_MAX; ++row) names.push_back(ADJUST_DATA_LIST[row].name);
    for (const auto* side : {&inA, &inB})
        for (const auto& entry : *side) {
            bool known = false;
            for (const std::string& name : names) known = known || name == entry.first;
            if (!known) names.push_back(entry.first);
        }

    size_t differences = 0;
    size_t compared = 0;
    for (size_t i = 0; i < names.size(); ++i) {
        const std::string& name = names[i];
        const int id = i < static_cast<size_t>(ADJUST_DATA_ID_MAX) ? static_cast<int>(i) : -1;
        const std::string label = (id >= 0 ? std::to_string(id) : std::string("-")) + " " + name;
        auto ra = inA.find(name);
        auto rb = inB.find(name);
        if (ra == inA.end() && rb == inB.end()) continue;
        ++compared;
        if (ra == inA.end() || rb == inB.end()) {
            std::printf("%s: only in %s\n", label.c_str(), (ra == inA.end() ? b : a).label.c_str());
            ++differences;
            continue;
        }
        const Bytes va = a.itemBytes(*ra->second);
        const Bytes vb = b.itemBytes(*rb->second);
        if (ra->second->size != rb->second->size) {
            std::printf("%s: size %u in %s, %u in %s\n", label.c_str(), ra->second->size, a.label.c_str(),
                        rb->second->size, b.label.c_str());
            ++differences;
        } else if (va != vb) {
            std::printf("%s: %s in %s, %s in %s", label.c_str(), formatValue(id, va).c_str(), a.label.c_str(),
                        formatValue(id, vb).c_str(), b.label.c_str());
            if (va.size() > 4 && va.size() == vb.size()) std::printf(" (%s)", describeDifference(va, vb).c_str());
            std::printf("\n");
            ++differences;
        }
    }
    if (differences != 0) {
        std::printf("diff: %zu of %zu items differ\n", differences, compared);
        return EXIT_FOUND;
    }
    std::printf("diff: no difference in %zu items\n", compared);
    return EXIT_OK;
}

// ---- commands through the manager --------------------------------------------------

CAdjustDataManager* startManager()
{
    CAdjustDataManager* manager = CAdjustDataManager::GetInstance();
    manager->Initialize();
    requireNoFailedCheck(
        "the adjust data could not be initialised and saved ('adjtool verify' shows the store as it is)");
    return manager;
}

// The stored bytes of an item (not the country table's answer). The tool is the
// manager's only user in this process, so the item is read without the lock.
std::optional<Bytes> storedBytes(CAdjustDataManager* manager, int id)
{
    CAdjustData* item = manager->find(id);
    if (item == nullptr) return std::nullopt;
    Bytes bytes(static_cast<size_t>(item->Infomation(CAdjustData::ADJ_INFO_OLD_SIZE)));
    if (!bytes.empty() && !item->Get(bytes.data(), bytes.size())) return std::nullopt;
    return bytes;
}

std::optional<Bytes> answeredBytes(CAdjustDataManager* manager, int id)
{
    if (isLineId(id)) {
        Bytes bytes(4);
        if (!manager->GetData(id, bytes.data(), bytes.size())) return std::nullopt;
        return bytes;
    }
    CAdjustData* item = manager->find(id);
    if (item == nullptr) return std::nullopt;
    Bytes bytes(static_cast<size_t>(item->Infomation(CAdjustData::ADJ_INFO_OLD_SIZE)));
    if (!manager->GetData(id, bytes.data(), bytes.size())) return std::nullopt;
    if (id == ADJUST_5GHZ_WIFI_CONTRY_CODE) bytes.resize(2);
    return bytes;
}

std::string formatLine(const Bytes& bytes)
{
    int32_t value = 0;
    std::memcpy(&value, bytes.data(), std::min<size_t>(bytes.size(), sizeof(value)));
    return std::to_string(value);
}

std::string describeItem(CAdjustDataManager* manager, int id)
{
    char text[160];
    if (isLineId(id)) {
        std::optional<Bytes> bytes = answeredBytes(manager, id);
        std::snprintf(text, sizeof(text), "%3d  %-44s %9s %8s  ", id, itemName(id).c_str(), "line", "4");
        return text + (bytes ? formatLine(*bytes) : std::string("(unreadable)"));
    }
    CAdjustData* item = manager->find(id);
    if (item == nullptr) {
        std::snprintf(text, sizeof(text), "%3d  %-44s (missing from the store)", id, itemName(id).c_str());
        return text;
    }
    std::snprintf(text, sizeof(text), "%3d  %-44s %9lu %8lu  ", id, itemName(id).c_str(),
                  static_cast<unsigned long>(item->Infomation(CAdjustData::ADJ_INFO_OLD_OFFSET)),
                  static_cast<unsigned long>(item->Infomation(CAdjustData::ADJ_INFO_OLD_SIZE)));
    std::optional<Bytes> answer = answeredBytes(manager, id);
    std::string line = text + (answer ? formatValue(id, *answer) : std::string("(unreadable)"));
    if (isCountryDerived(id)) {
        std::optional<Bytes> stored = storedBytes(manager, id);
        line += "  [country table; stored " + (stored ? formatValue(id, *stored) : std::string("unreadable")) + "]";
    }
    return line;
}

int commandList(CAdjustDataManager* manager)
{
    std::printf(" ID  %-44s %9s %8s  %s\n", "NAME", "OFFSET", "SIZE", "VALUE");
    int problems = 0;
    for (int id = 0; id < ADJUST_DATA_ID_MAX; ++id) {
        if (manager->find(id) == nullptr || !answeredBytes(manager, id)) ++problems;
        std::printf("%s\n", describeItem(manager, id).c_str());
    }
    for (int id = LINE_DATA_ID_FIRST; id < LINE_DATA_ID_FIRST + LINE_DATA_COUNT; ++id) {
        if (!answeredBytes(manager, id)) ++problems;
        std::printf("%s\n", describeItem(manager, id).c_str());
    }
    return problems == 0 ? EXIT_OK : EXIT_FOUND;
}

int commandGet(CAdjustDataManager* manager, int id, bool hex, const std::string& outPath)
{
    std::optional<Bytes> bytes = answeredBytes(manager, id);
    if (!bytes) {
        std::fprintf(stderr, "adjtool: %s cannot be read\n", itemName(id).c_str());
        return EXIT_FOUND;
    }
    std::printf("%s\n", describeItem(manager, id).c_str());
    if (hex) printHexDump(*bytes);
    if (!outPath.empty()) {
        std::ofstream out(outPath, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(bytes->data()), static_cast<std::streamsize>(bytes->size()));
        if (!out) throw UsageError{"cannot write " + outPath};
    }
    return EXIT_OK;
}

// ResetData writes the item's bytes in the group image only; a synced write of
// item 0 saves the group.
bool saveGroup(CAdjustDataManager* manager)
{
    unsigned char checksum = 0;
    return manager->GetData(ADJUST_CHECKSUM1, &checksum, 1) && manager->SetData(ADJUST_CHECKSUM1, &checksum, 1, true);
}

// Writes and saves the value; prints nothing (the caller shows it once it is kept).
void commandSet(CAdjustDataManager* manager, int id, const std::string& valueText)
{
    const std::string unchanged = "; its value on the device is unchanged";
    const std::string refused = itemName(id) + " was not saved: the library refused the value" + unchanged;
    if (isLineId(id)) {
        long long number = 0;
        if (!parseInteger(valueText, number) || number < INT32_MIN || number > INT32_MAX)
            throw UsageError{"line value " + valueText + " is not a 32-bit number"};
        int32_t value = static_cast<int32_t>(number);
        if (!manager->SetData(id, &value, sizeof(value), true)) throw NotDone{refused};
    } else {
        CAdjustData* item = manager->find(id);
        if (item == nullptr) throw NotDone{itemName(id) + " is missing from the store"};
        Bytes bytes =
            parseValue(id, valueText, static_cast<unsigned long>(item->Infomation(CAdjustData::ADJ_INFO_NEW_SIZE)));
        if (!manager->SetData(id, bytes.data(), bytes.size(), true)) throw NotDone{refused};
    }
    requireNoFailedCheck(itemName(id) + " was not saved" + unchanged);
}

// Resets and saves; prints nothing. The item reset, or -1 for all line values.
int commandReset(CAdjustDataManager* manager, const std::string& itemText)
{
    if (lowerCase(itemText) == "line") {
        if (!manager->ResetData(LINE_DATA_ID_FIRST))
            throw NotDone{"the line values were not reset: the library refused"};
        requireNoFailedCheck("the line values were not reset");
        return -1;
    }
    const int id = parseItem(itemText);
    if (isLineId(id)) throw UsageError{"line values are reset together: use 'reset line'"};
    // ResetData of an item the store lacks resets the whole adjust group: refuse that here.
    if (manager->find(id) == nullptr) throw NotDone{itemName(id) + " is missing from the store"};
    if (!manager->ResetData(id) || !saveGroup(manager))
        throw NotDone{itemName(id) + " was not reset on the device: the library refused the reset or the save"};
    requireNoFailedCheck(itemName(id) + " was not reset on the device");
    return id;
}

// What set and reset show once the value is kept.
void printKept(CAdjustDataManager* manager, int id)
{
    if (id < 0) {
        std::printf("line values reset\n");
        return;
    }
    std::printf("%s\n", describeItem(manager, id).c_str());
    if (isCountryDerived(id))
        std::printf("note: %s is read from the country table of item 69; the stored value is shown in brackets\n",
                    itemName(id).c_str());
}

// ---- the command line ---------------------------------------------------------------

struct Options {
    std::string root;
    std::string image;
    std::vector<std::string> words;
};

constexpr const char* kExitStatuses =
    "0 done (verify found nothing, diff found no difference); 1 problems or differences found, or the work was not "
    "done "
    "(the library refused it or reported a failed check); 2 a wrong argument, bad input or no device root";

/// The command line; the tool's exit status when it ends here (help, version, a wrong argument), else -1.
int parseOptions(int argc, char** argv, Options& options)
{
    CLI::App app("The calibration-data tool: lists, reads and writes the adjust items of a simulated device or of a "
                 "dump file, dumps and loads images, verifies and compares them.",
                 "adjtool");
    toolcli::Describe(app, kExitStatuses);
    CLI::Option* root = app.add_option("--root", options.root,
                                       "the simulated device (default: $PMODE_ROOT; never the "
                                       "host's \"/\")")
                            ->type_name("DIR");
    app.add_option("--image", options.image, "work on a dump file instead of the device's NAND")
        ->type_name("FILE")
        ->excludes(root);
    app.require_subcommand(1);
    std::string first, second; // the operands
    bool haveFirst = false, haveSecond = false;
    const auto givenFirst = [&haveFirst](const std::string&) { haveFirst = true; };
    const auto givenSecond = [&haveSecond](const std::string&) { haveSecond = true; };
    bool hex = false;
    std::string out;
    const std::string item = "an item's id (0..132) or name, or a line value's id (134..143) or name";
    app.add_subcommand("list", "every item: id, name, offset, size, value; then the line values");
    CLI::App* get = app.add_subcommand("get", "print one item or line value");
    get->add_option("ITEM", first, item)->required()->each(givenFirst);
    get->add_flag("--hex", hex, "also a hex dump of the bytes");
    get->add_option("--out", out, "write the bytes into FILE")->type_name("FILE");
    CLI::App* set = app.add_subcommand("set", "write and save one item or line value");
    set->add_option("ITEM", first, item)->required()->each(givenFirst);
    set->add_option("VALUE", second,
                    "a number (12, 0x7f, -3), text:STR, hex:0a0b.., file:PATH (text, hex and file "
                    "are padded with zero bytes to the item's size)")
        ->required()
        ->each(givenSecond);
    app.add_subcommand("reset", "give an item its default value and save it; 'reset line' resets all line values")
        ->add_option("ITEM", first, item + ", or \"line\"")
        ->required()
        ->each(givenFirst);
    app.add_subcommand("dump", "save the device's adjust group to FILE (not with --image)")
        ->add_option("FILE", first, "the dump file")
        ->required()
        ->each(givenFirst);
    app.add_subcommand("load", "replace the device's adjust group by FILE (not with --image)")
        ->add_option("FILE", first, "the dump file")
        ->required()
        ->each(givenFirst);
    app.add_subcommand("verify", "check markers, header records against the catalogue and gap-free offsets");
    CLI::App* diff = app.add_subcommand("diff", "compare two images item by item (not with --image); two files need no "
                                                "device root");
    diff->add_option("A", first, "a dump file or @device")->required()->each(givenFirst);
    diff->add_option("B", second, "a dump file or @device (default: @device)")->each(givenSecond);
    if (const int status = toolcli::Parse(app, argc, argv); status >= 0) return status;
    options.words = {app.get_subcommands().front()->get_name()};
    if (haveFirst) options.words.push_back(first);
    if (haveSecond) options.words.push_back(second);
    if (hex) options.words.push_back("--hex");
    if (!out.empty()) options.words.insert(options.words.end(), {"--out", out});
    return -1;
}

// With --image the work is done on a scratch device root, removed at the end.
class ScratchRoot {
public:
    ScratchRoot()
    {
        char pattern[] = "/tmp/adjtool.XXXXXX";
        if (mkdtemp(pattern) == nullptr)
            throw UsageError{std::string("cannot make a scratch root: ") + std::strerror(errno)};
        m_dir = pattern;
    }
    ~ScratchRoot()
    {
        std::error_code ignored;
        fs::remove_all(m_dir, ignored);
    }
    const std::string& Dir() const { return m_dir; }

private:
    std::string m_dir;
};

int runDeviceCommand(const Options& options)
{
    const std::vector<std::string>& words = options.words;
    const std::string& command = words[0];
    const bool onImage = !options.image.empty();

    if (command == "dump" || command == "load") {
        if (onImage) throw UsageError{"'" + command + "' works on the device (--root), not on --image"};
        std::string path = platformPath(words[1]);
        CAdjustDataManager* manager = CAdjustDataManager::GetInstance();
        if (command == "dump") {
            startManager();
            if (!manager->DumpData2File(path.data())) throw NotDone{"dump to " + words[1] + " failed"};
            requireNoFailedCheck("the dump in " + words[1] + " may not hold the device's adjust data");
            std::printf("adjust data dumped to %s\n", words[1].c_str());
            return EXIT_OK;
        }
        if (!fs::exists(words[1])) throw UsageError{"cannot read " + words[1] + ": no such file"};
        if (!manager->LoadDataFromFile(path.data())) {
            // The preference store refuses a bad file before anything changes on NAND.
            if (pm::AssertionCount() == g_checksBefore)
                throw NotDone{words[1]
                              + " was refused (truncated, corrupt or not an adjust dump); the adjust data on "
                                "NAND are unchanged"};
            throw NotDone{"loading " + words[1] + " failed part way: check the device with 'adjtool verify'"};
        }
        requireNoFailedCheck("the adjust data loaded from " + words[1] + " were not saved on the device");
        std::printf("adjust data loaded from %s\n", words[1].c_str());
        return EXIT_OK;
    }

    if (onImage) {
        if (!fs::exists(options.image)) throw UsageError{"cannot read " + options.image + ": no such file"};
        if (pref_load_from_file(PREF_ID_ADJUST, platformPath(options.image).c_str()) < 0)
            throw UsageError{options.image + " is not an adjust dump (truncated, corrupt or of another group)"};
    }

    if (onImage && words.size() > 1 && (command == "get" || command == "set") && isLineId(parseItem(words[1])))
        throw UsageError{"line values are not part of an adjust dump: use --root"};
    if (onImage && command == "reset" && words.size() > 1 && lowerCase(words[1]) == "line")
        throw UsageError{"line values are not part of an adjust dump: use --root"};

    int status = EXIT_OK;
    CAdjustDataManager* manager = nullptr;
    std::optional<int> kept; // the item set or reset (-1: the line values)
    if (command == "list") {
        status = commandList(startManager());
    } else if (command == "get") {
        const int id = parseItem(words[1]);
        bool hex = false;
        std::string out;
        for (size_t i = 2; i < words.size(); ++i) {
            if (words[i] == "--hex") {
                hex = true;
            } else if (words[i] == "--out" && i + 1 < words.size()) {
                out = words[++i];
            } else {
                throw UsageError{"unknown argument '" + words[i] + "' for 'get'"};
            }
        }
        status = commandGet(startManager(), id, hex, out);
    } else if (command == "set") {
        const int id = parseItem(words[1]);
        manager = startManager();
        commandSet(manager, id, words[2]);
        kept = id;
    } else if (command == "reset") {
        manager = startManager();
        kept = commandReset(manager, words[1]);
    } else {
        throw UsageError{"unknown command '" + command + "'"};
    }

    if (kept) {
        if (onImage && pref_save_to_file(PREF_ID_ADJUST, platformPath(options.image).c_str()) < 0)
            throw NotDone{"cannot write the changed adjust data back to " + options.image + "; the file is unchanged"};
        printKept(manager, *kept);
    }
    return status;
}

int run(const Options& options)
{
    const std::string& command = options.words[0];
    const bool filesOnly = command == "diff" && options.words.size() == 3 && options.words[1] != DEVICE_OPERAND
                           && options.words[2] != DEVICE_OPERAND;
    // A diff of two files reads no device: it works on a scratch root, as --image does.
    std::optional<ScratchRoot> scratch;
    if (!options.image.empty() || filesOnly) {
        scratch.emplace();
        setenv("PMODE_ROOT", scratch->Dir().c_str(), 1);
    } else {
        std::string root, error;
        if (!devroot::Use(options.root, root, error)) throw UsageError{error + "; or give --image FILE"};
    }

    if (command == "verify") {
        return verify(loadRawImage(options.image.empty() ? DEVICE_OPERAND : options.image));
    }
    if (command == "diff") {
        if (!options.image.empty()) throw UsageError{"'diff' takes its images as arguments, not --image"};
        const std::string second = options.words.size() > 2 ? options.words[2] : DEVICE_OPERAND;
        const RawImage a = loadRawImage(options.words[1]);
        const RawImage b = loadRawImage(second);
        return diff(a, b);
    }
    return runDeviceCommand(options);
}

} // namespace

static int runTool(int argc, char** argv)
{
    g_checksBefore = pm::AssertionCount();
    Options options;
    if (const int status = parseOptions(argc, argv, options); status >= 0) return status;
    try {
        const int status = run(options);
        requireNoFailedCheck("the work may not be done");
        return status;
    }
    catch (const NotDone& failure) {
        std::fflush(stdout);
        std::fprintf(stderr, "adjtool: %s\n", failure.message.c_str());
        return EXIT_FOUND;
    }
    catch (const UsageError& error) {
        std::fprintf(stderr, "adjtool: %s\n", error.message.c_str());
        std::fprintf(stderr, "run 'adjtool --help' for the commands and options\n");
        return EXIT_USAGE;
    }
    catch (const std::exception& error) {
        std::fprintf(stderr, "adjtool: %s\n", error.what());
        return EXIT_USAGE;
    }
}

int main(int argc, char** argv)
{
    return toolcli::Guarded("adjtool", runTool, argc, argv);
}
