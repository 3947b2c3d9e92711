// One adjust item on the two preference-backed stores of group 3: its header record and
// default value on storage, Get and Set, growing and shrinking in place, removal, and
// the change-log records of failing store operations.
#include "AdjustDataList.h"
#include "CAdjustData.h"
#include "CAdjustLogMachine.h"
#include "CAdjustPreference.h"
#include "PMReport.h"
#include "TestRoot.h"
#include "pref.h"
#include "pref_sim.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

constexpr unsigned long kHeaderBase = 13, kHeaderLength = 9, kBodyBase = 51217, kBodyLength = 51213;

_TDATAINFO row(uint32_t id, uint32_t size, uint32_t value, const char* name)
{
    _TDATAINFO info{};
    info.id = id;
    info.size = size;
    info.value = value;
    std::snprintf(info.name, sizeof info.name, "%s", name);
    std::snprintf(info.file, sizeof info.file, "%s", "adj_body.dat");
    return info;
}

_TDATAINFO resized(int id, uint32_t size)
{
    _TDATAINFO info = ADJUST_DATA_LIST[id];
    info.size = size;
    return info;
}

class AdjustDataTest : public testing::Test {
protected:
    void SetUp() override
    {
        pref_sim_reset();
        std::filesystem::create_directories(root.Host("/adj"));
        CAdjustLogMachine::GetInstance()->TurnOff();
        mount();
    }
    void TearDown() override
    {
        items.clear();
        unmount();
        pref_sim_reset();
    }

    void mount()
    {
        headerStore = std::make_unique<CAdjustPreference>();
        bodyStore = std::make_unique<CAdjustPreference>();
        headerStore->Mount(kHeaderBase, kHeaderLength, pref_get_long(3, kHeaderLength));
        bodyStore->Mount(kBodyBase, kBodyLength, pref_get_long(3, kBodyLength));
    }
    void unmount()
    {
        if (headerStore) headerStore->Umount();
        if (bodyStore) bodyStore->Umount();
        headerStore.reset();
        bodyStore.reset();
    }
    /// Saves group 3, forgets its image as a restart would, and mounts fresh stores.
    void restart()
    {
        ASSERT_GE(pref_save(3), 0);
        items.clear();
        unmount();
        pref_sim_forget_images();
        mount();
    }

    /// A catalogue row that has no record yet, placed at a record position and body offset.
    CAdjustData* addNew(const _TDATAINFO& info, int position, uint32_t offset)
    {
        items.push_back(std::make_unique<CAdjustData>(headerStore.get(), bodyStore.get()));
        CAdjustData* item = items.back().get();
        CAdjustData::_tAdjDataExtHeader extHeader;
        extHeader.position = position;
        *item = extHeader;
        item->Setup(static_cast<int>(info.id), info);
        *item = _TArrangeInfo{offset};
        return item;
    }
    /// The item of stored record `index`, bound to a catalogue row when one is given.
    CAdjustData* load(int index, const _TDATAINFO* info)
    {
        CAdjustData::_tAdjDataExtHeader extHeader;
        EXPECT_TRUE(headerStore->Read(140ul * index, &extHeader, 140)) << "record " << index;
        extHeader.position = 140 * index;
        items.push_back(std::make_unique<CAdjustData>(headerStore.get(), bodyStore.get()));
        CAdjustData* item = items.back().get();
        *item = extHeader;
        if (info != nullptr) item->Setup(static_cast<int>(info->id), *info);
        return item;
    }
    /// Four catalogue items laid out as a fresh store would: 1, 2, 4 and 16 bytes.
    void buildSmallStore()
    {
        const int ids[] = {ADJUST_CHECKSUM1, ADJUST_CIS_CLAMP_LEVEL, ADJUST_CIS_SN, ADJUST_LINE_PRODUCT_NUMBER};
        uint32_t offset = 0;
        int position = 0;
        for (int id : ids) {
            CAdjustData* item = addNew(ADJUST_DATA_LIST[id], position, offset);
            ASSERT_TRUE(item->WriteToNAND(0)) << "case id " << id;
            offset += ADJUST_DATA_LIST[id].size;
            position += 140;
        }
    }

