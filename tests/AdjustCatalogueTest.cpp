// The adjust data catalogue, the shipment-country table and the line-data keys: the
// tables against the figures they are known by.
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
    EXPECT_EQ(132, ADJUST_GYRO_DSP_THERM);
    EXPECT_EQ(133u * 140u, sizeof ADJUST_DATA_LIST) << "18,620 header bytes for a fresh store";

    unsigned long total = 0;
    unsigned long largest = 0;
    int largestId = -1;
    std::set<std::string> names;
    for (int id = 0; id < ADJUST_DATA_ID_MAX; ++id) {
        const _TDATAINFO& row = ADJUST_DATA_LIST[id];
        SCOPED_TRACE("row " + std::to_string(id));
        EXPECT_EQ(static_cast<uint32_t>(id), row.id);
        EXPECT_STREQ("adj_body.dat", row.file);
        ASSERT_NE(nullptr, std::memchr(row.name, '\0', sizeof row.name));
        EXPECT_EQ(0, std::strncmp(row.name, "ADJUST_", 7));
        EXPECT_TRUE(names.insert(row.name).second) << "names are the matching key and must be unique";
        EXPECT_GT(row.size, 0u);
        if (row.size > 4) {
            EXPECT_EQ(0u, row.value) << "items above 4 bytes default to 0";
        }
        total += row.size;
        if (row.size > largest) {
            largest = row.size;
            largestId = id;
        }
    }
    EXPECT_EQ(3606101ul, total);
    EXPECT_EQ(ADJUST_CAPTURE_LTE_DEFECT_PIXEL_ADR, largestId);
    EXPECT_EQ(2380000ul, largest);
}

TEST(AdjustCatalogueTest, QuotedRowsHoldTheirNamesSizesAndDefaults)
{
    struct Row {
        int id;
        const char* name;
        uint32_t size;
        uint32_t value;
    };
    const Row rows[] = {
        {0, "ADJUST_CHECKSUM1", 1, 0x11},
        {1, "ADJUST_CHECKSUM2", 1, 0x7F},
        {2, "ADJUST_MAIN_FUNCTION_PROCESS_MARK", 1, 0x12},
        {13, "ADJUST_ISO_SENSITIVITY_PROCESS_MARK", 1, 0},
        {27, "ADJUST_CIS_SN", 4, 0},
        {29, "ADJUST_CIS_CLAMP_LEVEL", 2, 5},
        {46, "ADJUST_CIS_L_PIXEL_NUM", 2, 630},
        {60, "ADJUST_PS_DUTY_RATIO", 2, 18},
        {61, "ADJUST_PS_PULSE_COUNT", 2, 25},
        {62, "ADJUST_PS_DATA_READ_TIME", 2, 20},
        {68, "ADJUST_AF_PUNT_FOCUS_POSITION", 4, 0},
        {69, "ADJUST_SHIPMENT_COUNTRY", 2, 0},
        {73, "ADJUST_LOCAL_MACKETTING_AFRICA", 1, 0},
        {84, "ADJUST_LINE_PRODUCT_NUMBER", 16, 0},
        {85, "ADJUST_CIS_LOT_NUMBER", 32, 0},
        {94, "ADJUST_WIFI_MAC_ADDRESS", 12, 0},
        {101, "ADJUST_5GHZ_WIFI_CONTRY_CODE", 2, 0x3030},
        {105, "ADJUST_EFS_OFFSEET", 4, 0},
        {114, "ADJUST_PRESET_DEFECT_PIXEL_ADR", 8400, 0},
        {115, "ADJUST_CAPTURE_LTE_DEFECT_PIXEL_ADR", 2380000, 0},
        {122, "ADJUST_CAPTURE_LV3_DEFECT_PIXEL_ADR", 500000, 0},
        {126, "ADJUST_CAPTURE_COLOR_SHADING_LIGHT_B_2_ADDR", 4000, 0},
        {127, "ADJUST_GYROSCOPE_PROCESS_MARK", 1, 0x12},
        {132, "ADJUST_GYRO_DSP_THERM", 4, 0},
    };
    for (const Row& expected : rows) {
        const _TDATAINFO& row = ADJUST_DATA_LIST[expected.id];
        EXPECT_STREQ(expected.name, row.name) << "case id " << expected.id;
        EXPECT_EQ(expected.size, row.size) << "case id " << expected.id;
        EXPECT_EQ(expected.value, row.value) << "case id " << expected.id;
    }

    // Process marks: one byte, default 0x12, but the ISO sensitivity mark defaults to 0.
    for (int id = 2; id <= 26; ++id) {
        EXPECT_EQ(1u, ADJUST_DATA_LIST[id].size) << "case id " << id;
        EXPECT_EQ(id == ADJUST_ISO_SENSITIVITY_PROCESS_MARK ? 0u : 0x12u, ADJUST_DATA_LIST[id].value) << "case id " << id;
    }

    // A fresh store lays the items back to back in id order.
    unsigned long offset = 0;
    unsigned long offsetOf114 = 0, offsetOf115 = 0, offsetOf116 = 0;
    for (int id = 0; id <= ADJUST_CAPTURE_VFPN_HIGH_TEMP_ISO100_TAB0; ++id) {
        if (id == 114) offsetOf114 = offset;
        if (id == 115) offsetOf115 = offset;
        if (id == 116) offsetOf116 = offset;
        offset += ADJUST_DATA_LIST[id].size;
    }
    EXPECT_EQ(320ul, offsetOf114);
    EXPECT_EQ(8720ul, offsetOf115);
    EXPECT_EQ(2388720ul, offsetOf116);

    // Default values of the whole table: 33 non-zero, adding up to 13,628.
    unsigned long defaults = 0;
    int nonZero = 0;
    for (const _TDATAINFO& row : ADJUST_DATA_LIST) {
        defaults += row.value;
        if (row.value != 0) ++nonZero;
    }
    EXPECT_EQ(13628ul, defaults);
    EXPECT_EQ(33, nonZero);
}

