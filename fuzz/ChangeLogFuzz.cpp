// The adjust change log on arbitrary existing log files: the input is
// "/adj/AdjLog.txt". Records are written turned off (the file read for each),
// then turned on (read once), in the text and in the item form; a file of more
// than 255 lines has its oldest lines removed.

#include "CAdjustData.h"
#include "CAdjustLogMachine.h"
#include "FuzzSupport.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    pmfuzz::DeviceRoot& root = pmfuzz::DeviceRoot::Get();
    root.Clear();
    root.Write(CAdjustLogMachine::FILE_NAME, data, size);

    CAdjustLogMachine* log = CAdjustLogMachine::GetInstance();
    log->Log("Header Write Fail %d, %d", 280, 140);
    log->Log("text ending in a line feed\n");

    CAdjustData main(nullptr, nullptr);
    CAdjustData base(nullptr, nullptr);
    CAdjustData::_tAdjDataExtHeader header;
    std::strncpy(header.name, "ADJUST_CIS_SN", sizeof header.name - 1);
    header.position = 280;
    main = header;
    log->Log(&main, &base, nullptr, nullptr);

    log->TurnOn();
    log->Log("before Arrange");
    log->Log(&main, &base, &base, &base);
    log->TurnOff();
    return 0;
}
