// The adjust data catalogue, the shipment-country table and the line-data keys against
// the figures they are known by.
#include "AdjustDataList.h"
#include "CountryDataList.h"
#include "LineDataList.h"
#include "PMReport.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// FNV-1a: any changed name, size, default, file or column shows in the digest.
uint64_t Digest(const std::string& text)
{
    uint64_t hash = 14695981039346656037ull;
    for (unsigned char c : text) hash = (hash ^ c) * 1099511628211ull;
    return hash;
}

TEST(AdjustCatalogueTest, RowsAddUpToTheKnownTotalsAndDigest)
{
    ASSERT_EQ(133, ADJUST_DATA_ID_MAX);
    unsigned long sizes = 0, defaults = 0;
    std::string rows;
    for (int id = 0; id < ADJUST_DATA_ID_MAX; ++id) {
        const _TDATAINFO& row = ADJUST_DATA_LIST[id];
        EXPECT_STREQ(row.name, get_adjust_data_id_name(static_cast<_AdjustDataID>(id))) << "id " << id;
        rows += std::to_string(row.id) + " " + row.name + " " + row.file + " " + std::to_string(row.size) + " "
            + std::to_string(row.value) + "\n";
        sizes += row.size;
        defaults += row.value;
    }
    EXPECT_EQ(3606101ul, sizes);
    EXPECT_EQ(13628ul, defaults);
    EXPECT_EQ(0x24c825c7ec84ca81ull, Digest(rows));
    EXPECT_STREQ("ADJUST_DATA_ID_MAX", get_adjust_data_id_name(ADJUST_DATA_ID_MAX));
    for (int stray : {-1, 134}) {
        const unsigned long before = pm::AssertionCount();
        testing::internal::CaptureStdout();
        EXPECT_STREQ("ADJUST_DATA_ID_UNKNOWN", get_adjust_data_id_name(static_cast<_AdjustDataID>(stray))) << stray;
        EXPECT_EQ(0u, testing::internal::GetCapturedStdout().find("Assertion Failed! --- File lib/production-util/src/AdjustDataList.cpp"));
        EXPECT_EQ(before + 1, pm::AssertionCount()) << stray;
    }
}

TEST(AdjustCatalogueTest, ShipmentCountryTableAndLineKeysMatchTheirDigests)
{
    ASSERT_EQ(143, COUNTRY_DATA_ROWS);
    std::string table;
    for (int id = -1; id <= ADJUST_DATA_ID_MAX; ++id) table += std::to_string(countryDataWordOf(id)) + " ";
    for (const auto& row : COUNTRY_DATA_LIST)
        for (uint32_t word : row) table += std::to_string(word) + " ";
    EXPECT_EQ(0x542d845ef72ae97eull, Digest(table));
    std::string keys;
    for (uint32_t key : LINE_DATA_LIST) keys += std::to_string(key) + " ";
    EXPECT_EQ(134, LINE_DATA_ID_FIRST);
    EXPECT_EQ("8 12 16 20 24 28 32 36 40 44 ", keys);
}

} // namespace