TEST(AdjustCatalogueTest, IdToNameCoversEveryIdAndReportsAStrayOne)
{
    for (int id = 0; id < ADJUST_DATA_ID_MAX; ++id) {
        EXPECT_STREQ(ADJUST_DATA_LIST[id].name, get_adjust_data_id_name(static_cast<_AdjustDataID>(id))) << "case id " << id;
    }
    EXPECT_STREQ("ADJUST_DATA_ID_MAX", get_adjust_data_id_name(ADJUST_DATA_ID_MAX));
    EXPECT_STREQ("ADJUST_CHECKSUM1", get_adjust_data_id_name(ADJUST_CHECKSUM1));
    EXPECT_EQ(0ul, pm::AssertionCount());

    for (int stray : {-1, 134, 143, 100000}) {
        const unsigned long before = pm::AssertionCount();
        testing::internal::CaptureStdout();
        const char* name = get_adjust_data_id_name(static_cast<_AdjustDataID>(stray));
        const std::string out = testing::internal::GetCapturedStdout();
        ASSERT_NE(nullptr, name) << "case id " << stray;
        EXPECT_STREQ("ADJUST_DATA_ID_UNKNOWN", name) << "case id " << stray;
        EXPECT_EQ(before + 1, pm::AssertionCount()) << "case id " << stray;
        EXPECT_NE(std::string::npos, out.find("Assertion Failed! --- File lib/production-util/src/AdjustDataList.cpp"))
            << "case id " << stray << ": " << out;
    }
}

std::string codeOf(uint32_t word)
{
    return std::string{static_cast<char>(word & 0xFF), static_cast<char>((word >> 8) & 0xFF)};
}

