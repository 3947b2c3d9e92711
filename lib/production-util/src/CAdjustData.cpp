#include "CAdjustData.h"

#include "CAdjustLogMachine.h"
#include "CAdjustPreference.h"
#include "CProductionOSD.h"
#include "PMReport.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>

namespace {

constexpr short kDisplayError = 3;

/// The default value as the item's bytes: size 1 the low byte, size 2 the low two
/// bytes, size 3 the low three, 4 or more the four bytes at the start (little-endian).
void fillDefault(unsigned char* data, unsigned long size, uint32_t value)
{
    std::memset(data, 0, size);
    for (unsigned long i = 0; i < size && i < 4; ++i) data[i] = static_cast<unsigned char>(value >> (8 * i));
}

} // namespace

CAdjustData::_tAdjDataExtHeader& CAdjustData::_tAdjDataExtHeader::operator=(const CAdjustData& item)
{
    *this = item.header;
    return *this;
}

CAdjustData::CAdjustData(CAdjustPreference* headerStore, CAdjustPreference* bodyStore)
    : id(-1), newSize(0), newOffset(0), cache(nullptr), changed(false), cacheBorrowed(false), header(),
      headerStore(headerStore), bodyStore(bodyStore)
{
    header.position = 0;
}

CAdjustData::~CAdjustData()
{
    if (!cacheBorrowed) delete[] cache;
}

CAdjustData& CAdjustData::operator=(const _tAdjDataExtHeader& extHeader)
{
    header = extHeader;
    return *this;
}

CAdjustData& CAdjustData::operator=(const _TArrangeInfo& arrange)
{
    newOffset = arrange.offset;
    changed = true;
    return *this;
}

void CAdjustData::Setup(int id, _TDATAINFO info)
{
    this->id = id;
    newSize = info.size;
    newOffset = header.offset;
    header.value = info.value;
    std::memcpy(header.name, info.name, sizeof header.name);
    std::memcpy(header.file, info.file, sizeof header.file);
    if (header.size != info.size) changed = true;
}

void CAdjustData::Setup4Delete()
{
    id = ITEM_DELETE_ID;
    newOffset = header.offset;
    changed = true;
}

intptr_t CAdjustData::Infomation(ADJ_INFO which) const
{
    switch (which) {
    case ADJ_INFO_ID: return id;
    case ADJ_INFO_NAME: return reinterpret_cast<intptr_t>(header.name);
    case ADJ_INFO_NEW_SIZE: return newSize;
    case ADJ_INFO_OLD_SIZE: return header.size;
    case ADJ_INFO_OLD_OFFSET: return header.offset;
    case ADJ_INFO_NEW_OFFSET: return newOffset;
    case ADJ_INFO_CHANGED: return changed ? 1 : 0;
    case ADJ_INFO_SIZE_STATE:
        if (newSize == header.size) return 0;
        if (header.size == 0) return 1;
        if (newSize == 0) return -1;
        return 0;
    }
    return 0;
}

bool CAdjustData::checkDataValidity()
{
    return true;
}

bool CAdjustData::readBody(unsigned long offset, void* buffer, unsigned long size)
{
    return bodyStore != nullptr && bodyStore->Read(offset, buffer, size);
}

