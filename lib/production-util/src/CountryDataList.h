#pragma once
// The shipment-country table: twelve country-dependent adjust items are answered from
// the row of the shipment country (the 2-byte value of ADJUST_SHIPMENT_COUNTRY) instead
// of being read from storage. Constant data; any thread may read it. Internal to the
// adjust data manager's read path.

#include <cstdint>

/// Rows: shipment-country codes 0 to 142. Codes from 143 on have no row.
constexpr int COUNTRY_DATA_ROWS = 143;
/// Words per row, one per country-dependent item.
constexpr int COUNTRY_DATA_WORDS = 12;

/// The row of each shipment-country code. Word w answers item COUNTRY_DATA_WORD_ITEM[w];
/// the word of ADJUST_5GHZ_WIFI_CONTRY_CODE holds two ASCII characters, the first in
/// the lowest byte, the upper two bytes zero.
extern const uint32_t COUNTRY_DATA_LIST[COUNTRY_DATA_ROWS][COUNTRY_DATA_WORDS];

/// The item (an _AdjustDataID) that each word of a row answers.
extern const int COUNTRY_DATA_WORD_ITEM[COUNTRY_DATA_WORDS];

/// The word of a row that answers an item, or -1 when the item is not country-dependent.
int countryDataWordOf(int id);
