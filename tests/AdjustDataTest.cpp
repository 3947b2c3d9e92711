// One adjust item on the two preference-backed stores of group 3: its header record and
// default value on storage, Get and Set, growing and shrinking in place, removal, and
// the change-log records of failing store operations.
#include "AdjustStoreImage.h"
#include "CAdjustLogMachine.h"

#include <functional>
#include <memory>

using namespace adjtest;
using testing::HasSubstr;

namespace {

_TDATAINFO NewRow(uint32_t id, uint32_t size, uint32_t value, const char* name)
{
    _TDATAINFO info = ADJUST_DATA_LIST[0];
    info.id = id;
    info.size = size;
    info.value = value;
    std::snprintf(info.name, sizeof info.name, "%s", name);
    return info;
}

_TDATAINFO Resized(int id, uint32_t size)
{
    _TDATAINFO info = ADJUST_DATA_LIST[id];
    info.size = size;
    return info;
}

const std::string kZeros16 = std::string(32, '0');

class AdjustDataTest : public StoreAreas {
protected:
    /// A row that has no record yet, placed at a record position and body offset.
    CAdjustData* AddNew(const _TDATAINFO& info, long position, long offset)
    {
        items.push_back(std::make_unique<CAdjustData>(&header, &body));
        CAdjustData::_tAdjDataExtHeader extHeader;
        extHeader.position = static_cast<int32_t>(position);
        *items.back() = extHeader;
        items.back()->Setup(static_cast<int>(info.id), info);
        *items.back() = _TArrangeInfo{static_cast<uint32_t>(offset)};
        return items.back().get();
    }
    /// A new row placed behind the last record and the last stored byte.
    CAdjustData* Append(const _TDATAINFO& info)
    {
        return AddNew(info, pref_get_long(kAdjustGroup, kHeaderLengthAt), pref_get_long(kAdjustGroup, kBodyLengthAt));
    }
    /// The item of stored record `index`, bound to a catalogue row when one is given.
    CAdjustData* Load(int index, const _TDATAINFO* info)
    {
        CAdjustData::_tAdjDataExtHeader extHeader;
        EXPECT_TRUE(header.Read(kRecordSize * index, &extHeader, kRecordSize)) << "record " << index;
        extHeader.position = static_cast<int32_t>(kRecordSize * index);
        items.push_back(std::make_unique<CAdjustData>(&header, &body));
        *items.back() = extHeader;
        if (info != nullptr) items.back()->Setup(static_cast<int>(info->id), *info);
        return items.back().get();
    }
    /// Four catalogue items laid out as a fresh store would: 1, 2, 4 and 16 bytes.
    void BuildSmallStore()
    {
        items.clear();
        for (int id : {ADJUST_CHECKSUM1, ADJUST_CIS_CLAMP_LEVEL, ADJUST_CIS_SN, ADJUST_LINE_PRODUCT_NUMBER})
            ASSERT_TRUE(Append(ADJUST_DATA_LIST[id])->WriteToNAND(0)) << "id " << id;
    }
    /// What Get(length) answers and leaves in a buffer of 0xEE bytes one longer than that.
    static std::string Got(CAdjustData* item, unsigned long length)
    {
        Bytes buffer(length + 1, 0xEE);
        const bool answered = item->Get(buffer.data(), length);
        return (answered ? "" : "refused ") + Hex(buffer);
    }
    static intptr_t Changed(CAdjustData* item) { return item->Infomation(CAdjustData::ADJ_INFO_CHANGED); }
    std::string LastChangeLogLine() const
    {
        std::string log = root.ReadFile(CAdjustLogMachine::FILE_NAME);
        if (!log.empty()) log.pop_back();
        return log.substr(log.rfind('\n') + 1);
    }

