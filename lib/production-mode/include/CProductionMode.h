#pragma once
// The controller of production mode: the one object through which the host
// application enters the library.

#include "FThread.h"

#include <atomic>

/// Operation types: who drives the run in progress.
enum {
    OP_TYPE_NONE = 0,   ///< no run (also while the host-link loop waits for its first message)
    OP_TYPE_SCRIPT = 1, ///< a production script from the memory card drives the run
    OP_TYPE_PTP = 2,    ///< the factory PC drives the run over the host link
};

class CProductionMode : public FThread {
public:
    /// The process-wide instance, built on the first call. Any thread.
    static CProductionMode* GetInstance();

    /// True while a run is in progress (operation type not 0). Any thread.
    bool IsActive() const;
    /// The operation type: OP_TYPE_NONE, OP_TYPE_SCRIPT or OP_TYPE_PTP. Any thread.
    int GetOperationType() const;

    ~CProductionMode() override;
    CProductionMode(const CProductionMode&) = delete;
    CProductionMode& operator=(const CProductionMode&) = delete;

protected:
    /// The controller's thread body: chooses the mode and runs its loop once.
    void t_Main() override;

private:
    CProductionMode();

    // Written by the controller thread only, read by any thread without a lock.
    std::atomic<int> nOperationType;
};
