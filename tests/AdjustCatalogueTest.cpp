// The adjust data catalogue, the shipment-country table and the line-data keys against
// the digests of the tables they are known by.
#include "AdjustDataList.h"
#include "CountryDataList.h"
#include "LineDataList.h"
#include "PMReport.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// FNV-1a: any changed name, size, default, file, word or key shows in the digest.
uint64_t Digest(const std::string& text)
{
    uint64_t hash = 14695981039346656037ull;
    for (unsigned char c : text) hash = (hash ^ c) * 1099511628211ull;
    return hash;
}

TEST(AdjustCatalogueTest, TablesMatchTheirDigestsAndAStrayIdIsAFailedCheck)
{
    std::string rows, country;
    for (const _TDATAINFO& row : ADJUST_DATA_LIST)
        rows += std::to_string(row.id) + " " + get_adjust_data_id_name(static_cast<_AdjustDataID>(row.id)) + " " + row.name + " "
            + row.file + " " + std::to_string(row.size) + " " + std::to_string(row.value) + "\n";
    EXPECT_EQ(0x61683a37c28ebbbfull, Digest(rows));
    EXPECT_STREQ("ADJUST_DATA_ID_MAX", get_adjust_data_id_name(ADJUST_DATA_ID_MAX));
    for (int id = -1; id <= ADJUST_DATA_ID_MAX; ++id) country += std::to_string(countryDataWordOf(id)) + " ";
    for (const auto& row : COUNTRY_DATA_LIST)
        for (uint32_t word : row) country += std::to_string(word) + " ";
    for (uint32_t key : LINE_DATA_LIST) country += std::to_string(key) + " ";
    EXPECT_EQ(0x485ff1f3d1063014ull, Digest(country));
    for (int stray : {-1, 134}) {
        const unsigned long before = pm::AssertionCount();
        EXPECT_STREQ("ADJUST_DATA_ID_UNKNOWN", get_adjust_data_id_name(static_cast<_AdjustDataID>(stray))) << stray;
        EXPECT_EQ(before + 1, pm::AssertionCount()) << "a failed check for " << stray;
    }
}

} // namespace