    static Bytes group(unsigned long offset, unsigned long size)
    {
        const unsigned char* image = pref_get_addr(3, nullptr);
        return Bytes(image + offset, image + offset + size);
    }
    static Bytes body(unsigned long offset, unsigned long size) { return group(kBodyBase + offset, size); }
    static _TAdjDataHeader record(int index)
    {
        _TAdjDataHeader stored;
        std::memcpy(&stored, pref_get_addr(3, nullptr) + kHeaderBase + 140 * index, sizeof stored);
        return stored;
    }
    static long headerLength() { return pref_get_long(3, kHeaderLength); }
    static long bodyLength() { return pref_get_long(3, kBodyLength); }

    std::string lastChangeLogLine() const
    {
        std::string content = root.ReadFile(CAdjustLogMachine::FILE_NAME);
        if (!content.empty() && content.back() == '\n') content.pop_back();
        const size_t start = content.rfind('\n');
        return start == std::string::npos ? content : content.substr(start + 1);
    }

    static intptr_t info(CAdjustData* item, CAdjustData::ADJ_INFO which) { return item->Infomation(which); }

    TestRoot root;
    std::unique_ptr<CAdjustPreference> headerStore;
    std::unique_ptr<CAdjustPreference> bodyStore;
    std::vector<std::unique_ptr<CAdjustData>> items;
};

TEST_F(AdjustDataTest, NewItemsGetARecordAndTheirDefaultAndSurviveARestart)
{
    buildSmallStore();
    const struct {
        _TDATAINFO info;
        Bytes expected;
    } extra[] = {
        {row(200, 4, 0x3030, "TEST_WORD"), {0x30, 0x30, 0x00, 0x00}},
        {row(201, 8, 0x01020304, "TEST_LONG"), {0x04, 0x03, 0x02, 0x01, 0, 0, 0, 0}},
        {row(202, 3, 0x00ABCDEF, "TEST_THREE"), {0xEF, 0xCD, 0xAB}},
    };
    uint32_t offset = 23;
    int position = 560;
    for (const auto& c : extra) {
        CAdjustData* item = addNew(c.info, position, offset);
        EXPECT_EQ(1, info(item, CAdjustData::ADJ_INFO_SIZE_STATE)) << "case " << c.info.name;
        ASSERT_TRUE(item->WriteToNAND(0)) << "case " << c.info.name;
        EXPECT_EQ(c.expected, body(offset, c.info.size)) << "case " << c.info.name;
        offset += c.info.size;
        position += 140;
    }

    EXPECT_EQ(7 * 140, headerLength());
    EXPECT_EQ(23 + 4 + 8 + 3, bodyLength());
    EXPECT_EQ((Bytes{0x11, 0x05, 0x00, 0, 0, 0, 0}), body(0, 7)) << "1-, 2- and 4-byte defaults";
    EXPECT_EQ(Bytes(16, 0), body(7, 16));

    const _TAdjDataHeader sn = record(2);
    EXPECT_STREQ("ADJUST_CIS_SN", sn.name);
    EXPECT_STREQ("adj_body.dat", sn.file);
    EXPECT_EQ(3u, sn.offset);
    EXPECT_EQ(4u, sn.size);
    EXPECT_EQ(0u, sn.value);
    EXPECT_EQ(0x3030u, record(4).value);

    CAdjustData* written = items[2].get();
    EXPECT_EQ(0, info(written, CAdjustData::ADJ_INFO_CHANGED));
    EXPECT_EQ(3, info(written, CAdjustData::ADJ_INFO_OLD_OFFSET));
    EXPECT_STREQ("ADJUST_CIS_SN", reinterpret_cast<const char*>(info(written, CAdjustData::ADJ_INFO_NAME)));
    uint32_t serial = 0x12345678;
    ASSERT_TRUE(written->Set(&serial, 4, true));

    restart();
    const _TDATAINFO snRow = ADJUST_DATA_LIST[ADJUST_CIS_SN];
    CAdjustData* reloaded = load(2, &snRow);
    EXPECT_EQ(0, info(reloaded, CAdjustData::ADJ_INFO_CHANGED)) << "stored size matches the catalogue";
    uint32_t value = 0;
    EXPECT_TRUE(reloaded->Get(&value, 4));
    EXPECT_EQ(0x12345678u, value);
    EXPECT_TRUE(reloaded->WriteToNAND(0)) << "nothing pending";
}