bool CAdjustData::Get(void* buffer, unsigned long length)
{
    if (!checkDataValidity()) return false;
    PM_CHECK(buffer != nullptr || length == 0, false);

    if (newSize == header.size) {
        if (header.size < length) {
            PM_ERROR_LOG("AdjustData Get Error: %s's size is %d. But You request %d", header.name,
                         static_cast<int>(header.size), static_cast<int>(length));
            CProductionOSD::GetInstance()->Text(kDisplayError,
                                                "AdjustData Get Error\n%s's size is %d.\n But You request %d",
                                                header.name, static_cast<int>(header.size), static_cast<int>(length));
            if (cache != nullptr) {
                std::memcpy(buffer, cache, header.size);
            } else if (!readBody(newOffset, buffer, header.size)) {
                PM_ERROR_LOG("BODY READ ERROR");
            }
            return false;
        }
        if (cache != nullptr) {
            if (length > 0) std::memcpy(buffer, cache, length);
            return true;
        }
        return readBody(newOffset, buffer, length);
    }

    if (newSize != 0) {
        // A resize not yet written: only the bytes both sizes share are meaningful.
        const unsigned long shared = std::min<unsigned long>(std::min(header.size, newSize), length);
        return readBody(newOffset, buffer, shared);
    }

    PM_ERROR_LOG("AdjustData Get Error: This is already removed Data. %d[%s] old off-%d, old size-%d, new size-%d",
                 static_cast<int>(id), header.name, static_cast<int>(header.offset), static_cast<int>(header.size),
                 static_cast<int>(newSize));
    CProductionOSD::GetInstance()->Text(
        kDisplayError,
        "AdjustData Get Error\nThis is already removed Data\n%d[%s] old off-%d, old size-%d, new size-%d",
        static_cast<int>(id), header.name, static_cast<int>(header.offset), static_cast<int>(header.size),
        static_cast<int>(newSize));
    return false;
}

bool CAdjustData::Set(void* buffer, unsigned long length, bool write)
{
    if (length > newSize) return false;
    PM_CHECK(buffer != nullptr || length == 0, false);

    if (!write) {
        unsigned char* owned = new (std::nothrow) unsigned char[newSize]();
        PM_CHECK(owned != nullptr || newSize == 0, false);
        // Bytes past `length` keep what storage holds, since the whole cache is written.
        if (length < newSize) {
            const unsigned long stored = std::min(header.size, newSize);
            if (stored > length && !readBody(newOffset, owned, stored)) std::memset(owned, 0, stored);
        }
        if (length > 0) std::memcpy(owned, buffer, length);
        dropCache();
        cache = owned;
        changed = true;
        return true;
    }

    if (cache != nullptr) {
        PM_ERROR_LOG("Memory can be leaked...[%s]\n", header.name);
        PM_ASSERT_FAILED();
        return false;
    }
    if (length == 0) return true;
    cache = static_cast<unsigned char*>(buffer);
    changed = true;
    cacheBorrowed = true;
    const bool written = WriteToNAND(length);
    // The caller's buffer must never be used once Set has returned.
    if (cacheBorrowed) {
        cache = nullptr;
        cacheBorrowed = false;
    }
    return written;
}

bool CAdjustData::Reset()
{
    if (bodyStore == nullptr || newSize == 0) return false;
    // A 3-byte item still gets four bytes set, so the buffer holds at least four.
    const unsigned long bufferSize = std::max<unsigned long>(newSize, 4);
    unsigned char* data = new (std::nothrow) unsigned char[bufferSize]();
    PM_CHECK(data != nullptr, false);
    const unsigned char low = static_cast<unsigned char>(header.value);
    if (newSize == 1) {
        data[0] = low;
    } else if (newSize == 2) {
        data[0] = low;
        data[1] = static_cast<unsigned char>(header.value >> 8);
    } else {
        std::memset(data, low, 4);
    }
    const bool written = bodyStore->Write(header.offset, data, newSize);
    delete[] data;
    return written;
}

bool CAdjustData::fail(const char* format, ...)
{
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    CAdjustLogMachine::GetInstance()->Log("%s", text);
    return false;
}

void CAdjustData::dropCache()
{
    if (!cacheBorrowed) delete[] cache;
    cache = nullptr;
    cacheBorrowed = false;
}

unsigned char* CAdjustData::dataToWrite(bool& ownsData, bool& ok)
{
    ownsData = false;
    ok = true;
    if (cache != nullptr) return cache;

    if (header.size != 0) {
        if (bodyStore == nullptr) {
            ok = false;
            return nullptr;
        }
        const unsigned long larger = std::max(header.size, newSize);
        const unsigned long present = std::min(header.size, newSize);
        unsigned char* data = new (std::nothrow) unsigned char[larger]();
        PM_CHECK(data != nullptr, (ok = false, nullptr));
        // After a shrink the old size reaches past the area; the bytes past `present`
        // of a grown item are the zeros that the body Insert opened.
        if (!bodyStore->Read(newOffset, data, present)) {
            delete[] data;
            ok = fail("Body Read Fail off: %u, size: %u", static_cast<unsigned>(newOffset),
                      static_cast<unsigned>(present));
            return nullptr;
        }
        ownsData = true;
        return data;
    }

    if (newSize == 0) {
        ok = fail("[Error]%s's size is 0", header.name);
        return nullptr;
    }

    unsigned char* data = new (std::nothrow) unsigned char[newSize];
    PM_CHECK(data != nullptr, (ok = false, nullptr));
    fillDefault(data, newSize, header.value);
    ownsData = true;
    return data;
}

