#include "CAdjustDataManager.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <unistd.h>

#include "AdjWriteLog.h"
#include "AdjustDataList.h"
#include "AdjustDataManagerLock.h"
#include "AdjustGroupLayout.h"
#include "CAdjustData.h"
#include "CAdjustPreference.h"
#include "CProductionOSD.h"
#include "CountryDataList.h"
#include "LineData.h"
#include "LineDataList.h"
#include "PMReport.h"
#include "kernel.h"
#include "pref.h"

namespace {

using namespace pm::adjust;

constexpr int PREF_ID_LINE = 1;

// Set once the whole adjust group has been reset by ResetData; never cleared, so a
// second failing item reset does not wipe the group again.
bool storeResetDone = false;

bool isLineId(int id)
{
    return id >= LINE_DATA_ID_FIRST;
}

// Set when a failed store step made the manager drop its items and the start on the
// image reloaded from NAND failed as well: every later item call tries that start again.
// Reached only under the manager's mutex.
bool restartPending = false;

// An area that is empty, or longer than its place in the group, cannot be mounted: it
// would reach into the next area. Only one empty area means the group is broken too.
bool areaLengthsAreUsable(long headerLength, long bodyLength)
{
    if (headerLength == 0 && bodyLength == 0) return true;
    if (headerLength <= 0 || bodyLength <= 0 || headerLength > HEADER_CAPACITY || bodyLength > BODY_CAPACITY) {
        PM_ERROR_LOG("Adjust data areas are broken (header %ld bytes, body %ld bytes)", headerLength, bodyLength);
        return false;
    }
    return true;
}

void emptyAdjustAreas()
{
    PM_ERROR_LOG("Adjust data cannot be used: the store is built afresh from the catalogue");
    pref_set_long(PREF_ID_ADJUST, HEADER_SIZE_OFFSET, 0);
    pref_set_long(PREF_ID_ADJUST, BODY_SIZE_OFFSET, 0);
}

void showCorruptionOnReadOnlyNand()
{
    const std::string partition = KernelPath("/mnt/ubi2");
    if (access(partition.c_str(), W_OK) != 0 && errno == EROFS) {
        CProductionOSD::GetInstance()->Initialize();
        CProductionOSD::GetInstance()->Text(3, "Adjust Data is corrupted.\n");
    }
}

bool isCountryDerived(int id)
{
    return id >= 0 && id < ADJUST_DATA_ID_MAX && countryDataWordOf(id) >= 0;
}

bool itemIdLess(CAdjustData* a, CAdjustData* b)
{
    if (a == nullptr || b == nullptr) return a != nullptr && b == nullptr;
    return a->Infomation(CAdjustData::ADJ_INFO_ID) < b->Infomation(CAdjustData::ADJ_INFO_ID);
}

long itemId(CAdjustData* item)
{
    return static_cast<long>(item->Infomation(CAdjustData::ADJ_INFO_ID));
}

} // namespace

CAdjustDataManager* CAdjustDataManager::GetInstance()
{
    static CAdjustDataManager instance;
    return &instance;
}

CAdjustDataManager::CAdjustDataManager()
    : headerStore(nullptr), bodyStore(nullptr), lineLoaded(false), mutex(_fx_mutex_create(__FILE__, __func__, __LINE__))
{}

CAdjustDataManager::~CAdjustDataManager()
{
    for (CAdjustData* item : items) delete item;
    items.clear();
    sortedItems.clear();
    for (CAdjustPreference* store : {headerStore, bodyStore}) {
        if (store == nullptr) continue;
        store->Umount();
        delete store;
    }
    headerStore = nullptr;
    bodyStore = nullptr;
    _fx_mutex_delete(mutex, __FILE__, __func__, __LINE__);
}

void CAdjustDataManager::Initialize()
{
    startOnImageInMemory();
}

bool CAdjustDataManager::startOnImageInMemory()
{
    ADJUST_DATA_MANAGER_LOCK(mutex);
    if (headerStore != nullptr || bodyStore != nullptr) return false;

    restartPending = false;
    const bool started = start();
    if (!started) {
        PM_ERROR_LOG("Adjust data could not be started: back to the data saved on NAND");
        PM_ASSERT_FAILED();
        restartFromNand();
    }
    PM_TRACE("ADJUST DATA INITIALIZED %x, [%d]\n", static_cast<unsigned>(reinterpret_cast<uintptr_t>(this)),
             static_cast<int>(getpid()));
    return started;
}

