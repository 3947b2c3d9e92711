#pragma once
// Plain records of the adjust data: the 140-byte header record kept in the
// header area of preference group 3, one catalogue row, and the new body offset
// that re-arrangement hands to an item. All integers are little-endian on storage.

#include <cstdint>

/// Size in bytes of one header record and of one catalogue row.
constexpr unsigned long ADJ_HEADER_RECORD_SIZE = 140;

/// Id of an item that is to be deleted from the store at the next sync.
constexpr int ITEM_DELETE_ID = 9999999;

/// One stored header record: name, file, body offset, size and default value of an item.
/// Constructed all zero; copies all 140 bytes.
struct _TAdjDataHeader {
    char name[64]{};   ///< item name, NUL-terminated; the key that matches records to the catalogue
    char file[64]{};   ///< file name from the catalogue ("adj_body.dat"); carried, never interpreted
    uint32_t offset{}; ///< byte offset of the item's data in the body area
    uint32_t size{};   ///< length of the item's data in bytes
    uint32_t value{};  ///< default value of the item
};
static_assert(sizeof(_TAdjDataHeader) == ADJ_HEADER_RECORD_SIZE, "a header record is 140 bytes on storage");

/// One catalogue row (ADJUST_DATA_LIST), passed by value.
struct _TDATAINFO {
    uint32_t id;    ///< catalogue identifier (_AdjustDataID)
    uint32_t value; ///< default value, little-endian
    uint32_t size;  ///< size in bytes
    char name[64];  ///< item name, NUL-terminated
    char file[64];  ///< "adj_body.dat"
};
static_assert(sizeof(_TDATAINFO) == ADJ_HEADER_RECORD_SIZE, "a catalogue row is 140 bytes");

/// A new body offset handed to an item by re-arrangement.
struct _TArrangeInfo {
    uint32_t offset;
};