bool CAdjustData::WriteToNAND(unsigned long maxLength)
{
    if (!changed) return true;

    _TAdjDataHeader record = header;
    bool writeRecord = false;
    bool recordRemoved = false;
    const int position = header.position;
    const int recordSize = static_cast<int>(ADJ_HEADER_RECORD_SIZE);

    // A blank record (stored size 0) that no catalogue row claims is removed as well.
    const bool removing = newSize == 0 && (header.size != 0 || id == ITEM_DELETE_ID);

    // 1. The header record: insert, resize or remove it.
    if (newSize != header.size || removing) {
        if (newSize != 0 && header.size == 0) {
            if (headerStore == nullptr) return false;
            if (headerStore->Insert(header.position, ADJ_HEADER_RECORD_SIZE) < 0)
                return fail("Header Insert Fail %d, %d", position, recordSize);
            record.size = newSize;
            writeRecord = true;
        } else if (newSize != 0) {
            record.size = newSize;
            writeRecord = true;
        } else {
            if (headerStore == nullptr) return false;
            if (headerStore->Remove(header.position, ADJ_HEADER_RECORD_SIZE) < 0)
                return fail("Header Remove Fail %d, %d", position, recordSize);
            recordRemoved = true;
        }
    }
    if (newOffset != header.offset) {
        record.offset = newOffset;
        if (!recordRemoved) writeRecord = true;
    }
    if (writeRecord) {
        if (headerStore == nullptr) return false;
        if (!headerStore->Write(header.position, &record, ADJ_HEADER_RECORD_SIZE))
            return fail("Header Write Fail %d, %d", position, recordSize);
    }

    // 2. The body: grow or shrink the item's bytes in place.
    if (newSize != header.size) {
        if (bodyStore == nullptr) return false;
        if (newSize > header.size) {
            if (bodyStore->Insert(newOffset + header.size, newSize - header.size) < 0)
                return fail("Body Insert Fail old size:%u, new off: %u, new size: %u",
                            static_cast<unsigned>(header.size), static_cast<unsigned>(newOffset),
                            static_cast<unsigned>(newSize));
        } else {
            if (bodyStore->Remove(newOffset + newSize, header.size - newSize) < 0)
                return fail("Body Remove Fail old size:%u, new off: %u, new size: %u",
                            static_cast<unsigned>(header.size), static_cast<unsigned>(newOffset),
                            static_cast<unsigned>(newSize));
        }
    }

    // 3. The value. From here on storage has the new layout, so the header takes it over
    // even when the value cannot be written; the item then stays changed for a retry.
    const bool result = removing || writeValue(maxLength);

    if (result) {
        dropCache();
    } else if (cacheBorrowed) {
        cache = nullptr;
        cacheBorrowed = false;
    }
    changed = !result;
    header.size = newSize;
    header.offset = newOffset;
    return result;
}

bool CAdjustData::writeValue(unsigned long maxLength)
{
    bool ownsData = false;
    bool ok = true;
    unsigned char* data = dataToWrite(ownsData, ok);
    if (!ok) return false;

    unsigned long length = newSize;
    if (maxLength != 0 && maxLength < length) length = maxLength;
    const bool written = bodyStore != nullptr && bodyStore->Write(newOffset, data, length);
    if (ownsData) delete[] data;
    if (!written && bodyStore != nullptr)
        fail("Body Write Fail off: %u, size: %u", static_cast<unsigned>(newOffset), static_cast<unsigned>(length));
    return written;
}
