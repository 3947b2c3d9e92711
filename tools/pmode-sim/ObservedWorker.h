#pragma once
// A worker that stands in the registry for a plug-in's worker and reports each
// command it runs to the RunLog (group, words, result, time). pmode-sim puts one
// in front of every worker the plug-ins registered, so any plug-in is observed
// without a change to it or to the library.

#include "IPModeWorker.h"

#include <string>
#include <vector>

class ObservedWorker : public IPModeWorker {
public:
    /// Takes over the worker (deletes it with itself); same name.
    explicit ObservedWorker(IPModeWorker* inner);
    ~ObservedWorker() override;

    int Execute(_tPM_Command* command) override;
    void Initialize() override;
    void Finalize() override;

private:
    IPModeWorker* m_inner;
};

/// Replaces every registered worker of the known groups by an ObservedWorker in
/// front of it. The groups found, in the order UI CAP LENS MENU WIFI DD ETC PENDING.
std::vector<std::string> ObserveRegisteredWorkers();