    std::vector<std::unique_ptr<CAdjustData>> items;
};

TEST_F(AdjustDataTest, NewItemsGetARecordAndTheirDefaultAndSurviveARestart)
{
    BuildSmallStore();
    for (const _TDATAINFO& row : {NewRow(200, 4, 0x3030, "TEST_WORD"), NewRow(201, 8, 0x01020304, "TEST_LONG"),
                                  NewRow(202, 3, 0x00ABCDEF, "TEST_THREE")}) {
        CAdjustData* item = Append(row);
        EXPECT_EQ(1, item->Infomation(CAdjustData::ADJ_INFO_SIZE_STATE)) << row.name;
        ASSERT_TRUE(item->WriteToNAND(0)) << row.name;
    }
    EXPECT_EQ("11 0500 00000000 " + kZeros16 + " 30300000 0403020100000000 efcdab", StoreHex());
    EXPECT_EQ("", LayoutProblem());
    EXPECT_EQ(7 * 140, pref_get_long(kAdjustGroup, kHeaderLengthAt));
    _TAdjDataHeader word;
    ASSERT_TRUE(header.Read(4 * kRecordSize, &word, sizeof word));
    EXPECT_STREQ("TEST_WORD", word.name);
    EXPECT_STREQ("adj_body.dat", word.file);
    EXPECT_EQ(0x3030u, word.value);

    CAdjustData* serial = items[2].get();
    EXPECT_EQ(0, Changed(serial));
    EXPECT_EQ(3, serial->Infomation(CAdjustData::ADJ_INFO_OLD_OFFSET));
    EXPECT_STREQ("ADJUST_CIS_SN", reinterpret_cast<const char*>(serial->Infomation(CAdjustData::ADJ_INFO_NAME)));
    uint32_t value = 0x12345678;
    ASSERT_TRUE(serial->Set(&value, 4, true));

    PowerCycle();
    CAdjustData* reloaded = Load(2, &ADJUST_DATA_LIST[ADJUST_CIS_SN]);
    EXPECT_EQ(0, Changed(reloaded)) << "stored size matches the catalogue";
    EXPECT_EQ("78563412ee", Got(reloaded, 4));
    EXPECT_TRUE(reloaded->WriteToNAND(0)) << "nothing pending";
}

TEST_F(AdjustDataTest, GetAndSetDeferredAndImmediate)
{
    BuildSmallStore();
    CAdjustData* serial = items[2].get();
    CAdjustData* product = items[3].get();
    uint32_t value = 0xA1B2C3D4;
    ASSERT_TRUE(serial->Set(&value, 4, true));
    EXPECT_EQ("d4c3b2a1ee", Got(serial, 4));
    EXPECT_EQ("d4c3ee", Got(serial, 2));
    EXPECT_THAT(Printed([&] { EXPECT_EQ("refused d4c3b2a1eeee", Got(serial, 5)) << "the item's bytes, no more"; }),
                HasSubstr("AdjustData Get Error: ADJUST_CIS_SN's size is 4. But You request 5"));

    // An immediate Set of a prefix leaves the rest of the stored item as it was.
    Bytes pattern = Pattern(1, 16);
    ASSERT_TRUE(product->Set(pattern.data(), 16, true));
    uint8_t head[4] = {1, 2, 3, 4};
    ASSERT_TRUE(product->Set(head, 4, true));
    EXPECT_EQ("01020304" + Hex(pattern).substr(8), BodyHex(7, 16));

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
    EXPECT_THAT(Printed([&] { EXPECT_FALSE(serial->Set(&first, 4, true)); }),
                HasSubstr("Memory can be leaked...[ADJUST_CIS_SN]"));
    EXPECT_EQ(assertions + 1, pm::AssertionCount());
    ASSERT_TRUE(serial->WriteToNAND(0));

    // Longer than the item: refused, nothing changes.
    uint8_t tooLong[5] = {9, 9, 9, 9, 9};
    EXPECT_FALSE(serial->Set(tooLong, 5, false));
    EXPECT_FALSE(serial->Set(tooLong, 5, true));
    EXPECT_EQ(0, Changed(serial));
    EXPECT_EQ("22c3b2a1", BodyHex(3, 4));

    // An unchanged item without stores writes nothing and succeeds.
    CAdjustData detached(nullptr, nullptr);
    EXPECT_TRUE(detached.WriteToNAND(0));
    EXPECT_EQ("", root.ReadFile(CAdjustLogMachine::FILE_NAME)) << "no failure recorded";
}

TEST_F(AdjustDataTest, ResetWritesTheDefaultOverTheItem)
{
    BuildSmallStore();
    ASSERT_TRUE(Append(NewRow(201, 8, 0x01020304, "TEST_LONG"))->WriteToNAND(0));
    SetBody(std::string(31, '\x5A'));
    for (auto& item : items) EXPECT_TRUE(item->Reset());
    EXPECT_EQ("11 0500 00000000 " + kZeros16 + " 0404040400000000", StoreHex()) << "4 x the low byte, then zeros";

    CAdjustData empty(&header, &body);
    EXPECT_FALSE(empty.Reset()) << "size 0: nothing to write";
    CAdjustData detached(nullptr, nullptr);
    detached.Setup(0, ADJUST_DATA_LIST[0]);
    EXPECT_FALSE(detached.Reset()) << "no body store";
}

TEST_F(AdjustDataTest, ItemsGrowAndShrinkInPlace)
{
    BuildSmallStore();
    CAdjustData* serial = items[2].get();
    CAdjustData* product = items[3].get();
    uint32_t value = 0xAABBCCDD;
    ASSERT_TRUE(serial->Set(&value, 4, true));
    Bytes pattern = Pattern(2, 16);
    ASSERT_TRUE(product->Set(pattern.data(), 16, true));
    const std::string productHex = Hex(pattern);

    // Grow 4 -> 8: the new bytes open behind the old ones, the next item moves up.
    serial->Setup(ADJUST_CIS_SN, Resized(ADJUST_CIS_SN, 8));
    EXPECT_EQ(0, serial->Infomation(CAdjustData::ADJ_INFO_SIZE_STATE)) << "a plain resize";
    EXPECT_EQ("ddccbbaaeeeeeeeeee", Got(serial, 8)) << "a pending resize reads the bytes both sizes share";
    ASSERT_TRUE(serial->WriteToNAND(0));
    *product = _TArrangeInfo{11};
    ASSERT_TRUE(product->WriteToNAND(0));
    EXPECT_EQ("11 0500 ddccbbaa00000000 " + productHex, StoreHex());
    EXPECT_EQ("", LayoutProblem());

    // Shrink 8 -> 2: the tail of the item goes, the next item moves down.
    serial->Setup(ADJUST_CIS_SN, Resized(ADJUST_CIS_SN, 2));
    ASSERT_TRUE(serial->WriteToNAND(0));
    *product = _TArrangeInfo{5};
    ASSERT_TRUE(product->WriteToNAND(0));
    EXPECT_EQ("11 0500 ddcc " + productHex, StoreHex());
    EXPECT_EQ(productHex + "ee", Got(product, 16));

    // Shrinking the last item of the body area keeps only the bytes still there.
    product->Setup(ADJUST_LINE_PRODUCT_NUMBER, Resized(ADJUST_LINE_PRODUCT_NUMBER, 8));
    ASSERT_TRUE(product->WriteToNAND(0));
    EXPECT_EQ("11 0500 ddcc " + productHex.substr(0, 16), StoreHex());
    EXPECT_EQ("", LayoutProblem());
    EXPECT_EQ("", root.ReadFile(CAdjustLogMachine::FILE_NAME)) << "no failure recorded";

    PowerCycle();
    const _TDATAINFO productRow = Resized(ADJUST_LINE_PRODUCT_NUMBER, 8);
    CAdjustData* reloaded = Load(3, &productRow);
    EXPECT_EQ(0, Changed(reloaded));
    EXPECT_EQ(productHex.substr(0, 16) + "ee", Got(reloaded, 8));
}

TEST_F(AdjustDataTest, UnclaimedRecordIsRemovedWithItsBytes)
{
    BuildSmallStore();
    uint32_t value = 0x01020304;
    ASSERT_TRUE(items[2]->Set(&value, 4, true));
    PowerCycle();

    CAdjustData* stray = Load(1, nullptr); // no catalogue row claims it: new size 0
    EXPECT_EQ(-1, stray->Infomation(CAdjustData::ADJ_INFO_SIZE_STATE));
    stray->Setup4Delete();
    EXPECT_EQ(ITEM_DELETE_ID, stray->Infomation(CAdjustData::ADJ_INFO_ID));
    EXPECT_EQ(1, Changed(stray));
    EXPECT_THAT(Printed([&] { EXPECT_EQ("refused eeeeee", Got(stray, 2)); }),
                HasSubstr("AdjustData Get Error: This is already removed Data. 9999999[ADJUST_CIS_CLAMP_LEVEL] "
                          "old off-1, old size-2, new size-0"));

    ASSERT_TRUE(stray->WriteToNAND(0));
    EXPECT_EQ(3 * 140, pref_get_long(kAdjustGroup, kHeaderLengthAt));
    EXPECT_EQ(21, pref_get_long(kAdjustGroup, kBodyLengthAt));
    EXPECT_EQ("ADJUST_CIS_SN", ReadRecords()[1].name) << "the later records moved up";
    EXPECT_EQ("1104030201", BodyHex(0, 5)) << "the later bytes moved down";
    EXPECT_EQ(0, stray->Infomation(CAdjustData::ADJ_INFO_OLD_SIZE));
    EXPECT_EQ(0, Changed(stray));
}

TEST_F(AdjustDataTest, FailingStoreStepsAreRecordedInTheChangeLog)
{
    const struct {
        const char* name;
        std::function<CAdjustData*()> plan;
        pref_sim_op fault;
        const char* logged;
    } cases[] = {
        {"header insert", [&] { return Append(ADJUST_DATA_LIST[ADJUST_CIS_CHIP_VERSION]); }, PREF_SIM_OP_SET_LONG,
         "Header Insert Fail 560, 140"},
        {"header write",
         [&] {
             CAdjustData::_tAdjDataExtHeader extHeader;
             extHeader = *items[0];
             extHeader.position = 1400;
             *items[0] = extHeader;
             items[0]->Setup(ADJUST_CHECKSUM1, Resized(ADJUST_CHECKSUM1, 2));
             return items[0].get();
         },
         PREF_SIM_OP_COUNT, "Header Write Fail 1400, 140"},
        {"header remove",
         [&] {
             CAdjustData* item = Load(1, nullptr);
             item->Setup4Delete();
             return item;
         },
         PREF_SIM_OP_SET_LONG, "Header Remove Fail 140, 140"},
        {"body insert",
         [&] {
             items[2]->Setup(ADJUST_CIS_SN, Resized(ADJUST_CIS_SN, 8));
             return items[2].get();
         },
         PREF_SIM_OP_SET_LONG, "Body Insert Fail old size:4, new off: 3, new size: 8"},
        {"body remove",
         [&] {
             items[3]->Setup(ADJUST_LINE_PRODUCT_NUMBER, Resized(ADJUST_LINE_PRODUCT_NUMBER, 4));
             return items[3].get();
         },
         PREF_SIM_OP_SET_LONG, "Body Remove Fail old size:16, new off: 7, new size: 4"},
        {"size 0", [&] { return AddNew(NewRow(203, 0, 0, "TEST_EMPTY"), 560, 0); }, PREF_SIM_OP_COUNT,
         "[Error]TEST_EMPTY's size is 0"},
    };
    int index = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        pref_sim_reset();
        ASSERT_EQ(0, pref_reset(kAdjustGroup));
        MountAreas();
        BuildSmallStore();
        CAdjustData* item = c.plan();
        const intptr_t oldSize = item->Infomation(CAdjustData::ADJ_INFO_OLD_SIZE);
        if (c.fault != PREF_SIM_OP_COUNT) pref_sim_fail_next(c.fault, 1);
        EXPECT_FALSE(item->WriteToNAND(0));
        EXPECT_EQ(std::to_string(++index) + "#" + c.logged, LastChangeLogLine());
        EXPECT_EQ(1, Changed(item)) << "still pending";
        EXPECT_EQ(oldSize, item->Infomation(CAdjustData::ADJ_INFO_OLD_SIZE)) << "the stored record is kept";
    }
}

