// The adjust data catalogue, the shipment-country table and the line-data keys against
// the figures they are known by.
#include "AdjustDataList.h"
#include "CountryDataList.h"
#include "LineDataList.h"
#include "PMReport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

namespace {

TEST(AdjustCatalogueTest, RowsAreInIdOrderAndAddUpToTheKnownTotals)
{
    ASSERT_EQ(133, ADJUST_DATA_ID_MAX);
    unsigned long sizes = 0, defaults = 0, offsetOf116 = 0;
    int nonZero = 0;
    std::set<std::string> names;
    for (int id = 0; id < ADJUST_DATA_ID_MAX; ++id) {
        const _TDATAINFO& row = ADJUST_DATA_LIST[id];
        SCOPED_TRACE("row " + std::to_string(id));
        EXPECT_EQ(static_cast<uint32_t>(id), row.id);
        EXPECT_STREQ("adj_body.dat", row.file);
        EXPECT_STREQ(row.name, get_adjust_data_id_name(static_cast<_AdjustDataID>(id)));
        EXPECT_EQ(0, std::strncmp(row.name, "ADJUST_", 7));
        EXPECT_TRUE(names.insert(row.name).second) << "names are the matching key and must be unique";
        EXPECT_GT(row.size, 0u);
        EXPECT_TRUE(row.size <= 4 || row.value == 0) << "items above 4 bytes default to 0";
        EXPECT_TRUE(id < 2 || id > 26 || row.value == (id == 13 ? 0u : 0x12u)) << "process marks default to 0x12";
        if (id == ADJUST_CAPTURE_VFPN_HIGH_TEMP_ISO100_TAB0) offsetOf116 = sizes;
        sizes += row.size;
        defaults += row.value;
        nonZero += row.value != 0;
    }
    EXPECT_EQ(3606101ul, sizes);
    EXPECT_EQ(2388720ul, offsetOf116) << "a fresh store lays the items back to back in id order";
    EXPECT_EQ(13628ul, defaults);
    EXPECT_EQ(33, nonZero);
    EXPECT_STREQ("ADJUST_DATA_ID_MAX", get_adjust_data_id_name(ADJUST_DATA_ID_MAX));
    const struct {
        int id;
        const char* name;
        uint32_t size, value;
    } quoted[] = {
        {1, "ADJUST_CHECKSUM2", 1, 0x7F},
        {29, "ADJUST_CIS_CLAMP_LEVEL", 2, 5},
        {46, "ADJUST_CIS_L_PIXEL_NUM", 2, 630},
        {73, "ADJUST_LOCAL_MACKETTING_AFRICA", 1, 0},
        {84, "ADJUST_LINE_PRODUCT_NUMBER", 16, 0},
        {101, "ADJUST_5GHZ_WIFI_CONTRY_CODE", 2, 0x3030},
        {105, "ADJUST_EFS_OFFSEET", 4, 0},
        {115, "ADJUST_CAPTURE_LTE_DEFECT_PIXEL_ADR", 2380000, 0},
    };
    for (const auto& row : quoted) {
        EXPECT_STREQ(row.name, ADJUST_DATA_LIST[row.id].name) << "id " << row.id;
        EXPECT_EQ(row.size, ADJUST_DATA_LIST[row.id].size) << "id " << row.id;
        EXPECT_EQ(row.value, ADJUST_DATA_LIST[row.id].value) << "id " << row.id;
    }
}

TEST(AdjustCatalogueTest, AStrayIdIsAFailedCheckAndNamedUnknown)
{
    for (int stray : {-1, 134, 100000}) {
        const unsigned long before = pm::AssertionCount();
        testing::internal::CaptureStdout();
        EXPECT_STREQ("ADJUST_DATA_ID_UNKNOWN", get_adjust_data_id_name(static_cast<_AdjustDataID>(stray))) << stray;
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(before + 1, pm::AssertionCount()) << stray;
        EXPECT_EQ(0u, out.find("Assertion Failed! --- File lib/production-util/src/AdjustDataList.cpp")) << out;
    }
}

std::string CodeOf(uint32_t word)
{
    EXPECT_EQ(0u, word >> 16);
    return std::string{static_cast<char>(word & 0xFF), static_cast<char>((word >> 8) & 0xFF)};
}

TEST(AdjustCatalogueTest, ShipmentCountryColumnsAnswerTheirItemsAndAddUp)
{
    ASSERT_EQ(143, COUNTRY_DATA_ROWS);
    const struct {
        int item;
        unsigned long total;
    } columns[] = {{71, 503}, {70, 107}, {96, 124}, {98, 1838}, {101, 0}, {95, 72},
                   {97, 0},   {76, 173}, {75, 48},  {72, 121},  {73, 0},  {74, 0}};
    for (int word = 0; word < COUNTRY_DATA_WORDS; ++word) {
        EXPECT_EQ(columns[word].item, COUNTRY_DATA_WORD_ITEM[word]) << "word " << word;
        EXPECT_EQ(word, countryDataWordOf(columns[word].item)) << "word " << word;
        unsigned long total = 0; // the 5 GHz code column is checked as text below
        for (const auto& row : COUNTRY_DATA_LIST) total += word == 4 ? 0 : row[word];
        EXPECT_EQ(columns[word].total, total) << "word " << word;
    }
    for (int id : {-1, 0, 69, 77, 99, 100, 102, 132, 134}) EXPECT_EQ(-1, countryDataWordOf(id)) << "id " << id;
    std::string codes;
    for (const auto& row : COUNTRY_DATA_LIST) codes += CodeOf(row[4]);
    EXPECT_EQ("0000ALDZ00ARAMAUATAZBD00BABRBG0000CA0000CLCNCO00HRCYCZDK00EG0000FR0000GEDEBRGR000000HKHUINIDIR00ILIT"
              "0000JOKZKEKR0000LVLB00BDMK0000MY00000000MX0000MA000000NPNLNZCNPK00PA00PEPHPLPT00RORURW00SA000000GBGB"
              "00000000000000SG00SKSI00ZAESLKLKBRSECHSYTW0000TH00TNTR00GB00RUGBUSGBUYUZVN0000ZW000000",
              codes);
    for (int word : {0, 1, 2, 3, 5, 6, 7, 8, 9, 10, 11})
        EXPECT_EQ(0u, COUNTRY_DATA_LIST[57][word]) << "row 57 is blank but for its code, word " << word;
    EXPECT_EQ(11u, COUNTRY_DATA_LIST[132][3]) << "the US channel";
}

TEST(AdjustCatalogueTest, LineIdsMapToTheirKeys)
{
    ASSERT_EQ(10, LINE_DATA_COUNT);
    EXPECT_EQ(134, LINE_DATA_ID_FIRST);
    for (int i = 0; i < LINE_DATA_COUNT; ++i) EXPECT_EQ(8u + 4u * i, LINE_DATA_LIST[i]) << "line id " << 134 + i;
}

} // namespace
