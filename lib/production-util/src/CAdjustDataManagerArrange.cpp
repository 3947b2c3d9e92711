// The header operations of the adjust data manager: the item list is read from the
// header area, matched to the catalogue, planned (ids, record positions, new sizes and
// body offsets) and then carried out item by item, in header-record order, by sync.

#include "CAdjustDataManager.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "AdjWriteLog.h"
#include "AdjustDataList.h"
#include "AdjustGroupLayout.h"
#include "CAdjustData.h"
#include "CAdjustLogMachine.h"
#include "CAdjustPreference.h"
#include "PMReport.h"
#include "pref.h"

namespace {

using namespace pm::adjust;

long sizeState(CAdjustData* item)
{
    return static_cast<long>(item->Infomation(CAdjustData::ADJ_INFO_SIZE_STATE));
}

long itemId(CAdjustData* item)
{
    return static_cast<long>(item->Infomation(CAdjustData::ADJ_INFO_ID));
}

bool isToBeDeleted(CAdjustData* item)
{
    return itemId(item) == ITEM_DELETE_ID || sizeState(item) == -1;
}

bool isChanged(CAdjustData* item)
{
    return item->Infomation(CAdjustData::ADJ_INFO_CHANGED) != 0;
}

unsigned long oldOffset(CAdjustData* item)
{
    return static_cast<unsigned long>(item->Infomation(CAdjustData::ADJ_INFO_OLD_OFFSET));
}

unsigned long oldSize(CAdjustData* item)
{
    return static_cast<unsigned long>(item->Infomation(CAdjustData::ADJ_INFO_OLD_SIZE));
}

unsigned long newSize(CAdjustData* item)
{
    return static_cast<unsigned long>(item->Infomation(CAdjustData::ADJ_INFO_NEW_SIZE));
}

const char* itemName(CAdjustData* item)
{
    return reinterpret_cast<const char*>(item->Infomation(CAdjustData::ADJ_INFO_NAME));
}

CAdjustData::_tAdjDataExtHeader extendedHeaderOf(const CAdjustData& item)
{
    CAdjustData::_tAdjDataExtHeader header;
    header = item;
    return header;
}

CAdjustData* itemAt(const std::vector<CAdjustData*>& items, size_t index)
{
    return index < items.size() ? items[index] : nullptr;
}

// Re-arrangement moves every later item by what an Insert or Remove adds or takes:
// that lands each item where the plan says only when the stored items lie back to back
// in record order inside the body area.
bool storedItemsLieBackToBack(const std::vector<CAdjustData*>& items)
{
    const uint64_t bodyLength = static_cast<uint64_t>(std::max(0L, pref_get_long(PREF_ID_ADJUST, BODY_SIZE_OFFSET)));
    uint64_t end = 0;
    bool firstStored = true;
    for (CAdjustData* item : items) {
        if (item == nullptr || oldSize(item) == 0) continue;
        if (!firstStored && oldOffset(item) != end) {
            PM_ERROR_LOG("Adjust data cannot be re-arranged: %s lies at %lu, the item before ends at %llu",
                         itemName(item), oldOffset(item), static_cast<unsigned long long>(end));
            return false;
        }
        firstStored = false;
        end = static_cast<uint64_t>(oldOffset(item)) + oldSize(item);
    }
    if (end > bodyLength) {
        PM_ERROR_LOG("Adjust data cannot be re-arranged: the items end at %llu, past the body area (%llu bytes)",
                     static_cast<unsigned long long>(end), static_cast<unsigned long long>(bodyLength));
        return false;
    }
    return true;
}

// Neither area may outgrow its place in the group at any step of the sync, which
// carries the items out in list order.
bool areasStayInsideTheGroup(const std::vector<CAdjustData*>& items)
{
    int64_t header = std::max(0L, pref_get_long(PREF_ID_ADJUST, HEADER_SIZE_OFFSET));
    int64_t body = std::max(0L, pref_get_long(PREF_ID_ADJUST, BODY_SIZE_OFFSET));
    for (CAdjustData* item : items) {
        if (item == nullptr) continue;
        if (isToBeDeleted(item)) {
            header -= static_cast<int64_t>(ADJ_HEADER_RECORD_SIZE);
            body -= static_cast<int64_t>(oldSize(item));
            continue;
        }
        if (oldSize(item) == 0) header += static_cast<int64_t>(ADJ_HEADER_RECORD_SIZE);
        body += static_cast<int64_t>(newSize(item)) - static_cast<int64_t>(oldSize(item));
        if (header > HEADER_CAPACITY || body > BODY_CAPACITY) {
            PM_ERROR_LOG(
                "Adjust data cannot be re-arranged: the areas would outgrow the group (header %lld, body %lld bytes)",
                static_cast<long long>(header), static_cast<long long>(body));
            return false;
        }
    }
    return true;
}

} // namespace

