#include "CPTPAdjInterface.h"

#include "CProductionMode.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr uint32_t kInitialRespondCode = 0x10000000;

bool hostLinkDrives()
{
    return CProductionMode::GetInstance()->GetOperationType() == OP_TYPE_PTP;
}

/// The report of the C library's assert(0), without abort(): the process goes
/// on and the caller abandons the operation.
void reportFailedCheck(const char* expression, const char* file, unsigned int line, const char* function)
{
    const char* program = program_invocation_short_name;
    std::fflush(stdout);
    std::fprintf(stderr, "%s%s%s:%u: %s%sAssertion `%s' failed.\n", program, program[0] != '\0' ? ": " : "", file, line,
                 function, ": ", expression);
    std::fflush(stderr);
}

} // namespace

// Reports like assert(0) would, naming the enclosing method, then leaves it.
#define PTP_ADJ_CHECK(cond)                                                                                            \
    do {                                                                                                               \
        if (!(cond)) {                                                                                                 \
            reportFailedCheck("0", __FILE__, __LINE__, __PRETTY_FUNCTION__);                                           \
            return;                                                                                                    \
        }                                                                                                              \
    } while (0)

CPTPAdjInterface* CPTPAdjInterface::GetInstance()
{
    static CPTPAdjInterface instance;
    return &instance;
}

CPTPAdjInterface::CPTPAdjInterface()
    : pData(nullptr), nDataSize(0), nRespondCode(kInitialRespondCode), nRespondValue2(0),
      nRespondValue3(0), szFileName{}, nTransferDataType(PTP_TRANSFER_NONE)
{}

CPTPAdjInterface::~CPTPAdjInterface()
{
    delete[] pData;
}

void CPTPAdjInterface::SetRespond(unsigned long code, unsigned long value2, unsigned long value3)
{
    if (!hostLinkDrives()) return;
    PTP_ADJ_CHECK(nTransferDataType == PTP_TRANSFER_NONE);
    nTransferDataType = PTP_TRANSFER_RESPOND;
    nRespondCode = static_cast<uint32_t>(code);
    nRespondValue2 = static_cast<uint32_t>(value2);
    nRespondValue3 = static_cast<uint32_t>(value3);
}

void CPTPAdjInterface::SetData(unsigned char* data, int size)
{
    if (!hostLinkDrives()) return;
    PTP_ADJ_CHECK(data != nullptr && size >= 1);
    PTP_ADJ_CHECK(nTransferDataType == PTP_TRANSFER_NONE);
    nTransferDataType = PTP_TRANSFER_DATA;
    if (pData != nullptr) {
        delete[] pData;
        pData = nullptr;
        nDataSize = 0;
        PTP_ADJ_CHECK(false);
    }
    nDataSize = size;
    pData = new unsigned char[static_cast<size_t>(size)];
    std::memcpy(pData, data, static_cast<size_t>(size));
}

void CPTPAdjInterface::SetFile(const char* path)
{
    if (!hostLinkDrives()) return;
    PTP_ADJ_CHECK(path != nullptr);
    PTP_ADJ_CHECK(nTransferDataType == PTP_TRANSFER_NONE);
    // A path that would lose its terminator in the field is refused whole rather
    // than sent cut short.
    PTP_ADJ_CHECK(std::strlen(path) < sizeof szFileName);
    nTransferDataType = PTP_TRANSFER_FILE;
    std::memset(szFileName, 0, sizeof szFileName);
    std::memcpy(szFileName, path, std::strlen(path));
}

uint32_t CPTPAdjInterface::GetTransferDataType()
{
    return nTransferDataType;
}

void CPTPAdjInterface::GetRespond(unsigned int& code, unsigned int& value2, unsigned int& value3)
{
    code = nRespondCode;
    value2 = nRespondValue2;
    value3 = nRespondValue3;
}

unsigned char* CPTPAdjInterface::GetData()
{
    return pData;
}

int32_t CPTPAdjInterface::GetDataSize()
{
    return nDataSize;
}

char* CPTPAdjInterface::GetFileName()
{
    return szFileName;
}

void CPTPAdjInterface::Dispatch()
{
    delete[] pData;
    pData = nullptr;
    nTransferDataType = PTP_TRANSFER_NONE;
}
