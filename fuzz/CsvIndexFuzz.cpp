// The result CSV on arbitrary existing tables: the input is the table file on
// the card. Create reads the index of its last line; a data line is then asked
// for (it is refused, the adjust data not being initialised, but uses up its
// index), the table is closed and created a second time.

#include "CProductionCSV.h"
#include "FuzzSupport.h"

namespace {

constexpr const char* kTable = "/mnt/mmc/result.csv";

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    pmfuzz::DeviceRoot& root = pmfuzz::DeviceRoot::Get();
    root.Clear();
    root.Write(kTable, data, size);

    CProductionCSV csv;
    csv.Create("result.csv", "ITEM,VALUE");
    csv.getLineIndex();
    csv.Write("%s,%d", "item", 1);
    csv.Close();
    csv.Create("result.csv", "ITEM,VALUE");
    csv.Close();
    return 0;
}