bool CAdjustDataManager::readAdjustHeaderInfo()
{
    if (headerStore == nullptr || bodyStore == nullptr) return false;

    bool result = true;
    const unsigned long records = headerStore->GetItemNum();
    for (unsigned long i = 0; i < records; ++i) {
        CAdjustData::_tAdjDataExtHeader header;
        if (!headerStore->Read(ADJ_HEADER_RECORD_SIZE * i, static_cast<_TAdjDataHeader*>(&header),
                               ADJ_HEADER_RECORD_SIZE)) {
            result = false;
            continue;
        }
        header.position = static_cast<int32_t>(ADJ_HEADER_RECORD_SIZE * i);
        CAdjustData* item = new CAdjustData(headerStore, bodyStore);
        *item = header;
        items.push_back(item);
    }
    return result;
}

bool CAdjustDataManager::findLastOriginalOffset(unsigned long& lastOffset, unsigned long& lastSize)
{
    bool found = false;
    for (CAdjustData* item : items) {
        if (item == nullptr) continue;
        if (oldOffset(item) > lastOffset) {
            lastOffset = oldOffset(item);
            lastSize = oldSize(item);
            found = true;
        }
    }
    return found;
}

bool CAdjustDataManager::allocateID()
{
    bool result = true;
    CAdjustData::_tAdjDataExtHeader added;
    added.position = -1;
    unsigned long lastCatalogueSize = 0;
    unsigned long addedCount = 0;

    for (int i = 0; i < ADJUST_DATA_ID_MAX; ++i) {
        const _TDATAINFO& row = ADJUST_DATA_LIST[i];
        CAdjustData* item = find(row.name);
        if (item == nullptr) {
            unsigned long lastOffset = 0;
            unsigned long lastSize = 0;
            if (findLastOriginalOffset(lastOffset, lastSize)) {
                item = new CAdjustData(headerStore, bodyStore);
                items.push_back(item);
                added.position =
                    static_cast<int32_t>(ADJ_HEADER_RECORD_SIZE * (headerStore->GetItemNum() + addedCount));
                // An item added just before has no stored size yet: it ends where its
                // catalogue size says.
                if (lastSize == 0) lastSize = lastCatalogueSize;
                added.offset = static_cast<uint32_t>(lastOffset + lastSize);
                *item = added;
                CAdjustLogMachine::GetInstance()->Log("Add %s last Off:%u last Size: %u", row.name,
                                                      static_cast<unsigned>(lastOffset),
                                                      static_cast<unsigned>(lastSize));
                lastCatalogueSize = row.size;
                ++addedCount;
            }
        }
        if (item == nullptr) {
            result = false;
            continue;
        }
        item->Setup(i, row);
    }

    // Every record no row claimed (id still -1) goes, a blank one of size 0 as well.
    for (CAdjustData* item : items) {
        if (item == nullptr || itemId(item) != -1) continue;
        item->Setup4Delete();
        CAdjustLogMachine::GetInstance()->Log("Will be Del %s", itemName(item));
    }
    sortedItems.clear();
    return result;
}

