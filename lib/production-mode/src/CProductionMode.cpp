#include "CProductionMode.h"

#include "CAdjustDataManager.h"
#include "CPTPAdjInterface.h"
#include "CProductionOSD.h"
#include "CProductionPTP.h"
#include "CProductionScript.h"
#include "CWorkerFactory.h"
#include "PMReport.h"
#include "fx_os.h"
#include "kernel.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <unistd.h>

namespace {

constexpr const char* kCardDir = "/mnt/mmc/";
constexpr const char* kInfoTg = "/mnt/mmc/info.tg";
constexpr const char* kInfoTgw = "/mnt/mmc/info.tgw";
constexpr const char* kTkDev = "/mnt/mmc/tk_dev.adj";
constexpr const char* kDefaultScript = "default.adj";

constexpr long kInfoFileMax = 64;
constexpr int kLinePtpAutoEnable = 139;
constexpr useconds_t kWorkerPollUs = 1000000;
constexpr unsigned int kFinalizeSleepMs = 10;

// Line numbers under which these two reports have always been filed in the log.
constexpr int kPtpFlagReportLine = 865;
constexpr int kMountReportLine = 984;

// Set by Finalize (and the destructor), cleared by Initialize. The controller is
// a singleton, so one flag serves it.
std::atomic<bool> g_stopRequested{false};

/// The outcome of reading one information file.
struct InfoText {
    bool opened = false; ///< the file could be opened
    bool read = false;   ///< a block of 0 to 64 bytes was read whole (0 bytes never is)
    long size = 0;       ///< the size found by seeking to the end
    std::string text;    ///< the bytes read, up to the first NUL
};

/// Reads an information file (or a small script) the one way all checks do.
/// `readError` is the trace of a failed block read.
InfoText readInfoFile(const char* devicePath, const char* readError)
{
    InfoText info;
    FILE* file = std::fopen(KernelPath(devicePath).c_str(), "rt");
    if (file == nullptr) return info;
    info.opened = true;
    if (std::fseek(file, 0, SEEK_END) == 0) info.size = std::ftell(file);
    std::fseek(file, 0, SEEK_SET);
    if (info.size >= 0 && info.size <= kInfoFileMax) {
        char buffer[kInfoFileMax] = {};
        const size_t size = static_cast<size_t>(info.size);
        if (size > 0 && std::fread(buffer, size, 1, file) == 1) {
            info.read = true;
            info.text.assign(buffer, strnlen(buffer, size));
        } else {
            PM_TRACE(readError, devicePath);
        }
    }
    std::fclose(file);
    return info;
}

bool canOpen(const std::string& devicePath)
{
    FILE* file = std::fopen(KernelPath(devicePath.c_str()).c_str(), "rt");
    if (file == nullptr) return false;
    std::fclose(file);
    return true;
}

bool contains(const std::string& text, const char* part)
{
    return text.find(part) != std::string::npos;
}

void setAdjustMode(CAdjustDataManager::E_OP_MODE mode)
{
    CAdjustDataManager::GetInstance()->SetMode(mode);
}

} // namespace

CProductionMode* CProductionMode::GetInstance()
{
    static CProductionMode instance;
    return &instance;
}

CProductionMode::CProductionMode()
    : FThread(), nOperationType(OP_TYPE_NONE), strScriptFile(), pPTP(nullptr), pScript(nullptr),
      pWorkerFactory(CWorkerFactory::GetInstance()), blCreateFile(false), strCreateFile()
{}

CProductionMode::~CProductionMode()
{
    // A script run still going at process exit ends after its current command; a
    // host link still open was closed by closeHostLinkAtExit before this runs.
    requestStop();
    Destroy();
    strScriptFile.clear();
    releaseOwnedObjects();
}

void CProductionMode::closeHostLinkAtExit()
{
    CProductionMode* mode = GetInstance();
    if (!mode->IsCreated()) return;
    mode->requestStop();
    if (mode->pPTP != nullptr) mode->pPTP->Unmount();
    mode->Destroy();
}

bool CProductionMode::IsActive() const
{
    return nOperationType != OP_TYPE_NONE;
}

int CProductionMode::GetOperationType() const
{
    return nOperationType;
}

void CProductionMode::requestStop()
{
    g_stopRequested = true;
}

bool CProductionMode::isStopRequested()
{
    return g_stopRequested;
}

void CProductionMode::releaseOwnedObjects()
{
    delete pScript;
    pScript = nullptr;
    delete pPTP;
    pPTP = nullptr;
}

void CProductionMode::Initialize()
{
    PM_TRACE("Initialize");
    g_stopRequested = false;
    if (pPTP == nullptr) pPTP = new (std::nothrow) CProductionPTP;
    if (pScript == nullptr) pScript = new (std::nothrow) CProductionScript;
    if (pWorkerFactory != nullptr) {
        while (!pWorkerFactory->IsWorkerAllReady()) usleep(kWorkerPollUs);
        pWorkerFactory->InitializeAllWorker();
    }
    CProductionOSD::GetInstance()->Initialize();
}

