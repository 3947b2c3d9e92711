#include "LineDataList.h"

const uint32_t LINE_DATA_LIST[LINE_DATA_COUNT] = {8, 12, 16, 20, 24, 28, 32, 36, 40, 44};
