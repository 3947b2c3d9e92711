#include "ObservedWorker.h"

#include "CWorkerFactory.h"
#include "RunLog.h"

#include <chrono>

ObservedWorker::ObservedWorker(IPModeWorker* inner) : m_inner(inner)
{
    pszName = inner->GetName();
}

ObservedWorker::~ObservedWorker()
{
    delete m_inner;
}

int ObservedWorker::Execute(_tPM_Command* command)
{
    if (command != nullptr) RunLog::Get().Begin(GetName(), *command);
    auto start = std::chrono::steady_clock::now();
    int result = m_inner->Execute(command);
    double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    if (command != nullptr) RunLog::Get().End(result, ms);
    return result;
}

void ObservedWorker::Initialize()
{
    IPModeWorker::Initialize();
    m_inner->Initialize();
}

void ObservedWorker::Finalize()
{
    IPModeWorker::Finalize();
    m_inner->Finalize();
}

std::vector<std::string> ObserveRegisteredWorkers()
{
    // A command routed to each group; the registry has no list of its workers.
    struct Route {
        const char* command;
        const char* subCommand;
    };
    static const Route kRoutes[] = {
        {"key", nullptr},
        {"shutter", nullptr},
        {"lens", nullptr},
        {"menu_setup", nullptr},
        {"wifi_scan", nullptr},
        {"delay", nullptr},
        {"line_process", "final_check"},
        {"line_process", "(no group)"},
    };
    CWorkerFactory* registry = CWorkerFactory::GetInstance();
    std::vector<std::string> groups;
    for (const Route& route : kRoutes) {
        IPModeWorker* worker = registry->GetWorker(route.command, route.subCommand);
        if (worker == nullptr) continue;
        groups.emplace_back(worker->GetName());
        if (dynamic_cast<ObservedWorker*>(worker) != nullptr) continue;
        registry->SubtractWorker(worker);
        registry->AddWorker(new ObservedWorker(worker));
    }
    return groups;
}