void CProductionMode::Finalize()
{
    PM_TRACE("Finalize");
    requestStop();
    if (pWorkerFactory != nullptr) pWorkerFactory->FinalizeAllWorker();
    // The script text is released only after the thread has been joined (below);
    // the stop request makes a script-mode run end before its next command.
    if (pPTP != nullptr) pPTP->Unmount();
    while (nOperationType != OP_TYPE_NONE) _fx_thread_sleep(__FILE__, "Finalize", __LINE__, kFinalizeSleepMs);
    Destroy();
    if (pScript != nullptr) pScript->Unmount();
    if (!strScriptFile.empty()) strScriptFile.clear();
    if (!strCreateFile.empty()) strCreateFile.clear();
    releaseOwnedObjects();
    blCreateFile = false;
    CPTPAdjInterface::GetInstance()->Dispatch();
    CProductionOSD::GetInstance()->CleanWindow();
    PM_TRACE("Finalize-Done");
}

int CProductionMode::CanPModeWorking()
{
    if (checkScriptFile()) return checkwificertification() ? 3 : 1;
    return checkPTPFlag() ? 2 : 0;
}

bool CProductionMode::isProductionStatus()
{
    bool result = canOpen(kInfoTg) || canOpen(kInfoTgw);
    int autoEnable = 0;
    if (CAdjustDataManager::GetInstance()->GetData(kLinePtpAutoEnable, &autoEnable, sizeof autoEnable)
        && autoEnable == 1) {
        PM_TRACE("LINE_PTP_AUTO_ENABLE = 1 \n");
        result = true;
    }
    PM_TRACE("CProductionMode::isProductionStatus() blRetVal = %d \n", result ? 1 : 0);
    return result;
}

bool CProductionMode::checkScriptFile()
{
    if (strScriptFile.empty()) {
        const InfoText info = readInfoFile(kInfoTg, "info.tg File Read error!!!");
        if (info.read) {
            strScriptFile = std::string(kCardDir) + info.text;
            if (contains(strScriptFile, ".adj")) {
                setAdjustMode(contains(strScriptFile, ".dev") ? CAdjustDataManager::OP_MODE_NO_SNAPSHOT
                                                              : CAdjustDataManager::OP_MODE_SNAPSHOT);
            }
        }
        const InfoText device = readInfoFile(kTkDev, "tk_dev.adj File Read error!!!");
        if (device.read && contains(device.text, "keen_camera")) setAdjustMode(CAdjustDataManager::OP_MODE_SNAPSHOT);
    }

    if (!contains(strScriptFile, ".adj")) return false;

    const std::string named = strScriptFile;
    strScriptFile = std::string(kCardDir) + kDefaultScript;
    if (canOpen(strScriptFile)) return true;

    strScriptFile = named;
    const size_t extension = strScriptFile.find(".adj");
    strScriptFile.erase(extension + 4);
    return canOpen(strScriptFile);
}

bool CProductionMode::checkPTPFlag()
{
    if (canOpen(kInfoTgw)) {
        strScriptFile = readInfoFile(kInfoTgw, "info.tgw File Read error!!!").text;
        if (!strScriptFile.empty()) {
            setAdjustMode(contains(strScriptFile, ".dev") ? CAdjustDataManager::OP_MODE_NO_SNAPSHOT
                                                          : CAdjustDataManager::OP_MODE_SNAPSHOT);
            strScriptFile.clear();
        } else {
            setAdjustMode(CAdjustDataManager::OP_MODE_SNAPSHOT);
        }
        return true;
    }

    int autoEnable = 0;
    if (!CAdjustDataManager::GetInstance()->GetData(kLinePtpAutoEnable, &autoEnable, sizeof autoEnable)) {
        pm::ErrorLog(__FILE__, "checkPTPFlag", kPtpFlagReportLine, "Fail to get LINEPREF_PTP_AUTO_ENABLE");
        return false;
    }
    if (autoEnable != 1) return false;
    setAdjustMode(CAdjustDataManager::OP_MODE_SNAPSHOT);
    return true;
}

bool CProductionMode::checkwificertification()
{
    const InfoText info = readInfoFile(kInfoTg, "info.tg File Read error!!!");
    if (info.read) strScriptFile = std::string(kCardDir) + info.text;

    if (!contains(strScriptFile, ".adj") || !canOpen(strScriptFile)) return false;
    const InfoText script = readInfoFile(strScriptFile.c_str(), "%s File Read error!!!");
    if (script.read) PM_TRACE("checkwificertification() strScriptFileContent = %s!!!\n", script.text.c_str());
    if (script.size < 0 || script.size > kInfoFileMax) return false;
    return contains(script.text, "adj_wifi certification");
}

void CProductionMode::t_Main()
{
    if (isStopRequested()) return;
    if (checkScriptFile()) {
        if (pScript == nullptr) return;
        pScript->Mount(strScriptFile.c_str());
        nOperationType = OP_TYPE_SCRIPT;
        RunProductionMode();
    } else if (checkPTPFlag() && pPTP != nullptr) {
        if (!pPTP->Mount()) {
            pm::ErrorLog(__FILE__, "t_Main", kMountReportLine, "PTP Mount Error");
            return;
        }
        // Registered after the mount, so it runs at process exit before the platform's
        // key-value store (set up by the mount) is torn down.
        std::atexit(&CProductionMode::closeHostLinkAtExit);
        // Finalize may have unmounted the channel before it was mounted here.
        if (isStopRequested()) {
            pPTP->Unmount();
            return;
        }
        RunProductionMode();
    }
}

int CProductionMode::RunProductionMode()
{
    return nOperationType == OP_TYPE_SCRIPT ? runScriptMode() : runHostMode();
}

bool CProductionMode::StartCreateFile(const std::string& name)
{
    if (name.empty() || std::strlen(kCardDir) + name.size() >= 64) return false;
    strCreateFile = name;
    blCreateFile = true;
    return true;
}