TEST(AdjustCatalogueTest, ShipmentCountryRowsAnswerTheirItems)
{
    ASSERT_EQ(143, COUNTRY_DATA_ROWS);
    EXPECT_EQ(143u * 12u * 4u, sizeof COUNTRY_DATA_LIST);

    const int items[] = {71, 70, 96, 98, 101, 95, 97, 76, 75, 72, 73, 74};
    for (int word = 0; word < COUNTRY_DATA_WORDS; ++word) {
        EXPECT_EQ(items[word], COUNTRY_DATA_WORD_ITEM[word]) << "case word " << word;
        EXPECT_EQ(word, countryDataWordOf(items[word])) << "case word " << word;
    }
    for (int id : {-1, 0, 69, 77, 99, 100, 102, 132, 134}) EXPECT_EQ(-1, countryDataWordOf(id)) << "case id " << id;

    const int language = countryDataWordOf(ADJUST_DEFAULT_LANGUAGE);
    const int additional = countryDataWordOf(ADJUST_ADDITIONAL_LANGUAGE);
    const int gateway = countryDataWordOf(ADJUST_WIFI_SNS_GATEWAY);
    const int channel = countryDataWordOf(ADJUST_WIFI_COUNTRY_CHANNEL);
    const int code5g = countryDataWordOf(ADJUST_5GHZ_WIFI_CONTRY_CODE);
    EXPECT_EQ(28u, COUNTRY_DATA_LIST[2][language]);
    EXPECT_EQ(3u, COUNTRY_DATA_LIST[2][additional]);
    EXPECT_EQ("AL", codeOf(COUNTRY_DATA_LIST[2][code5g]));
    EXPECT_EQ(1u, COUNTRY_DATA_LIST[132][gateway]);
    EXPECT_EQ(11u, COUNTRY_DATA_LIST[132][channel]);
    EXPECT_EQ("US", codeOf(COUNTRY_DATA_LIST[132][code5g]));
    EXPECT_EQ(1u, COUNTRY_DATA_LIST[55][language]);
    EXPECT_EQ("KR", codeOf(COUNTRY_DATA_LIST[55][code5g]));
    for (int row : {98, 99, 128, 131, 133}) EXPECT_EQ("GB", codeOf(COUNTRY_DATA_LIST[row][code5g])) << "case row " << row;
    for (int word = 0; word < COUNTRY_DATA_WORDS; ++word) {
        EXPECT_EQ(word == code5g ? 0x3030u : 0u, COUNTRY_DATA_LIST[57][word]) << "row 57, case word " << word;
    }

    // Every column against its total, and the codes in row order, as the table lists them.
    const struct {
        int item;
        unsigned long total;
    } totals[] = {{71, 503}, {70, 107}, {96, 124}, {98, 1838}, {95, 72}, {76, 173}, {75, 48}, {72, 121},
                  {97, 0},   {73, 0},   {74, 0}};
    for (const auto& column : totals) {
        const int word = countryDataWordOf(column.item);
        unsigned long total = 0;
        for (const auto& row : COUNTRY_DATA_LIST) total += row[word];
        EXPECT_EQ(column.total, total) << "case item " << column.item;
    }
    std::string codes;
    for (const auto& row : COUNTRY_DATA_LIST) {
        EXPECT_EQ(0u, row[code5g] >> 16);
        codes += codeOf(row[code5g]);
    }
    EXPECT_EQ("0000ALDZ00ARAMAUATAZBD00BABRBG0000CA0000CLCNCO00HRCYCZDK00EG0000FR0000GEDEBRGR000000HKHUINIDIR00ILIT"
              "0000JOKZKEKR0000LVLB00BDMK0000MY00000000MX0000MA000000NPNLNZCNPK00PA00PEPHPLPT00RORURW00SA000000GBGB"
              "00000000000000SG00SKSI00ZAESLKLKBRSECHSYTW0000TH00TNTR00GB00RUGBUSGBUYUZVN0000ZW000000",
              codes);
}

TEST(AdjustCatalogueTest, LineIdsMapToTheirKeys)
{
    ASSERT_EQ(10, LINE_DATA_COUNT);
    EXPECT_EQ(134, LINE_DATA_ID_FIRST);
    for (int i = 0; i < LINE_DATA_COUNT; ++i) EXPECT_EQ(8u + 4u * i, LINE_DATA_LIST[i]) << "case line id " << 134 + i;
}

} // namespace
