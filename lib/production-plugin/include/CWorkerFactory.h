#pragma once
// The process-wide registry of production workers. A command is routed in two
// steps: its name selects a group in the command table; for the commands of
// group "PENDING" the sub-command selects the group in the sub-command table.
// The registered worker whose name equals the group serves the command.
//
// Workers register and unregister from their own threads while the controller
// looks workers up on its thread: every operation on the list takes the
// registry's lock, and worker code (Initialize, Finalize, destructors) is called
// on a copy of the list, outside the lock, so a worker may (un)register from it.

#include "ProductionModeExport.h"

#include <vector>

class IPModeWorker;

class PM_EXPORT CWorkerFactory {
public:
    /// The registry, built on the first call. Any thread.
    static CWorkerFactory* GetInstance();

    /// Registers a worker at the end of the list. A null worker, or one whose name
    /// is already registered, is refused silently; a worker without a name is a
    /// failed check. The registry deletes it at process exit. Any thread.
    void AddWorker(IPModeWorker* worker);
    /// Removes a registered worker (first entry with that pointer) without
    /// deleting it; the others keep their order. Any thread.
    void SubtractWorker(IPModeWorker* worker);
    /// The worker that serves a command name with its sub-command (either may be
    /// null), or null when none does. Any thread.
    IPModeWorker* GetWorker(const char* command, const char* subCommand);
    /// True when at least one worker is registered. Any thread.
    bool IsWorkerAllReady();
    /// Calls Initialize() on every registered worker, in list order. Any thread.
    void InitializeAllWorker();
    /// Calls Finalize() on every registered worker, in list order. Any thread.
    void FinalizeAllWorker();

    /// Deletes the workers still registered, in list order.
    ~CWorkerFactory();
    CWorkerFactory(const CWorkerFactory&) = delete;
    CWorkerFactory& operator=(const CWorkerFactory&) = delete;

private:
    PM_HIDDEN CWorkerFactory();
    PM_HIDDEN std::vector<IPModeWorker*> snapshot();

    std::vector<IPModeWorker*> vecWorker; ///< registered workers, in order of registration
};
