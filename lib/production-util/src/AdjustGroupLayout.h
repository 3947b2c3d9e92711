#pragma once
// Where the adjust data lie in preference group 3: the two marker bytes, the header area
// of 140-byte records and the body area, each behind its length word.

namespace pm {
namespace adjust {

constexpr int PREF_ID_ADJUST = 3;
constexpr unsigned long MARKER1_OFFSET = 8;
constexpr unsigned long MARKER2_OFFSET = 5294097;
constexpr unsigned long GROUP_SIZE = MARKER2_OFFSET + 1; // the second marker is the group's last byte
constexpr unsigned char MARKER1 = 0x11;
constexpr unsigned char MARKER2 = 0x26;
constexpr unsigned long HEADER_SIZE_OFFSET = 9;
constexpr unsigned long HEADER_DATA_OFFSET = 13;
constexpr unsigned long BODY_SIZE_OFFSET = 51213;
constexpr unsigned long BODY_DATA_OFFSET = 51217;
constexpr long HEADER_CAPACITY = 51200;
constexpr long BODY_CAPACITY = 5242880;

} // namespace adjust
} // namespace pm
