// One adjust item on the two stores of group 3: its record and default on storage, Get and
// Set, resizing and removal, and the change-log records of failing store operations.
#include "AdjustStoreImage.h"
#include "CAdjustLogMachine.h"

#include <functional>
#include <memory>

using namespace adjtest;
using testing::HasSubstr;

namespace {

/// A catalogue row with another size and default.
_TDATAINFO Row(int id, uint32_t size, uint32_t value = 0)
{
    _TDATAINFO info = ADJUST_DATA_LIST[id];
    info.size = size;
    info.value = value;
    return info;
}

class AdjustDataTest : public StoreAreas {
protected:
    /// The stored item of record `index`, or a new one at `offset` (-1: behind the last byte).
    CAdjustData* Item(unsigned long index, const _TDATAINFO* info, long offset = -1)
    {
        CAdjustData::_tAdjDataExtHeader record;
        const bool stored = header.Read(ADJ_HEADER_RECORD_SIZE * index, &record, ADJ_HEADER_RECORD_SIZE);
        record.position = static_cast<int32_t>(ADJ_HEADER_RECORD_SIZE * index);
        items.push_back(std::make_unique<CAdjustData>(&header, &body));
        *items.back() = record;
        if (info != nullptr) items.back()->Setup(static_cast<int>(info->id), *info);
        if (!stored) *items.back() = _TArrangeInfo{static_cast<uint32_t>(offset < 0 ? pref_get_long(PREF_ID_ADJUST, BODY_SIZE_OFFSET) : offset)};
        return items.back().get();
    }
    /// Four catalogue items laid out as a fresh store would: 1, 2, 4 and 16 bytes.
    void BuildSmallStore()
    {
        items.clear();
        for (int id : {ADJUST_CHECKSUM1, ADJUST_CIS_CLAMP_LEVEL, ADJUST_CIS_SN, ADJUST_LINE_PRODUCT_NUMBER})
            ASSERT_TRUE(Item(items.size(), &ADJUST_DATA_LIST[id])->WriteToNAND(0)) << "id " << id;
    }
    CAdjustData* Resize(size_t index, int id, uint32_t size)
    {
        items[index]->Setup(id, Row(id, size));
        return items[index].get();
    }
    /// What Get(length) answers and leaves in a buffer of 0xEE bytes one longer than that.
    static std::string Got(CAdjustData* item, unsigned long length)
    {
        Bytes buffer(length + 1, 0xEE);
        const bool answered = item->Get(buffer.data(), length);
        return (answered ? "" : "refused ") + Hex(buffer);
    }
    static intptr_t Changed(CAdjustData* item) { return item->Infomation(CAdjustData::ADJ_INFO_CHANGED); }
    static std::string BodyHex(unsigned long offset, unsigned long size) { return Hex(ReadBody(offset, size)); }

