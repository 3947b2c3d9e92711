#include "CWorkerFactory.h"

#include "IPModeWorker.h"
#include "PMReport.h"

#include <cstring>
#include <mutex>

namespace {

struct RouteRow {
    char szName[50];
    char szGroup[10];
};

constexpr const char* kPendingGroup = "PENDING";

// Command name -> group.
const RouteRow kCommandTable[49] = {
    {"key", "UI"},
    {"touch", "UI"},
    {"switch", "UI"},
    {"sensor", "UI"},
    {"lens", "LENS"},
    {"led", "UI"},
    {"port", "PENDING"},
    {"mode", "UI"},
    {"display", "DD"},
    {"sound", "DD"},
    {"audio", "DD"},
    {"shutter", "CAP"},
    {"efs", "CAP"},
    {"capture", "PENDING"},
    {"exposure", "UI"},
    {"proxy", "UI"},
    {"menu_capture", "MENU"},
    {"menu_capture1", "MENU"},
    {"menu_capture2", "MENU"},
    {"menu_capture3", "MENU"},
    {"menu_custom", "MENU"},
    {"menu_custom1", "MENU"},
    {"menu_custom2", "MENU"},
    {"menu_setup", "MENU"},
    {"menu_setup1", "MENU"},
    {"menu_setup2", "MENU"},
    {"menu_setup3", "MENU"},
    {"menu_setup4", "MENU"},
    {"menu_playback", "MENU"},
    {"menu_playback1", "MENU"},
    {"menu_playback2", "MENU"},
    {"menu_slideshow", "MENU"},
    {"menu_movie", "MENU"},
    {"menu_movie1", "MENU"},
    {"menu_movie2", "MENU"},
    {"menu_movie3", "MENU"},
    {"menu_etc", "MENU"},
    {"line_process", "PENDING"},
    {"delay", "DD"},
    {"data", "DD"},
    {"osd", "DD"},
    {"sys_param", "DD"},
    {"sys_serial", "WIFI"},
    {"wifi_scan", "WIFI"},
    {"set_country", "WIFI"},
    {"set_sns_gateway", "WIFI"},
    {"adj_wifi", "WIFI"},
    {"model_name", "WIFI"},
    {"gold_model", "UI"},
};

// Sub-command of a "PENDING" command -> group. "acceleration" stands twice, both
// times in "DD"; the first row wins.
const RouteRow kSubCommandTable[57] = {
    {"main_function", "ETC"},
    {"rotation_sensor", "ETC"},
    {"abnormal_cfpn", "CAP"},
    {"rtc", "DD"},
    {"rtc2", "DD"},
    {"cis_data", "ETC"},
    {"cis_data2", "ETC"},
    {"cis_data_info", "ETC"},
    {"shutter_speed", "CAP"},
    {"shutter_speed2", "CAP"},
    {"dust_reduction", "DD"},
    {"dust_reduction_new", "DD"},
    {"lens_mount", "LENS"},
    {"cis_ob", "CAP"},
    {"battery_level", "DD"},
    {"iso_sensitivity", "CAP"},
    {"afe_gain", "CAP"},
    {"awb", "CAP"},
    {"defect_pixel", "CAP"},
    {"cis_vfpn", "CAP"},
    {"color_shading", "CAP"},
    {"iso_linearity", "CAP"},
    {"strobe", "CAP"},
    {"hotshoe", "CAP"},
    {"ext_evf_connect", "DD"},
    {"acceleration", "DD"},
    {"proximity_sensor", "DD"},
    {"flangeback_check", "CAP"},
    {"final_check", "ETC"},
    {"process_mark", "ETC"},
    {"manual_mode", "ETC"},
    {"control_signal", "DD"},
    {"control_sound", "DD"},
    {"acceleration", "DD"},
    {"pause", "ETC"},
    {"product_number", "ETC"},
    {"snapshot", "ETC"},
    {"wifi", "WIFI"},
    {"paf", "CAP"},
    {"still", "UI"},
    {"movie", "UI"},
    {"continuous", "UI"},
    {"debug", "CAP"},
    {"cis", "CAP"},
    {"efs", "CAP"},
    {"cap", "CAP"},
    {"adjust", "CAP"},
    {"xsw", "CAP"},
    {"adc", "ETC"},
    {"usb", "ETC"},
    {"card_lock", "ETC"},
    {"pimode", "DD"},
    {"config", "DD"},
    {"display_result", "DD"},
    {"afi_adj", "DD"},
    {"create_file", "DD"},
    {"gyroscope", "DD"},
};

template <size_t N>
const char* findGroup(const RouteRow (&table)[N], const char* name)
{
    for (const RouteRow& row : table) {
        if (std::strcmp(row.szName, name) == 0) return row.szGroup;
    }
    return nullptr;
}

// Plug-ins register on their own threads while the controller looks up on its
// thread; the registry is a singleton, so one lock for its list suffices.
std::mutex& listMutex()
{
    static std::mutex mutex;
    return mutex;
}

} // namespace

