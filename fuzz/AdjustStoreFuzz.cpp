// The adjust data manager on arbitrary adjust groups (preference group 3). The
// input edits a group image, starting from the catalogue's own layout or from an
// empty header area: header records (catalogue, raw, blank or duplicated names;
// offsets and sizes kept, raw, following the record before, or moved a little),
// the two area length words, body bytes and the validity markers. The manager
// then starts on the image, either directly (Initialize) or from a dump file in
// the preference store's framing (LoadDataFromFile, the file possibly damaged),
// reads and writes a few items and is finalised.
//
// Layout of an input:
//   byte 0     mode: bit 0 load from a dump file; bit 1 start from the catalogue
//              layout; bit 2 damage a marker byte; bit 3 damage the dump file
//   byte 1     number of edits (mod 32), then the edits (see applyEdit)
//   the rest   up to 8 GetData / SetData calls (see useItems)
//
// Saving the group writes 5.3 MB, so the device root lives on a tmpfs.

#include "AdjustDataList.h"
#include "AdjustDataTypes.h"
#include "AdjustGroupLayout.h"
#include "CAdjustDataManager.h"
#include "FuzzSupport.h"
#include "pref.h"
#include "pref_sim.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

using namespace pm::adjust;
constexpr int kGroup = PREF_ID_ADJUST;
constexpr unsigned long kHeaderLengthAt = HEADER_SIZE_OFFSET;
constexpr unsigned long kHeaderAt = HEADER_DATA_OFFSET;
constexpr unsigned long kBodyLengthAt = BODY_SIZE_OFFSET;
constexpr unsigned long kBodyAt = BODY_DATA_OFFSET;
constexpr unsigned long kRecordSize = ADJ_HEADER_RECORD_SIZE;
constexpr unsigned long kHeaderCapacity = HEADER_CAPACITY;
constexpr unsigned long kBodyCapacity = BODY_CAPACITY;
constexpr unsigned long kMarkers[] = {MARKER1_OFFSET, MARKER2_OFFSET};
constexpr const char* kDumpFile = "/tmp/adjust.dump";

class GroupImage {
public:
    GroupImage() : m_image(pref_get_addr(kGroup, nullptr)) {}

    uint8_t* Record(unsigned index) { return m_image + kHeaderAt + kRecordSize * index; }
    uint32_t Get(unsigned long at) const
    {
        uint32_t value;
        std::memcpy(&value, m_image + at, 4);
        return value;
    }
    void Set(unsigned long at, uint32_t value) { std::memcpy(m_image + at, &value, 4); }
    uint32_t RecordEnd(unsigned index) { return index == 0 ? 0 : Get(Offset(index - 1)) + Get(Size(index - 1)); }
    static unsigned long Offset(unsigned index) { return kHeaderAt + kRecordSize * index + 128; }
    static unsigned long Size(unsigned index) { return kHeaderAt + kRecordSize * index + 132; }
    uint8_t* Bytes() { return m_image; }

    void WriteRecord(unsigned index, const char* name, uint32_t offset, uint32_t size, uint32_t value)
    {
        uint8_t* record = Record(index);
        std::memset(record, 0, kRecordSize);
        std::strncpy(reinterpret_cast<char*>(record), name, 63);
        std::strncpy(reinterpret_cast<char*>(record + 64), "adj_body.dat", 63);
        Set(Offset(index), offset);
        Set(Size(index), size);
        Set(Size(index) + 4, value);
    }

    /// The catalogue's own layout: records in catalogue order, bytes back to back.
    void LayCatalogue()
    {
        uint32_t offset = 0;
        for (unsigned id = 0; id < ADJUST_DATA_ID_MAX; ++id) {
            const _TDATAINFO& row = ADJUST_DATA_LIST[id];
            WriteRecord(id, row.name, offset, row.size, row.value);
            offset += row.size;
        }
        Set(kHeaderLengthAt, kRecordSize * ADJUST_DATA_ID_MAX);
        Set(kBodyLengthAt, offset);
    }

private:
    uint8_t* m_image;
};

uint32_t adjusted(uint32_t current, uint8_t delta)
{
    return current + static_cast<uint32_t>(static_cast<int8_t>(delta));
}

void editRecord(GroupImage& image, pmfuzz::Input& in)
{
    const unsigned index = in.Byte();
    const uint8_t nameChoice = in.Byte();
    uint8_t* record = image.Record(index);
    if (nameChoice < ADJUST_DATA_ID_MAX) {
        std::memset(record, 0, 64);
        std::strncpy(reinterpret_cast<char*>(record), ADJUST_DATA_LIST[nameChoice].name, 63);
    } else if (nameChoice < 200) {
        const std::string raw = in.ShortString(64); // 64 bytes leave the name without its NUL
        std::memset(record, 0, 64);
        std::memcpy(record, raw.data(), raw.size());
    } else if (nameChoice < 255) {
        std::memset(record, 0, 64);
    }
    const uint8_t how = in.Byte();
    switch (how & 3) {
    case 1: image.Set(GroupImage::Offset(index), in.Word()); break;
    case 2: image.Set(GroupImage::Offset(index), image.RecordEnd(index)); break;
    case 3: image.Set(GroupImage::Offset(index), adjusted(image.Get(GroupImage::Offset(index)), in.Byte())); break;
    default: break;
    }
    switch ((how >> 2) & 3) {
    case 1: image.Set(GroupImage::Size(index), in.Word()); break;
    case 2: image.Set(GroupImage::Size(index), ADJUST_DATA_LIST[in.Byte() % ADJUST_DATA_ID_MAX].size); break;
    case 3: image.Set(GroupImage::Size(index), adjusted(image.Get(GroupImage::Size(index)), in.Byte())); break;
    default: break;
    }
}

