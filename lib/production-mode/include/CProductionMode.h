#pragma once
// The controller of production mode: the one object through which the host
// application enters the library.
//
// Use: GetInstance(), Initialize(), Start() (the FThread start operation; the
// library never starts its own thread), and at the end Finalize(). The thread
// body runs once: it looks at the memory card and the line data, then runs the
// production script from the card (script mode) or serves the factory PC over
// the host link (host-link mode) until the run ends.
//
// Files on the card ("/mnt/mmc/", opened through the platform's path mapping):
//   "info.tg"     the name of the production script; its presence marks production
//   "info.tgw"    enables host-link mode; a text containing ".dev" selects the
//                 adjust operation mode without snapshot
//   "tk_dev.adj"  a text containing "keen_camera" selects the snapshot mode
//   "default.adj" when present, the script that runs (if "info.tg" names a ".adj")
// An information file is read only when it holds 0 to 64 bytes.
//
// Decisions of this implementation:
//  - Finalize never frees the script or the channel while the controller thread
//    may use them: it asks the run to stop, unmounts the channel (which wakes a
//    host-link loop waiting for a message), waits for the operation type to be 0,
//    joins the thread (Destroy) and only then unmounts and frees the script and
//    frees the channel. A script-mode run stops before its next command, as if
//    the script had ended there; the command running at that moment finishes.
//  - A stop asked for before the thread body has mounted anything (Finalize right
//    after Start) is seen by the body after its mount: it unmounts and returns, so
//    Finalize never waits for a loop that cannot be woken.
//  - A failed check while one host message is served (no worker for a protocol
//    operation, a refused protocol argument, an unreadable protocol message, a
//    record file that cannot be opened) is reported; the message's work stops
//    there and, when nothing else is pending, the PC is answered 0x10000002, 1, 0
//    so that it never receives a stale answer. The loop goes on with the next
//    message. A failed SendPTP is reported and the loop goes on.
//  - "CMD FAIL: ..." goes to the operator display and, as a red trace, to the
//    debug channel as well (the display of this build shows nothing).
//  - The sleep of Finalize's wait is 10 ms.
//  - A process that exits without Finalize does not hang or crash: each mount of
//    the host channel registers an exit handler (after the key-value store is set
//    up, so the handler runs before the store is torn down) that stops a host link
//    still open; the destructor asks a script run to stop, joins the thread and
//    only then frees the owned objects.

#include "ProductionModeExport.h"

#include "FThread.h"

#include <atomic>
#include <string>

class CProductionPTP;
class CProductionScript;
class CWorkerFactory;
struct _tPM_Command;

/// Operation types: who drives the run in progress.
enum {
    OP_TYPE_NONE = 0,   ///< no run (also while the host-link loop waits for its first message)
    OP_TYPE_SCRIPT = 1, ///< a production script from the memory card drives the run
    OP_TYPE_PTP = 2,    ///< the factory PC drives the run over the host link
};

class PM_EXPORT CProductionMode : public FThread {
public:
    /// The process-wide instance, built on the first call. Any thread.
    static CProductionMode* GetInstance();

    /// True while a run is in progress (operation type not 0). Any thread.
    bool IsActive() const;
    /// The operation type: OP_TYPE_NONE, OP_TYPE_SCRIPT or OP_TYPE_PTP. Any thread.
    int GetOperationType() const;

    /// Creates the host channel and the script reader, waits (1 s steps, without
    /// limit) until a worker has registered, initialises every worker and the
    /// display. Does not start the thread. Host application's thread.
    void Initialize();
    /// Stops the run and releases everything: workers finalized, host channel
    /// unmounted, waits for the loop to end, joins the thread, frees the script and
    /// the channel, drops a pending transfer, cleans the display. Host application's
    /// thread, never the controller's.
    void Finalize();

    /// 1: a runnable script is on the card; 3: it is a Wi-Fi certification script;
    /// 2: no script, host-link mode enabled; 0: no production run. Runs the checks
    /// below (with their side effects). Host application's thread, not while the
    /// thread body runs.
    int CanPModeWorking();
    /// True when "info.tg" or "info.tgw" is on the card or line value 139 is 1.
    /// Changes no state. Any thread.
    bool isProductionStatus();
    /// True when a runnable script exists; leaves its path in strScriptFile and
    /// selects the adjust operation mode. Controller's thread (or CanPModeWorking).
    bool checkScriptFile();
    /// True when host-link mode is enabled ("info.tgw" or line value 139 equal to 1);
    /// selects the adjust operation mode. Controller's thread (or CanPModeWorking).
    bool checkPTPFlag();
    /// True when the script named by "info.tg" holds at most 64 bytes and contains
    /// "adj_wifi certification". Controller's thread (or CanPModeWorking).
    bool checkwificertification();

    /// Runs the loop of the operation type: OP_TYPE_SCRIPT the script-mode loop,
    /// any other the host-link loop; both leave the type 0. Controller's thread.
    int RunProductionMode();

    /// Starts recording: from the next host script line on, lines are appended to
    /// "/mnt/mmc/<name>" instead of being run, until the line "... create_file off".
    /// For the worker that serves the create_file sub-command (from its Execute, on
    /// the controller's thread). False (nothing changes) for an empty name or one
    /// whose path would be 64 bytes or longer.
    bool StartCreateFile(const std::string& name);
    /// True while host script lines are recorded. Any thread.
    bool IsCreatingFile() const { return blCreateFile; }

    ~CProductionMode() override;
    CProductionMode(const CProductionMode&) = delete;
    CProductionMode& operator=(const CProductionMode&) = delete;

protected:
    /// The controller's thread body: chooses the mode and runs its loop once.
    void t_Main() override;

private:
    PM_HIDDEN CProductionMode();

    PM_HIDDEN int runScriptMode();
    PM_HIDDEN int runHostMode();
    PM_HIDDEN void gotoResumeLabel();
    PM_HIDDEN void serveHostScriptLine(_tPM_Command& command);
    PM_HIDDEN void runHostCommand(_tPM_Command& command);
    PM_HIDDEN bool recordHostCommand(_tPM_Command& command);
    PM_HIDDEN bool serveProtocolMessage(const _tPM_Command& current);
    PM_HIDDEN void requestStop();
    PM_HIDDEN static bool isStopRequested();
    PM_HIDDEN static void closeHostLinkAtExit();
    PM_HIDDEN void releaseOwnedObjects();

    // Written by the controller thread only, read by any thread without a lock.
    std::atomic<int> nOperationType;
    std::string strScriptFile;
    CProductionPTP* pPTP;
    CProductionScript* pScript;
    CWorkerFactory* pWorkerFactory;
    std::atomic<bool> blCreateFile;
    std::string strCreateFile;
};