TEST_F(AdjustDataTest, GetAndSetDeferredAndImmediate)
{
    buildSmallStore();
    CAdjustData* serial = items[2].get();
    CAdjustData* product = items[3].get();

    // Exactly the item's size, a prefix, and one byte too many.
    uint32_t value = 0xA1B2C3D4;
    ASSERT_TRUE(serial->Set(&value, 4, true));
    unsigned char buffer[32] = {};
    EXPECT_TRUE(serial->Get(buffer, 4));
    EXPECT_EQ((Bytes{0xD4, 0xC3, 0xB2, 0xA1}), Bytes(buffer, buffer + 4));
    std::memset(buffer, 0, sizeof buffer);
    EXPECT_TRUE(serial->Get(buffer, 2));
    EXPECT_EQ((Bytes{0xD4, 0xC3, 0, 0}), Bytes(buffer, buffer + 4));
    std::memset(buffer, 0xEE, sizeof buffer);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(serial->Get(buffer, 5));
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, out.find("AdjustData Get Error: ADJUST_CIS_SN's size is 4. But You request 5")) << out;
    EXPECT_EQ((Bytes{0xD4, 0xC3, 0xB2, 0xA1, 0xEE}), Bytes(buffer, buffer + 5)) << "the item's bytes, no more";

    // Immediate Set of a prefix leaves the rest of the stored item as it was.
    Bytes pattern(16);
    for (int i = 0; i < 16; ++i) pattern[i] = static_cast<unsigned char>(0x40 + i);
    ASSERT_TRUE(product->Set(pattern.data(), 16, true));
    unsigned char head[4] = {1, 2, 3, 4};
    ASSERT_TRUE(product->Set(head, 4, true));
    Bytes expected = pattern;
    std::memcpy(expected.data(), head, 4);
    EXPECT_EQ(expected, body(7, 16));

    // Deferred: readable at once, on storage only after WriteToNAND; a second one replaces the first.
    uint32_t first = 0x11111111, second = 0x22;
    ASSERT_TRUE(serial->Set(&first, 4, false));
    ASSERT_TRUE(serial->Set(&second, 1, false));
    EXPECT_EQ(1, info(serial, CAdjustData::ADJ_INFO_CHANGED));
    EXPECT_EQ((Bytes{0xD4, 0xC3, 0xB2, 0xA1}), body(3, 4)) << "storage untouched until written";
    EXPECT_TRUE(serial->Get(buffer, 4));
    EXPECT_EQ((Bytes{0x22, 0xC3, 0xB2, 0xA1}), Bytes(buffer, buffer + 4)) << "a short Set keeps the stored rest";

    // An immediate Set while a deferred one is pending is refused with a report.
    const unsigned long assertions = pm::AssertionCount();
    uint32_t third = 0x33333333;
    testing::internal::CaptureStdout();
    EXPECT_FALSE(serial->Set(&third, 4, true));
    out = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, out.find("Memory can be leaked...[ADJUST_CIS_SN]")) << out;
    EXPECT_EQ(assertions + 1, pm::AssertionCount());

    ASSERT_TRUE(serial->WriteToNAND(0));
    EXPECT_EQ((Bytes{0x22, 0xC3, 0xB2, 0xA1}), body(3, 4));
    EXPECT_EQ(0, info(serial, CAdjustData::ADJ_INFO_CHANGED));

    // Longer than the item: refused, nothing changes.
    unsigned char tooLong[5] = {9, 9, 9, 9, 9};
    EXPECT_FALSE(serial->Set(tooLong, 5, false));
    EXPECT_FALSE(serial->Set(tooLong, 5, true));
    EXPECT_EQ(0, info(serial, CAdjustData::ADJ_INFO_CHANGED));
    EXPECT_EQ((Bytes{0x22, 0xC3, 0xB2, 0xA1}), body(3, 4));

    // An unchanged item without stores writes nothing and succeeds.
    CAdjustData detached(nullptr, nullptr);
    EXPECT_TRUE(detached.WriteToNAND(0));
    EXPECT_EQ("", root.ReadFile(CAdjustLogMachine::FILE_NAME)) << "no failure recorded";
}

