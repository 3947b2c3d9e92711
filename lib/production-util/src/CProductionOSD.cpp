#include "CProductionOSD.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

CProductionOSD* CProductionOSD::GetInstance()
{
    static CProductionOSD instance;
    return &instance;
}

CProductionOSD::CProductionOSD() = default;
CProductionOSD::~CProductionOSD() = default;

void CProductionOSD::Initialize() {}
void CProductionOSD::SetTextSize(int) {}
void CProductionOSD::SetTextColor(int) {}

void CProductionOSD::Text(short, const char* format, ...)
{
    if (format == nullptr) return;
    char message[512] = {};
    va_list args;
    va_start(args, format);
    std::vsnprintf(message, sizeof message, format, args);
    va_end(args);
    const size_t length = std::strlen(message);
    if (length > 0 && message[length - 1] == '\n') message[length - 1] = '\0';
    char shown[512];
    // A display would show `shown`; this build has none.
    if (std::snprintf(shown, sizeof shown, "%s%c", message, '\0') < 0) return;
}

void CProductionOSD::OSDtouchScreenTest(unsigned short, unsigned short) {}
void CProductionOSD::OSDtouchProductTest(unsigned short) {}

int CProductionOSD::OSD_getTouchResult()
{
    return 0;
}

void CProductionOSD::Clean() {}
void CProductionOSD::CleanWindow() {}
void CProductionOSD::Fill(int) {}
void CProductionOSD::SetHdmiPBDisplay() {}
void CProductionOSD::SetLcdDisplay() {}