bool CAdjustDataManager::start()
{
    long headerLength = pref_get_long(PREF_ID_ADJUST, HEADER_SIZE_OFFSET);
    long bodyLength = pref_get_long(PREF_ID_ADJUST, BODY_SIZE_OFFSET);
    if (!areaLengthsAreUsable(headerLength, bodyLength)) {
        emptyAdjustAreas();
        headerLength = 0;
        bodyLength = 0;
    }

    headerStore = new CAdjustPreference();
    const bool headerMounted = headerStore->Mount(HEADER_DATA_OFFSET, HEADER_SIZE_OFFSET, headerLength);
    bodyStore = new CAdjustPreference();
    const bool bodyMounted = bodyStore->Mount(BODY_DATA_OFFSET, BODY_SIZE_OFFSET, bodyLength);

    if (!headerMounted || !bodyMounted) {
        PM_TRACE("There is no Adjust-data\n");
        return makeAdjustHeaderInfo(true);
    }
    if (!headerStore->crcCheck() || !bodyStore->crcCheck()) showCorruptionOnReadOnlyNand();
    PM_CHECK(readAdjustHeaderInfo(), false);
    PM_CHECK(allocateID(), false);
    return arrangeData();
}

void CAdjustDataManager::dropItemsAndStores()
{
    for (CAdjustData* item : items) delete item;
    items.clear();
    sortedItems.clear();
    for (CAdjustPreference** store : {&headerStore, &bodyStore}) {
        if (*store == nullptr) continue;
        (*store)->Umount();
        delete *store;
        *store = nullptr;
    }
}

bool CAdjustDataManager::restartFromNand()
{
    const bool snapshotMaking = headerStore != nullptr && headerStore->SnapshotMaking();
    dropItemsAndStores();
    if (pref_load(PREF_ID_ADJUST) >= 0 && start()) {
        restartPending = false;
        SetMode(snapshotMaking ? OP_MODE_SNAPSHOT : OP_MODE_NO_SNAPSHOT);
        return true;
    }
    // The image may be half-done again: never leave it behind for a later save.
    dropItemsAndStores();
    if (pref_load(PREF_ID_ADJUST) < 0) PM_ERROR_LOG("Adjust data on NAND cannot be read");
    restartPending = true;
    return false;
}

bool CAdjustDataManager::readyForItems()
{
    return !restartPending || restartFromNand();
}

bool CAdjustDataManager::syncOrRestart()
{
    if (sync()) return true;
    PM_ERROR_LOG("Adjust data could not be saved: back to the data saved on NAND");
    restartFromNand();
    return false;
}

void CAdjustDataManager::Finalize()
{
    ADJUST_DATA_MANAGER_LOCK(mutex);
    dropItemsAndStores();
    restartPending = false;
    lineLoaded = false;
    PM_TRACE("ADJUST DATA FINALIZED %x\n", static_cast<unsigned>(reinterpret_cast<uintptr_t>(this)));
}

void CAdjustDataManager::SetMode(E_OP_MODE mode)
{
    const bool making = mode == OP_MODE_SNAPSHOT;
    if (headerStore != nullptr) headerStore->SelectSnapshotMaking(making);
    if (bodyStore != nullptr) bodyStore->SelectSnapshotMaking(making);
}

CAdjustData* CAdjustDataManager::find(int id)
{
    if (sortedItems.empty()) {
        sortedItems = items;
        std::stable_sort(sortedItems.begin(), sortedItems.end(), itemIdLess);
    }
    if (id < 0 || static_cast<size_t>(id) >= sortedItems.size()) {
        PM_TRACE("find() Vector: %d < Index: %d\n", static_cast<int>(sortedItems.size()), id);
        return nullptr;
    }
    CAdjustData* item = sortedItems[id];
    if (item != nullptr && itemId(item) == id) return item;

    // Ids are not one per index (a stray record before id 0): search by id instead.
    auto it = std::lower_bound(sortedItems.begin(), sortedItems.end(), id, [](CAdjustData* entry, int wanted) {
        return entry != nullptr && itemId(entry) < wanted;
    });
    if (it != sortedItems.end() && *it != nullptr && itemId(*it) == id) return *it;
    return nullptr;
}

CAdjustData* CAdjustDataManager::find(char const* name)
{
    CAdjustData* match = nullptr;
    for (CAdjustData* item : items) {
        if (item == nullptr) continue;
        const char* itemName = reinterpret_cast<const char*>(item->Infomation(CAdjustData::ADJ_INFO_NAME));
        if (std::strcmp(name, itemName) == 0) match = item;
    }
    return match;
}

