#pragma once
// The base class of every production worker. Workers live in plug-in libraries:
// a derived worker points pszName at its group name ("UI", "CAP", "LENS", "MENU",
// "WIFI", "DD", "ETC", ...) and hands itself to CWorkerFactory::AddWorker. The
// controller calls Execute on its own thread once per command routed to the
// worker. Wait/Resume give the worker's own threads an event flag whose bits
// 28 to 31 are the stop bits (set by Finalize, cleared by Initialize) and bits 0
// to 27 are the worker's own signals.

#include "ProductionModeExport.h"

#include "_tPM_Command.h"

class CEventFlag;
class CWorkerFactory;

/// Adjustment results. Everything other than PM_RESULT_PASS counts as not passed.
enum EPMResult : int {
    PM_RESULT_PASS = 38,  ///< '&': the adjustment step passed
    PM_RESULT_FAIL = 94,  ///< '^': the adjustment step failed
    PM_RESULT_NONE = 255, ///< no result yet
};

class PM_EXPORT IPModeWorker {
public:
    /// Name null, result PM_RESULT_NONE, event flag created with the stop bits set.
    IPModeWorker();
    /// Deletes the event flag. Does not remove the worker from the registry.
    virtual ~IPModeWorker();
    IPModeWorker(const IPModeWorker&) = delete;
    IPModeWorker& operator=(const IPModeWorker&) = delete;

    /// The command routine; negative when the command failed. Controller's thread.
    virtual int Execute(_tPM_Command* command) = 0;
    /// Clears the stop bits: Wait blocks until a requested bit arrives. Any thread.
    virtual void Initialize();
    /// Sets the stop bits: every pending and later Wait returns false. Any thread.
    virtual void Finalize();

    /// Blocks until one of `bits` or the stop bit 31 is set. True (and the
    /// requested bits cleared) for a requested bit; false when stopping or when the
    /// worker has no event flag. Any thread but the one that must Resume it.
    bool Wait(unsigned long bits);
    /// Sets `bits` in the event flag, waking a matching Wait. Any thread.
    void Resume(unsigned long bits);

    /// Records the result of an adjustment step and, when the factory PC drives
    /// the run and `respond` is true, prepares the PC's response (0x10000002, 0, 0)
    /// for PM_RESULT_PASS, (0x10000002, 1, 0) otherwise. Controller's or worker's thread.
    void SetAdjResult(EPMResult result, bool respond);
    /// The last result given to SetAdjResult; PM_RESULT_NONE before any. Any thread.
    EPMResult GetAdjResult();

    /// The worker's name (its group); null until the derived worker sets it.
    const char* GetName() const { return pszName; }

protected:
    const char* pszName;      ///< set by the derived worker before it registers; not owned
    CWorkerFactory* pFactory; ///< the registry the worker registers with
    EPMResult eAdjResult;     ///< last adjustment result
    CEventFlag* pEventFlag;   ///< owned; every flag operation is skipped while null
};