TEST_F(AdjustDataTest, FailingBodyWriteLeavesTheOldValueReadable)
{
    BuildSmallStore();
    CAdjustData* serial = items[2].get();
    uint32_t stored = 0xCAFEF00D;
    ASSERT_TRUE(serial->Set(&stored, 4, true));

    // Immediate: the write fails, the caller's buffer is let go, storage keeps the old value.
    body.Umount();
    uint32_t lost = 0xDEADBEEF;
    EXPECT_FALSE(serial->Set(&lost, 4, true));
    EXPECT_EQ("1#Body Write Fail off: 3, size: 4", LastChangeLogLine());
    MountAreas();
    EXPECT_EQ("0df0fecaee", Got(serial, 4));
    lost = 0; // the item must not hold on to the caller's buffer
    EXPECT_TRUE(serial->WriteToNAND(0)) << "the retry rewrites what storage holds";
    EXPECT_EQ("0df0feca", BodyHex(3, 4));

    // Deferred: the pending value survives the failed write and goes out on the retry.
    uint32_t next = 0x00C0FFEE;
    ASSERT_TRUE(serial->Set(&next, 4, false));
    body.Umount();
    EXPECT_FALSE(serial->WriteToNAND(0));
    MountAreas();
    EXPECT_EQ("0df0feca", BodyHex(3, 4)) << "old value on storage";
    EXPECT_EQ(1, Changed(serial));
    ASSERT_TRUE(serial->WriteToNAND(0));
    PowerCycle();
    EXPECT_EQ("eeffc000ee", Got(Load(2, &ADJUST_DATA_LIST[ADJUST_CIS_SN]), 4));
}

} // namespace