bool CAdjustDataManager::GetData(int id, void* buffer, unsigned long length)
{
    ADJUST_DATA_MANAGER_LOCK(mutex);
    PM_CHECK(buffer != nullptr || length == 0, false);
    if (!isLineId(id) && !readyForItems()) return false;

    if (isCountryDerived(id)) {
        uint8_t code[2] = {0, 0};
        bool result = false;
        CAdjustData* shipment = find(ADJUST_SHIPMENT_COUNTRY);
        if (shipment == nullptr) {
            PM_TRACE("Get: I didn't find anything %d\n", id);
        } else {
            result = shipment->Get(code, sizeof(code));
        }
        const unsigned country = code[0] | (code[1] << 8);
        if (country >= static_cast<unsigned>(COUNTRY_DATA_ROWS)) {
            PM_ERROR_LOG("Shipment country %u has no row in the country table", country);
            return false;
        }
        const uint32_t word = COUNTRY_DATA_LIST[country][countryDataWordOf(id)];
        if (id == ADJUST_5GHZ_WIFI_CONTRY_CODE) {
            const char text[3] = {static_cast<char>(word & 0xff), static_cast<char>((word >> 8) & 0xff), '\0'};
            if (length > 0) std::memcpy(buffer, text, std::min<unsigned long>(length, sizeof(text)));
        } else {
            const uint8_t bytes[4] = {static_cast<uint8_t>(word), static_cast<uint8_t>(word >> 8),
                                      static_cast<uint8_t>(word >> 16), static_cast<uint8_t>(word >> 24)};
            if (length > 0) std::memcpy(buffer, bytes, std::min<unsigned long>(length, sizeof(bytes)));
        }
        return result;
    }

    if (!isLineId(id)) {
        CAdjustData* item = find(id);
        if (item == nullptr) {
            PM_TRACE("Get: I didn't find anything %d\n", id);
            return false;
        }
        return item->Get(buffer, length);
    }

    long value = 0;
    if (length != 4 || !pm::line::readLineData(lineLoaded, id, value)) return false;
    const int32_t word = static_cast<int32_t>(value);
    std::memcpy(buffer, &word, sizeof(word));
    return true;
}

bool CAdjustDataManager::SetData(int id, void* buffer, unsigned long length, bool sync)
{
    ADJUST_DATA_MANAGER_LOCK(mutex);
    PM_CHECK(buffer != nullptr || length == 0, false);
    const char* syncMark = sync ? "[sync]" : "";

    if (!isLineId(id)) {
        if (!readyForItems()) return false;
        bool result = false;
        bool storeStepFailed = false;
        CAdjustData* item = find(id);
        if (item != nullptr) {
            adj_write_log("SetData(): %s, %d %s \n", get_adjust_data_id_name(static_cast<_AdjustDataID>(id)),
                          static_cast<int>(length), syncMark);
            result = item->Set(buffer, length, sync);
            // A refused argument touches nothing; any other failure of an immediate Set
            // happened in the stores.
            const bool argumentsFit =
                length <= static_cast<unsigned long>(item->Infomation(CAdjustData::ADJ_INFO_NEW_SIZE))
                && (buffer != nullptr || length == 0);
            storeStepFailed = sync && !result && argumentsFit;
        } else {
            PM_TRACE("Set: I didn't find anything %d\n", id);
        }
        if (sync) {
            if (storeStepFailed) {
                PM_ERROR_LOG("Adjust data could not be written: back to the data saved on NAND");
                restartFromNand();
            }
            PM_CHECK(!storeStepFailed && syncOrRestart(), false);
            adj_write_log("SetData(): sync done \n");
        } else {
            adj_write_log("SetData(): done \n");
        }
        return result;
    }

    if (length != 4) return false;
    int32_t value = 0;
    std::memcpy(&value, buffer, sizeof(value));
    if (id == LINE_DATA_ID_FIRST + 1) {
        adj_write_log("SetData(): %s, %d value = %d %s \n", "LINE_CONTROL_NEXT_STEP", static_cast<int>(length), value,
                      syncMark);
    } else if (id == LINE_DATA_ID_FIRST) {
        adj_write_log("SetData(): %s, %d value = %d %s \n", "LINE_CONTROL_FINISHED_STEP", static_cast<int>(length),
                      value, syncMark);
    }
    return writeLineData(id, value, sync);
}

bool CAdjustDataManager::ResetData(int id)
{
    ADJUST_DATA_MANAGER_LOCK(mutex);

    if (!isLineId(id)) {
        // A store that cannot be started again is not a missing item: it is left alone.
        if (!readyForItems()) return false;
        CAdjustData* item = find(id);
        if (item != nullptr && item->Reset()) return true;
        // The item cannot be put back on its own: the whole group goes back to its
        // defaults, once per process.
        if (headerStore == nullptr) headerStore = new CAdjustPreference();
        if (!storeResetDone) {
            headerStore->Reset();
            storeResetDone = true;
        }
        return true;
    }

    if (pref_reset(PREF_ID_LINE) < 0) {
        PM_ERROR_LOG("Error to reset Line Data");
        return false;
    }
    if (pref_save(PREF_ID_LINE) < 0) {
        PM_ERROR_LOG("Error to save Line Data for Resetting");
        return false;
    }
    return true;
}

unsigned long CAdjustDataManager::getLineDataOffset(int id)
{
    return pm::line::getLineDataOffset(id);
}

long CAdjustDataManager::readLineData(int id)
{
    return pm::line::readLineData(lineLoaded, id);
}

bool CAdjustDataManager::writeLineData(int id, long value, bool save)
{
    return pm::line::writeLineData(lineLoaded, id, value, save);
}