CWorkerFactory* CWorkerFactory::GetInstance()
{
    static CWorkerFactory instance;
    return &instance;
}

CWorkerFactory::CWorkerFactory()
{
    listMutex(); // built before the registry, so it outlives the registry's destructor
}

CWorkerFactory::~CWorkerFactory()
{
    // Taken out of the list first: a worker's destructor may unregister itself.
    std::vector<IPModeWorker*> workers;
    {
        std::lock_guard<std::mutex> lock(listMutex());
        workers.swap(vecWorker);
    }
    for (IPModeWorker* worker : workers) delete worker;
}

void CWorkerFactory::AddWorker(IPModeWorker* worker)
{
    if (worker == nullptr) return;
    PM_CHECK(worker->GetName() != nullptr);
    std::lock_guard<std::mutex> lock(listMutex());
    for (IPModeWorker* registered : vecWorker) {
        if (registered == nullptr || registered->GetName() == nullptr) continue;
        if (std::strcmp(registered->GetName(), worker->GetName()) == 0) {
            PM_TRACE("You tried to regist Worker[%s]\n", worker->GetName());
            PM_TRACE("But this worker name already registerd!\n");
            return;
        }
    }
    vecWorker.push_back(worker);
}

void CWorkerFactory::SubtractWorker(IPModeWorker* worker)
{
    if (worker == nullptr) return;
    std::lock_guard<std::mutex> lock(listMutex());
    for (auto it = vecWorker.begin(); it != vecWorker.end(); ++it) {
        if (*it == worker) {
            PM_TRACE("Subtract Worker[%s]\n", worker->GetName() != nullptr ? worker->GetName() : "");
            vecWorker.erase(it);
            return;
        }
    }
}

IPModeWorker* CWorkerFactory::GetWorker(const char* command, const char* subCommand)
{
    if (command == nullptr) return nullptr;
    const char* group = findGroup(kCommandTable, command);
    if (group != nullptr && subCommand != nullptr && std::strcmp(group, kPendingGroup) == 0) {
        const char* subGroup = findGroup(kSubCommandTable, subCommand);
        if (subGroup != nullptr) group = subGroup;
    }
    if (group == nullptr) return nullptr;
    std::lock_guard<std::mutex> lock(listMutex());
    for (IPModeWorker* worker : vecWorker) {
        if (worker != nullptr && worker->GetName() != nullptr && std::strcmp(worker->GetName(), group) == 0) {
            return worker;
        }
    }
    return nullptr;
}

bool CWorkerFactory::IsWorkerAllReady()
{
    std::lock_guard<std::mutex> lock(listMutex());
    return !vecWorker.empty();
}

void CWorkerFactory::InitializeAllWorker()
{
    for (IPModeWorker* worker : snapshot()) {
        if (worker != nullptr) worker->Initialize();
    }
}

void CWorkerFactory::FinalizeAllWorker()
{
    for (IPModeWorker* worker : snapshot()) {
        if (worker != nullptr) worker->Finalize();
    }
}

std::vector<IPModeWorker*> CWorkerFactory::snapshot()
{
    std::lock_guard<std::mutex> lock(listMutex());
    return vecWorker;
}
