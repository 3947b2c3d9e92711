#pragma once
// Test helpers for the adjust group (preference group 3): stores built into and read from its
// image, and a fixture with the two areas mounted.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "AdjustDataList.h"
#include "AdjustGroupLayout.h"
#include "CAdjustData.h"
#include "CAdjustDataManager.h"
#include "CAdjustPreference.h"
#include "PMReport.h"
#include "TestRoot.h"
#include "kernel_sim.h"
#include "pref.h"
#include "pref_sim.h"

namespace adjtest {

using namespace pm::adjust; // the layout of the group: the library's own constants
constexpr long kFreshBodyBytes = 3606101;

using Bytes = std::vector<uint8_t>;

struct StoredItem {
    std::string name;
    Bytes bytes;
};

struct Record {
    std::string name;
    uint32_t offset, size;
};

/// Bytes that tell items apart.
inline Bytes Pattern(int id, size_t size)
{
    Bytes bytes(size);
    for (size_t j = 0; j < size; ++j) bytes[j] = static_cast<uint8_t>(id * 31 + j * 7 + 1);
    return bytes;
}

/// The default value of a catalogue row as the item stores it (little-endian, zero fill).
inline Bytes DefaultBytes(int id)
{
    Bytes bytes(ADJUST_DATA_LIST[id].size, 0);
    for (size_t i = 0; i < bytes.size() && i < 4; ++i) bytes[i] = static_cast<uint8_t>(ADJUST_DATA_LIST[id].value >> (8 * i));
    return bytes;
}

/// Every catalogue row, in catalogue order, holding its Pattern.
inline std::vector<StoredItem> CatalogueWithPatterns()
{
    std::vector<StoredItem> items;
    for (int id = 0; id < ADJUST_DATA_ID_MAX; ++id) items.push_back({ADJUST_DATA_LIST[id].name, Pattern(id, ADJUST_DATA_LIST[id].size)});
    return items;
}

/// Lays the items out as a store would (records in order, bytes back to back) and saves it.
inline void WriteStore(const std::vector<StoredItem>& items)
{
    pref_reset(PREF_ID_ADJUST);
    uint32_t offset = 0;
    for (size_t i = 0; i < items.size(); ++i) {
        _TAdjDataHeader record;
        std::snprintf(record.name, sizeof record.name, "%s", items[i].name.c_str());
        std::snprintf(record.file, sizeof record.file, "adj_body.dat");
        record.offset = offset;
        record.size = static_cast<uint32_t>(items[i].bytes.size());
        pref_set_bytes(PREF_ID_ADJUST, HEADER_DATA_OFFSET + ADJ_HEADER_RECORD_SIZE * i, &record, ADJ_HEADER_RECORD_SIZE);
        if (record.size > 0) pref_set_bytes(PREF_ID_ADJUST, BODY_DATA_OFFSET + offset, items[i].bytes.data(), record.size);
        offset += record.size;
    }
    pref_set_long(PREF_ID_ADJUST, HEADER_SIZE_OFFSET, static_cast<long>(ADJ_HEADER_RECORD_SIZE * items.size()));
    pref_set_long(PREF_ID_ADJUST, BODY_SIZE_OFFSET, static_cast<long>(offset));
    pref_save(PREF_ID_ADJUST);
}
inline std::vector<Record> ReadRecords()
{
    std::vector<Record> records;
    for (long at = 0; at + static_cast<long>(ADJ_HEADER_RECORD_SIZE) <= pref_get_long(PREF_ID_ADJUST, HEADER_SIZE_OFFSET); at += ADJ_HEADER_RECORD_SIZE) {
        _TAdjDataHeader record;
        std::memcpy(&record, pref_get_addr(PREF_ID_ADJUST, nullptr) + HEADER_DATA_OFFSET + at, ADJ_HEADER_RECORD_SIZE);
        records.push_back({std::string(record.name, strnlen(record.name, sizeof record.name)), record.offset, record.size});
    }
    return records;
}
inline Bytes ReadBody(unsigned long offset, unsigned long size)
{
    const uint8_t* body = pref_get_addr(PREF_ID_ADJUST, nullptr) + BODY_DATA_OFFSET + offset;
    return Bytes(body, body + size);
}

inline std::string Hex(const Bytes& bytes)
{
    std::string text;
    char digits[3];
    for (uint8_t byte : bytes) text.append(digits, static_cast<size_t>(std::snprintf(digits, sizeof digits, "%02x", byte)));
    return text;
}

/// The stored bytes of every record in record order, in hex, one word per record.
inline std::string StoreHex()
{
    std::string text;
    for (const Record& record : ReadRecords()) text += (text.empty() ? "" : " ") + Hex(ReadBody(record.offset, record.size));
    return text;
}

/// Empty when the records lie back to back and fill the body area; otherwise what is wrong.
inline std::string LayoutProblem()
{
    uint64_t end = 0;
    for (const Record& record : ReadRecords()) {
        if (record.offset != end) return record.name + " at " + std::to_string(record.offset) + ", expected " + std::to_string(end);
        end += record.size;
    }
    const long body = pref_get_long(PREF_ID_ADJUST, BODY_SIZE_OFFSET);
    return static_cast<uint64_t>(body) == end ? "" : "body area " + std::to_string(body) + " bytes, records end at " + std::to_string(end);
}

/// The item's bytes as the manager's item reads them (not the country table).
inline Bytes ItemBytes(int id)
{
    CAdjustData* item = CAdjustDataManager::GetInstance()->find(id);
    Bytes bytes(ADJUST_DATA_LIST[id].size);
    return item != nullptr && item->Get(bytes.data(), bytes.size()) ? bytes : Bytes();
}

inline int CatalogueId(const std::string& name)
{
    const auto row = std::find_if(std::begin(ADJUST_DATA_LIST), std::end(ADJUST_DATA_LIST), [&](const _TDATAINFO& r) { return name == r.name; });
    return row == std::end(ADJUST_DATA_LIST) ? -1 : static_cast<int>(row - ADJUST_DATA_LIST);
}

/// Per item: its last stored bytes cut or zero-extended to the catalogue size, else its default.
inline std::map<int, Bytes> ExpectedValues(const std::vector<StoredItem>& stored)
{
    std::map<int, Bytes> expected;
    for (int id = 0; id < ADJUST_DATA_ID_MAX; ++id) expected[id] = DefaultBytes(id);
    for (const StoredItem& item : stored) {
        const int id = CatalogueId(item.name);
        if (id < 0) continue;
        expected[id] = item.bytes;
        expected[id].resize(ADJUST_DATA_LIST[id].size, 0);
    }
    return expected;
}

/// Empty when each catalogue record is stored once, back to back, at its size and bytes; else what is wrong.
inline std::string StoreProblem(const std::map<int, Bytes>& expected)
{
    const std::string layout = LayoutProblem();
    if (!layout.empty()) return layout;
    const std::vector<Record> records = ReadRecords();
    if (records.size() != expected.size()) return std::to_string(records.size()) + " records";
    std::map<int, int> seen;
    for (const Record& record : records) {
        const int id = CatalogueId(record.name);
        if (id < 0 || seen[id]++ > 0) return "record " + record.name + " unknown or repeated";
        if (record.size != ADJUST_DATA_LIST[id].size) return record.name + " has size " + std::to_string(record.size);
        if (ReadBody(record.offset, record.size) != expected.at(id)) return record.name + " holds other bytes";
        if (ItemBytes(id) != expected.at(id)) return "the manager reads other bytes for " + record.name;
    }
    return "";
}

/// The directories of the change log ("/adj") and the write log ("/mnt/ubi1").
inline void MakeDeviceDirs(const TestRoot& root)
{
    root.WriteFile("/adj/.keep", "");
    root.WriteFile("/mnt/ubi1/.keep", "");
}

/// Ends the manager's run and starts it again on what NAND holds, as after a power cycle.
inline void Restart()
{
    CAdjustDataManager::GetInstance()->Finalize();
    pref_sim_forget_images();
    CAdjustDataManager::GetInstance()->Initialize();
}

/// A fresh group image with its two areas mounted as the manager mounts them; traces recorded.
class StoreAreas : public testing::Test {
protected:
    void SetUp() override
    {
        pref_sim_reset();
        kernel_sim_reset();
        MakeDeviceDirs(root);
        traces.clear();
        pm::SetTraceSink([](const char* text) { traces.emplace_back(text); });
        MountAreas();
    }
    void TearDown() override { pm::SetTraceSink(nullptr); }
    void MountAreas()
    {
        header.Umount();
        body.Umount();
        header.Mount(HEADER_DATA_OFFSET, HEADER_SIZE_OFFSET, pref_get_long(PREF_ID_ADJUST, HEADER_SIZE_OFFSET));
        body.Mount(BODY_DATA_OFFSET, BODY_SIZE_OFFSET, pref_get_long(PREF_ID_ADJUST, BODY_SIZE_OFFSET));
    }
    /// Puts `content` into the body area and sets its length, zeros behind it.
    void SetBody(const std::string& content)
    {
        const std::string withZeros = content + std::string(4096, '\0');
        pref_set_long(PREF_ID_ADJUST, BODY_SIZE_OFFSET, static_cast<long>(content.size()));
        pref_set_bytes(PREF_ID_ADJUST, BODY_DATA_OFFSET, withZeros.data(), withZeros.size());
        MountAreas();
    }
    static std::string Body()
    {
        const Bytes body = ReadBody(0, static_cast<unsigned long>(pref_get_long(PREF_ID_ADJUST, BODY_SIZE_OFFSET)));
        return std::string(body.begin(), body.end());
    }
    static std::string Trace(const std::string& text) { return "\x1b[m" + text + "\x1b[m\n"; }
    static bool Traced(const std::string& text) { return std::count(traces.begin(), traces.end(), Trace(text)) > 0; }
    template <class Run> static std::string Printed(Run run)
    {
        testing::internal::CaptureStdout();
        run();
        return testing::internal::GetCapturedStdout();
    }

    TestRoot root;
    CAdjustPreference header;
    CAdjustPreference body;
    static inline std::vector<std::string> traces;
};

} // namespace adjtest
