#include "LineData.h"

#include "LineDataList.h"
#include "PMReport.h"
#include "pref.h"

namespace pm {
namespace line {
namespace {

constexpr int kLineGroup = 1;

bool isLineId(int id)
{
    return id >= LINE_DATA_ID_FIRST && id < LINE_DATA_ID_FIRST + LINE_DATA_COUNT;
}

bool loadOnce(bool& lineLoaded)
{
    if (lineLoaded) return true;
    if (pref_load(kLineGroup) < 0) {
        PM_ERROR_LOG("Error to load PREF_ID_LINE");
        PM_ASSERT_FAILED();
        return false;
    }
    lineLoaded = true;
    return true;
}

} // namespace

unsigned long getLineDataOffset(int id)
{
    if (!isLineId(id)) {
        PM_ERROR_LOG("Wrong Line ID %d", id);
        PM_ASSERT_FAILED();
        return 0;
    }
    return LINE_DATA_LIST[id - LINE_DATA_ID_FIRST];
}

long readLineData(bool& lineLoaded, int id)
{
    long value = 0;
    readLineData(lineLoaded, id, value);
    return value;
}

bool readLineData(bool& lineLoaded, int id, long& value)
{
    if (!loadOnce(lineLoaded)) return false;
    const unsigned long key = getLineDataOffset(id);
    if (key == 0) return false;
    value = pref_get_long(kLineGroup, key);
    return true;
}

bool writeLineData(bool& lineLoaded, int id, long value, bool save)
{
    if (!loadOnce(lineLoaded)) return false;
    const unsigned long key = getLineDataOffset(id);
    if (key == 0) return false;
    if (pref_set_long(kLineGroup, key, value) < 0) {
        PM_ERROR_LOG("Error to set Line Data [%d, %x]", id, static_cast<unsigned>(key));
        return false;
    }
    if (save && pref_save(kLineGroup) < 0) {
        PM_ERROR_LOG("Error to save Line Data [%d]", id);
        return false;
    }
    return true;
}

} // namespace line
} // namespace pm
