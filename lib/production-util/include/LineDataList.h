#pragma once
// Line data: ten 32-bit values that steer the production line (resume step, finished
// step, the current worker's adjust result, host-link auto start). They live in
// preference group 1 and are reached through the adjust data manager under the ids
// 134 to 143. Constant data; any thread may read it.

#include "ProductionModeExport.h"

#include <cstdint>

/// The first line id and the number of line ids (134 to 143).
constexpr int LINE_DATA_ID_FIRST = 134;
constexpr int LINE_DATA_COUNT = 10;

/// The byte offset (key) in preference group 1 of each line value: line id 134 + i uses
/// entry i. The first 8 bytes of the group are not used by line data.
PM_EXPORT extern const uint32_t LINE_DATA_LIST[LINE_DATA_COUNT];
