// Dump and load of the whole adjust group. Neither takes the manager's lock: each
// manager operation they call locks on its own, so the lock is never taken twice by
// one thread. A load whose file cannot be started, or whose first save fails, comes
// back to the data saved on NAND (the manager's recovery rule) and answers false.

#include "CAdjustDataManager.h"

#include "AdjustDataList.h"
#include "AdjustGroupLayout.h"
#include "PMReport.h"
#include "pref.h"

namespace {

using namespace pm::adjust;

// A synced write of item 0 brings the group on NAND up to date: the write itself
// goes out at once, the sync after it writes every other pending change and saves.
bool touchItemZeroSynced(CAdjustDataManager* manager)
{
    unsigned char buffer[1] = {0};
    if (!manager->GetData(ADJUST_CHECKSUM1, buffer, sizeof(buffer))) return false;
    return manager->SetData(ADJUST_CHECKSUM1, buffer, sizeof(buffer), true);
}

} // namespace

bool CAdjustDataManager::DumpData2File(char* path)
{
    if (path == nullptr) return false;
    SetMode(OP_MODE_SNAPSHOT);
    if (!touchItemZeroSynced(this)) return false;
    if (pref_save_to_file(PREF_ID_ADJUST, path) < 0) {
        PM_TRACE("pref_save_to_file fail\n");
        return false;
    }
    if (pref_save(PREF_ID_ADJUST) < 0) {
        PM_TRACE("pref_save fail(for dump)\n");
        return false;
    }
    return true;
}

bool CAdjustDataManager::LoadDataFromFile(char* path)
{
    if (path == nullptr) return false;
    Finalize();
    if (pref_load_from_file(PREF_ID_ADJUST, path) < 0) {
        PM_TRACE("pref_load_from_file fail\n");
        return false;
    }
    // A file whose adjust data cannot be started leaves the camera's own data in place.
    if (!startOnImageInMemory()) return false;
    PM_TRACE("Load step1\n");
    SetMode(OP_MODE_SNAPSHOT);
    PM_TRACE("Load step2\n");

    unsigned char buffer[1] = {0};
    if (!GetData(ADJUST_CHECKSUM1, buffer, sizeof(buffer))) return false;
    PM_TRACE("Load step3\n");
    if (!SetData(ADJUST_CHECKSUM1, buffer, sizeof(buffer), true)) return false;
    PM_TRACE("Load step4\n");
    if (pref_save(PREF_ID_ADJUST) < 0) {
        PM_TRACE("pref_save fail(for dump)\n");
        return false;
    }
    return true;
}