TEST_F(AdjustDataTest, ResetWritesTheDefaultOverTheItem)
{
    buildSmallStore();
    CAdjustData* wide = addNew(row(201, 8, 0x01020304, "TEST_LONG"), 560, 23);
    ASSERT_TRUE(wide->WriteToNAND(0));
    const Bytes garbage(31, 0x5A);
    ASSERT_EQ(static_cast<int>(garbage.size()), pref_set_bytes(3, kBodyBase, garbage.data(), garbage.size()));

    for (auto& item : items) EXPECT_TRUE(item->Reset());
    EXPECT_EQ((Bytes{0x11, 0x05, 0x00, 0, 0, 0, 0}), body(0, 7));
    EXPECT_EQ(Bytes(16, 0), body(7, 16));
    EXPECT_EQ((Bytes{0x04, 0x04, 0x04, 0x04, 0, 0, 0, 0}), body(23, 8)) << "four times the low byte, then zeros";

    CAdjustData empty(headerStore.get(), bodyStore.get());
    EXPECT_FALSE(empty.Reset()) << "size 0: nothing to write";
    CAdjustData detached(nullptr, nullptr);
    detached.Setup(0, ADJUST_DATA_LIST[0]);
    EXPECT_FALSE(detached.Reset()) << "no body store";
}

TEST_F(AdjustDataTest, ItemsGrowAndShrinkInPlace)
{
    buildSmallStore();
    CAdjustData* serial = items[2].get();
    CAdjustData* product = items[3].get();
    uint32_t value = 0xAABBCCDD;
    ASSERT_TRUE(serial->Set(&value, 4, true));
    Bytes pattern(16);
    for (int i = 0; i < 16; ++i) pattern[i] = static_cast<unsigned char>(0x80 + i);
    ASSERT_TRUE(product->Set(pattern.data(), 16, true));

    // Grow 4 -> 8: the new bytes open behind the old ones, the next item moves up.
    serial->Setup(ADJUST_CIS_SN, resized(ADJUST_CIS_SN, 8));
    EXPECT_EQ(0, info(serial, CAdjustData::ADJ_INFO_SIZE_STATE)) << "a plain resize";
    unsigned char pending[8] = {};
    EXPECT_TRUE(serial->Get(pending, 8)) << "a pending resize reads the bytes both sizes share";
    EXPECT_EQ((Bytes{0xDD, 0xCC, 0xBB, 0xAA, 0, 0, 0, 0}), Bytes(pending, pending + 8));
    ASSERT_TRUE(serial->WriteToNAND(0));
    EXPECT_EQ(27, bodyLength());
    EXPECT_EQ(8u, record(2).size);
    EXPECT_EQ((Bytes{0xDD, 0xCC, 0xBB, 0xAA, 0, 0, 0, 0}), body(3, 8));
    EXPECT_EQ(pattern, body(11, 16));
    *product = _TArrangeInfo{11};
    ASSERT_TRUE(product->WriteToNAND(0));
    EXPECT_EQ(11u, record(3).offset);
    Bytes read(16);
    EXPECT_TRUE(product->Get(read.data(), 16));
    EXPECT_EQ(pattern, read);

    // Shrink 8 -> 2: the tail of the item goes, the next item moves down.
    serial->Setup(ADJUST_CIS_SN, resized(ADJUST_CIS_SN, 2));
    ASSERT_TRUE(serial->WriteToNAND(0));
    EXPECT_EQ(21, bodyLength());
    EXPECT_EQ((Bytes{0xDD, 0xCC}), body(3, 2));
    *product = _TArrangeInfo{5};
    ASSERT_TRUE(product->WriteToNAND(0));
    std::fill(read.begin(), read.end(), 0);
    EXPECT_TRUE(product->Get(read.data(), 16));
    EXPECT_EQ(pattern, read);

    // Shrinking the last item of the body area reads back only the bytes still there.
    product->Setup(ADJUST_LINE_PRODUCT_NUMBER, resized(ADJUST_LINE_PRODUCT_NUMBER, 8));
    ASSERT_TRUE(product->WriteToNAND(0));
    EXPECT_EQ(13, bodyLength());
    EXPECT_EQ(Bytes(pattern.begin(), pattern.begin() + 8), body(5, 8));
    EXPECT_EQ("", root.ReadFile(CAdjustLogMachine::FILE_NAME)) << "no failure recorded";

    restart();
    const _TDATAINFO productRow = resized(ADJUST_LINE_PRODUCT_NUMBER, 8);
    CAdjustData* reloaded = load(3, &productRow);
    EXPECT_EQ(0, info(reloaded, CAdjustData::ADJ_INFO_CHANGED));
    Bytes afterRestart(8);
    EXPECT_TRUE(reloaded->Get(afterRestart.data(), 8));
    EXPECT_EQ(Bytes(pattern.begin(), pattern.begin() + 8), afterRestart);
}

