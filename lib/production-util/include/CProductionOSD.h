#pragma once
// The operator's on-screen display on the production line. This build drives
// no display: every operation is inert and Text formats its message and drops
// it. The interface is kept whole because the controller and the adjust data
// call it at fixed points. Any thread.

#include "ProductionModeExport.h"

class PM_EXPORT CProductionOSD {
public:
    /// The display, built on the first call.
    static CProductionOSD* GetInstance();

    void Initialize();
    void SetTextSize(int size);
    void SetTextColor(int color);
    /// Formats the message (at most 511 characters are kept) and discards it; the
    /// selector chooses a screen area on a real display and is unused here.
    void Text(short selector, const char* format, ...) __attribute__((format(printf, 3, 4)));
    void OSDtouchScreenTest(unsigned short x, unsigned short y);
    void OSDtouchProductTest(unsigned short value);
    /// Always 0.
    int OSD_getTouchResult();
    void Clean();
    void CleanWindow();
    void Fill(int value);
    void SetHdmiPBDisplay();
    void SetLcdDisplay();

    ~CProductionOSD();
    CProductionOSD(const CProductionOSD&) = delete;
    CProductionOSD& operator=(const CProductionOSD&) = delete;

private:
    PM_HIDDEN CProductionOSD();
};