    std::vector<std::unique_ptr<CAdjustData>> items;
};

TEST_F(AdjustDataTest, NewItemsGetARecordAndTheirDefaultAndResetWritesItAgain)
{
    BuildSmallStore();
    const _TDATAINFO rows[] = {Row(ADJUST_CIS_CHIP_VERSION, 8, 0x01020304), Row(ADJUST_CIS_B_PIXEL_NUM, 3, 0xABCDEF)};
    for (const _TDATAINFO& row : rows) {
        CAdjustData* item = Item(items.size(), &row);
        EXPECT_EQ(1, item->Infomation(CAdjustData::ADJ_INFO_SIZE_STATE)) << row.name;
        ASSERT_TRUE(item->WriteToNAND(0)) << row.name;
    }
    EXPECT_EQ("11 0500 00000000 " + std::string(32, '0') + " 0403020100000000 efcdab", StoreHex());
    _TAdjDataHeader record;
    ASSERT_TRUE(header.Read(4 * ADJ_HEADER_RECORD_SIZE, &record, sizeof record));
    EXPECT_EQ("ADJUST_CIS_CHIP_VERSION adj_body.dat 16909060", std::string(record.name) + " " + record.file + " " + std::to_string(record.value));

    SetBody(std::string(34, '\x5A'));
    for (auto& item : items) EXPECT_TRUE(item->Reset());
    EXPECT_EQ("11 0500 00000000 " + std::string(32, '0') + " 0404040400000000 efefef", StoreHex()) << "4 x the low byte, then zeros";
    CAdjustData empty(&header, &body);
    EXPECT_FALSE(empty.Reset()) << "size 0: nothing to write";
    CAdjustData detached(nullptr, nullptr);
    detached.Setup(0, ADJUST_DATA_LIST[0]);
    EXPECT_FALSE(detached.Reset()) << "no body store";
}

TEST_F(AdjustDataTest, GetAndSetOfStoredResizedAndRemovedItemsAndFailedWritesKeepTheStoredValue)
{
    BuildSmallStore();
    CAdjustData* serial = items[2].get();
    uint32_t value = 0xA1B2C3D4;
    ASSERT_TRUE(serial->Set(&value, 4, true));
    EXPECT_THAT(Printed([&] { EXPECT_EQ("refused d4c3b2a1eeee", Got(serial, 5)) << "the item's bytes, no more"; }),
                HasSubstr("AdjustData Get Error: ADJUST_CIS_SN's size is 4. But You request 5"));

    // An immediate Set of a prefix leaves the rest of the stored item as it was.
    Bytes pattern = Pattern(1, 16);
    ASSERT_TRUE(items[3]->Set(pattern.data(), 16, true));
    ASSERT_TRUE(items[3]->Set(&value, 1, true));
    EXPECT_EQ("d4" + Hex(pattern).substr(2), BodyHex(7, 16));

    // Deferred: readable at once, on storage only after WriteToNAND; a second Set
    // replaces the first, and a short one keeps the stored rest.
    uint32_t first = 0x11111111, second = 0x22;
    ASSERT_TRUE(serial->Set(&first, 4, false));
    ASSERT_TRUE(serial->Set(&second, 1, false));
    EXPECT_EQ(1, Changed(serial));
    EXPECT_EQ("d4c3b2a1", BodyHex(3, 4)) << "storage untouched until written";
    EXPECT_EQ("22c3b2a1ee", Got(serial, 4));

    // An immediate Set while a deferred one is pending is refused with a report.
    const unsigned long assertions = pm::AssertionCount();
    EXPECT_THAT(Printed([&] { EXPECT_FALSE(serial->Set(&first, 4, true)); }), HasSubstr("Memory can be leaked...[ADJUST_CIS_SN]"));
    Printed([&] { EXPECT_FALSE(serial->Get(nullptr, 4)) << "no buffer"; });
    EXPECT_EQ(assertions + 2, pm::AssertionCount());

    // A failed write keeps the pending value for the retry and the old one on storage.
    body.Umount();
    EXPECT_FALSE(serial->WriteToNAND(0));
    EXPECT_THAT(root.ReadFile(CAdjustLogMachine::FILE_NAME), testing::EndsWith("1#Body Write Fail off: 3, size: 4\n"));
    MountAreas();
    EXPECT_EQ("d4c3b2a1", BodyHex(3, 4));
    EXPECT_EQ(1, Changed(serial));
    ASSERT_TRUE(serial->WriteToNAND(0));
    EXPECT_EQ(0, Changed(serial));
    EXPECT_EQ("22c3b2a1", BodyHex(3, 4));

    // A failed immediate write lets the caller's buffer go: the retry rewrites what storage holds.
    body.Umount();
    EXPECT_FALSE(serial->Set(&first, 4, true));
    MountAreas();
    EXPECT_EQ("22c3b2a1ee", Got(serial, 4));
    first = 0;
    EXPECT_TRUE(serial->WriteToNAND(0));
    EXPECT_EQ("22c3b2a1", BodyHex(3, 4));

    EXPECT_EQ(0, Resize(2, ADJUST_CIS_SN, 8)->Infomation(CAdjustData::ADJ_INFO_SIZE_STATE)) << "a plain resize";
    EXPECT_EQ("22c3b2a1eeeeeeeeee", Got(serial, 8)) << "until written, the bytes both sizes share";
    CAdjustData* stray = Item(1, nullptr); // no catalogue row claims it: new size 0
    EXPECT_EQ(-1, stray->Infomation(CAdjustData::ADJ_INFO_SIZE_STATE));
    stray->Setup4Delete();
    EXPECT_THAT(Printed([&] { EXPECT_EQ("refused eeeeee", Got(stray, 2)); }),
                HasSubstr("AdjustData Get Error: This is already removed Data. 9999999[ADJUST_CIS_CLAMP_LEVEL] "
                          "old off-1, old size-2, new size-0"));
}

TEST_F(AdjustDataTest, FailingStoreStepsAreRecordedInTheChangeLog)
{
    const _TDATAINFO empty = Row(ADJUST_CIS_CHIP_VERSION, 0);
    const struct {
        std::function<CAdjustData*()> plan;
        pref_sim_op fault;
        const char* logged;
    } cases[] = {
        {[&] { return Item(4, &ADJUST_DATA_LIST[ADJUST_CIS_CHIP_VERSION]); }, PREF_SIM_OP_SET_LONG, "Header Insert Fail 560, 140"},
        {[&] { return Item(5, &ADJUST_DATA_LIST[ADJUST_CIS_CHIP_VERSION]); }, PREF_SIM_OP_COUNT, "Header Write Fail 700, 140"},
        {[&] { return Resize(1, ADJUST_CIS_CLAMP_LEVEL, 0); }, PREF_SIM_OP_SET_LONG, "Header Remove Fail 140, 140"},
        {[&] { return Resize(2, ADJUST_CIS_SN, 8); }, PREF_SIM_OP_SET_LONG, "Body Insert Fail old size:4, new off: 3, new size: 8"},
        {[&] { return Resize(3, ADJUST_LINE_PRODUCT_NUMBER, 4); }, PREF_SIM_OP_SET_LONG, "Body Remove Fail old size:16, new off: 7, new size: 4"},
        {[&] { return Item(4, &empty, 0); }, PREF_SIM_OP_COUNT, "[Error]ADJUST_CIS_CHIP_VERSION's size is 0"},
    };
    int index = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.logged);
        pref_sim_reset();
        MountAreas();
        BuildSmallStore();
        CAdjustData* item = c.plan();
        if (c.fault != PREF_SIM_OP_COUNT) pref_sim_fail_next(c.fault, 1);
        EXPECT_FALSE(item->WriteToNAND(0));
        EXPECT_THAT(root.ReadFile(CAdjustLogMachine::FILE_NAME), testing::EndsWith(std::to_string(++index) + "#" + c.logged + "\n"));
        EXPECT_EQ(1, Changed(item)) << "still pending";
    }
}

} // namespace