TEST_F(AdjustDataTest, UnclaimedRecordIsRemovedWithItsBytes)
{
    buildSmallStore();
    uint32_t value = 0x01020304;
    ASSERT_TRUE(items[2]->Set(&value, 4, true));
    restart();

    CAdjustData* stray = load(1, nullptr); // no catalogue row claims it: new size 0
    EXPECT_EQ(-1, info(stray, CAdjustData::ADJ_INFO_SIZE_STATE));
    stray->Setup4Delete();
    EXPECT_EQ(ITEM_DELETE_ID, info(stray, CAdjustData::ADJ_INFO_ID));
    EXPECT_EQ(1, info(stray, CAdjustData::ADJ_INFO_CHANGED));

    unsigned char buffer[4] = {};
    testing::internal::CaptureStdout();
    EXPECT_FALSE(stray->Get(buffer, 2));
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos,
              out.find("AdjustData Get Error: This is already removed Data. 9999999[ADJUST_CIS_CLAMP_LEVEL] old off-1, "
                       "old size-2, new size-0"))
        << out;

    ASSERT_TRUE(stray->WriteToNAND(0));
    EXPECT_EQ(3 * 140, headerLength());
    EXPECT_EQ(21, bodyLength());
    EXPECT_STREQ("ADJUST_CIS_SN", record(1).name) << "the later records moved up";
    EXPECT_EQ((Bytes{0x11, 0x04, 0x03, 0x02, 0x01}), body(0, 5)) << "the later bytes moved down";
    EXPECT_EQ(0, info(stray, CAdjustData::ADJ_INFO_OLD_SIZE));
    EXPECT_EQ(0, info(stray, CAdjustData::ADJ_INFO_CHANGED));
}