bool CAdjustDataManager::makeAdjustHeaderInfo(bool sync)
{
    if (headerStore == nullptr || bodyStore == nullptr) return false;

    adj_write_log("makeAdjustHeaderInfo(): start %s \n", sync ? "[sync]" : "");
    for (int i = 0; i < ADJUST_DATA_ID_MAX; ++i) {
        CAdjustData* item = new CAdjustData(headerStore, bodyStore);
        CAdjustData::_tAdjDataExtHeader header;
        header.position = static_cast<int32_t>(ADJ_HEADER_RECORD_SIZE * i);
        *item = header;
        item->Setup(i, ADJUST_DATA_LIST[i]);
        items.push_back(item);
        if (!CAdjustLogMachine::GetInstance()->Log("New %s", itemName(item))) puts("Log Fail");
    }
    sortedItems.clear();
    reallocateOffset(0);

    if (!sync) {
        adj_write_log("makeAdjustHeaderInfo(): done \n");
        return true;
    }
    PM_CHECK(this->sync(), false);
    adj_write_log("makeAdjustHeaderInfo(): sync done \n");
    return true;
}

bool CAdjustDataManager::arrangeData()
{
    size_t first = 0;
    while (first < items.size()
           && (items[first] == nullptr || !(isChanged(items[first]) || isToBeDeleted(items[first]))))
        ++first;
    if (first == items.size()) return true;
    if (!arrangementIsSafe()) return false;

    adj_write_log("arrangeData(): start \n");
    CAdjustLogMachine* log = CAdjustLogMachine::GetInstance();
    log->Log("before Arrange");
    log->Log(items[first], itemAt(items, 2), itemAt(items, 67), itemAt(items, 132));
    reallocateOffset(static_cast<int>(first));
    log->Log("After Arrange");
    log->Log(items[first], itemAt(items, 2), itemAt(items, 67), itemAt(items, 132));
    if (!sync()) return false;
    adj_write_log("arrangeData(): sync done \n");
    return true;
}

bool CAdjustDataManager::arrangementIsSafe()
{
    return storedItemsLieBackToBack(items) && areasStayInsideTheGroup(items);
}

void CAdjustDataManager::reallocateOffset(int first)
{
    if (first < 0 || static_cast<size_t>(first) >= items.size()) return;

    std::vector<int32_t> deletedPositions;
    for (size_t i = first; i < items.size(); ++i) {
        CAdjustData* item = items[i];
        if (item != nullptr && isToBeDeleted(item)) deletedPositions.push_back(extendedHeaderOf(*item).position);
    }
    std::sort(deletedPositions.begin(), deletedPositions.end());

    if (!deletedPositions.empty()) {
        for (size_t i = first + 1; i < items.size(); ++i) {
            CAdjustData* item = items[i];
            if (item == nullptr) continue;
            CAdjustData::_tAdjDataExtHeader header = extendedHeaderOf(*item);
            if (header.position <= deletedPositions.front()) continue;
            const auto removedBefore =
                std::lower_bound(deletedPositions.begin(), deletedPositions.end(), header.position)
                - deletedPositions.begin();
            header.position -= static_cast<int32_t>(ADJ_HEADER_RECORD_SIZE * removedBefore);
            *item = header;
        }
    }

    CAdjustData* start = items[first];
    unsigned long offset = start != nullptr ? oldOffset(start) : 0;
    if (start != nullptr && !isToBeDeleted(start)) offset += newSize(start);
    for (size_t i = first + 1; i < items.size(); ++i) {
        CAdjustData* item = items[i];
        if (item == nullptr) continue;
        _TArrangeInfo arrange;
        arrange.offset = static_cast<uint32_t>(offset);
        *item = arrange;
        offset += newSize(item);
    }
}

bool CAdjustDataManager::sync()
{
    for (CAdjustData* item : items) {
        if (item == nullptr) continue;
        PM_CHECK(item->WriteToNAND(0), false);
    }
    return pref_save(PREF_ID_ADJUST) >= 0;
}