void editLength(GroupImage& image, pmfuzz::Input& in, unsigned long at, bool header)
{
    const uint8_t how = in.Byte();
    if (how & 1) {
        image.Set(at, in.Word());
    } else if (header) {
        image.Set(at, adjusted(kRecordSize * (how >> 1), in.Byte()));
    } else {
        const unsigned records = image.Get(kHeaderLengthAt) / kRecordSize;
        image.Set(at, adjusted(image.RecordEnd(std::min(records, 365u)), in.Byte()));
    }
}

void applyEdit(GroupImage& image, pmfuzz::Input& in)
{
    switch (in.Byte() % 6) {
    case 0: editRecord(image, in); break;
    case 1: editLength(image, in, kHeaderLengthAt, true); break;
    case 2: editLength(image, in, kBodyLengthAt, false); break;
    case 3: {
        const unsigned long at = in.Word() % kBodyCapacity;
        const std::string bytes = in.ShortString(255);
        std::memcpy(image.Bytes() + kBodyAt + at, bytes.data(), std::min<size_t>(bytes.size(), kBodyCapacity - at));
        break;
    }
    case 4: { // a duplicate record
        const unsigned from = in.Byte();
        const unsigned to = in.Byte();
        std::memmove(image.Record(to), image.Record(from), kRecordSize);
        break;
    }
    default: { // a record taken out, the later ones moved down
        const unsigned index = in.Byte() % ADJUST_DATA_ID_MAX;
        const unsigned long last = kHeaderAt + kHeaderCapacity;
        uint8_t* record = image.Record(index);
        std::memmove(record, record + kRecordSize, last - (kHeaderAt + kRecordSize * (index + 1)));
        image.Set(kHeaderLengthAt, image.Get(kHeaderLengthAt) - kRecordSize);
        break;
    }
    }
}

/// Reads and writes a few items, as workers would.
void useItems(pmfuzz::Input& in)
{
    CAdjustDataManager* manager = CAdjustDataManager::GetInstance();
    for (int call = 0; call < 8 && !in.Empty(); ++call) {
        const uint8_t what = in.Byte();
        const int id = in.Byte() % 150;
        const bool catalogueLength = (what & 2) && id < ADJUST_DATA_ID_MAX;
        const unsigned long length = catalogueLength ? ADJUST_DATA_LIST[id].size : in.Byte();
        std::vector<uint8_t> buffer(length);
        if (what & 1) {
            const std::string bytes = in.Bytes(length);
            std::copy(bytes.begin(), bytes.end(), buffer.begin());
            manager->SetData(id, buffer.data(), length, (what & 4) != 0);
        } else {
            manager->GetData(id, buffer.data(), length);
        }
    }
}

void loadThroughDumpFile(bool damage, pmfuzz::Input& in)
{
    pref_save_to_file(kGroup, kDumpFile);
    if (damage) {
        const std::string path = pmfuzz::DeviceRoot::Get().Host(kDumpFile);
        if (FILE* file = std::fopen(path.c_str(), "r+b")) {
            std::fseek(file, static_cast<long>(in.Word() % (20 + 5294098)), SEEK_SET);
            std::fputc(in.Byte(), file);
            std::fclose(file);
        }
    }
    pref_reset(kGroup); // the load has to bring the content back
    std::string path = kDumpFile;
    CAdjustDataManager::GetInstance()->LoadDataFromFile(path.data());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    pmfuzz::DeviceRoot& root = pmfuzz::DeviceRoot::Get();
    root.Clear();
    pref_sim_reset(); // no image, no NAND file: the group starts from its defaults
    pref_reset(kGroup);

    pmfuzz::Input in(data, size);
    const uint8_t mode = in.Byte();
    GroupImage image;
    if (mode & 2) image.LayCatalogue();
    const int edits = in.Byte() % 32;
    for (int i = 0; i < edits; ++i) applyEdit(image, in);
    if (mode & 4) image.Bytes()[kMarkers[in.Byte() & 1]] ^= 0xFF;

    CAdjustDataManager* manager = CAdjustDataManager::GetInstance();
    if (mode & 1) {
        loadThroughDumpFile((mode & 8) != 0, in);
    } else {
        manager->Initialize();
    }
    useItems(in);
    manager->Finalize();
    return 0;
}