TEST_F(AdjustDataTest, FailingStoreStepsAreRecordedInTheChangeLog)
{
    buildSmallStore();
    const struct {
        const char* name;
        std::function<CAdjustData*()> plan;
        pref_sim_op fault;
        const char* logged;
    } cases[] = {
        {"header insert", [&] { return addNew(ADJUST_DATA_LIST[ADJUST_CIS_CHIP_VERSION], 560, 23); },
         PREF_SIM_OP_SET_LONG, "Header Insert Fail 560, 140"},
        {"header write",
         [&] {
             CAdjustData* item = items[0].get();
             CAdjustData::_tAdjDataExtHeader extHeader;
             extHeader = *item;
             extHeader.position = 1400;
             *item = extHeader;
             *item = _TArrangeInfo{0};
             item->Setup(ADJUST_CHECKSUM1, resized(ADJUST_CHECKSUM1, 2));
             return item;
         },
         PREF_SIM_OP_COUNT, "Header Write Fail 1400, 140"},
        {"header remove",
         [&] {
             CAdjustData* item = load(1, nullptr);
             item->Setup4Delete();
             return item;
         },
         PREF_SIM_OP_SET_LONG, "Header Remove Fail 140, 140"},
        {"body insert", [&] {
             CAdjustData* item = items[2].get();
             item->Setup(ADJUST_CIS_SN, resized(ADJUST_CIS_SN, 8));
             return item;
         },
         PREF_SIM_OP_SET_LONG, "Body Insert Fail old size:4, new off: 3, new size: 8"},
        {"body remove", [&] {
             CAdjustData* item = items[3].get();
             item->Setup(ADJUST_LINE_PRODUCT_NUMBER, resized(ADJUST_LINE_PRODUCT_NUMBER, 4));
             return item;
         },
         PREF_SIM_OP_SET_LONG, "Body Remove Fail old size:16, new off: 7, new size: 4"},
        {"size 0", [&] {
             CAdjustData* item = addNew(row(203, 0, 0, "TEST_EMPTY"), 560, 0);
             return item;
         },
         PREF_SIM_OP_COUNT, "[Error]TEST_EMPTY's size is 0"},
    };
    unsigned long index = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string("case ") + c.name);
        CAdjustData* item = c.plan();
        const intptr_t oldSize = info(item, CAdjustData::ADJ_INFO_OLD_SIZE);
        if (c.fault != PREF_SIM_OP_COUNT) pref_sim_fail_next(c.fault, 1);
        EXPECT_FALSE(item->WriteToNAND(0));
        EXPECT_EQ(std::to_string(++index) + "#" + c.logged, lastChangeLogLine());
        EXPECT_EQ(1, info(item, CAdjustData::ADJ_INFO_CHANGED)) << "still pending";
        EXPECT_EQ(oldSize, info(item, CAdjustData::ADJ_INFO_OLD_SIZE)) << "the stored record is kept";
        // Put the store back together for the next case.
        items.clear();
        unmount();
        pref_sim_reset();
        ASSERT_EQ(0, pref_reset(3));
        mount();
        buildSmallStore();
    }
}

TEST_F(AdjustDataTest, FailingBodyWriteLeavesTheOldValueReadable)
{
    buildSmallStore();
    CAdjustData* serial = items[2].get();
    uint32_t stored = 0xCAFEF00D;
    ASSERT_TRUE(serial->Set(&stored, 4, true));

    // Immediate: the write fails, the caller's buffer is let go, storage keeps the old value.
    bodyStore->Umount();
    uint32_t lost = 0xDEADBEEF;
    EXPECT_FALSE(serial->Set(&lost, 4, true));
    EXPECT_EQ("1#Body Write Fail off: 3, size: 4", lastChangeLogLine());
    ASSERT_TRUE(bodyStore->Mount(kBodyBase, kBodyLength, bodyLength()));
    uint32_t value = 0;
    EXPECT_TRUE(serial->Get(&value, 4));
    EXPECT_EQ(0xCAFEF00Du, value);
    lost = 0; // the item must not hold on to the caller's buffer
    EXPECT_TRUE(serial->WriteToNAND(0)) << "the retry rewrites what storage holds";
    EXPECT_EQ((Bytes{0x0D, 0xF0, 0xFE, 0xCA}), body(3, 4));

    // Deferred: the pending value survives the failed write and goes out on the retry.
    uint32_t next = 0x00C0FFEE;
    ASSERT_TRUE(serial->Set(&next, 4, false));
    bodyStore->Umount();
    EXPECT_FALSE(serial->WriteToNAND(0));
    ASSERT_TRUE(bodyStore->Mount(kBodyBase, kBodyLength, bodyLength()));
    EXPECT_EQ((Bytes{0x0D, 0xF0, 0xFE, 0xCA}), body(3, 4)) << "old value on storage";
    EXPECT_EQ(1, info(serial, CAdjustData::ADJ_INFO_CHANGED));
    ASSERT_TRUE(serial->WriteToNAND(0));
    EXPECT_EQ((Bytes{0xEE, 0xFF, 0xC0, 0x00}), body(3, 4));

    restart();
    const _TDATAINFO snRow = ADJUST_DATA_LIST[ADJUST_CIS_SN];
    CAdjustData* reloaded = load(2, &snRow);
    EXPECT_TRUE(reloaded->Get(&value, 4));
    EXPECT_EQ(0x00C0FFEEu, value);
}

} // namespace
