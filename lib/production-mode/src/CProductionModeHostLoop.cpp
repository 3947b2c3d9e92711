// The host-link run loop of CProductionMode: serves the factory PC's script
// lines and protocol operations, one message at a time, until the channel closes.
#include "CProductionMode.h"

#include "CAdjustDataManager.h"
#include "CPTPAdjInterface.h"
#include "CProductionOSD.h"
#include "CProductionPTP.h"
#include "CWorkerFactory.h"
#include "IPModeWorker.h"
#include "PMReport.h"
#include "kernel.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

constexpr short kFailTextArea = 7;
constexpr int kStrobeProcessMark = 11; // ADJUST_INTERNAL_STROBE_PROCESS_MARK
constexpr size_t kRecordPathMax = 64;

/// One response of three values.
struct Respond {
    uint32_t code;
    uint32_t value2;
    uint32_t value3;
};

constexpr Respond kRespondDone{0x10000000u, 0, 0};
constexpr Respond kRespondFail{0x10000002u, 1, 0};
constexpr Respond kRespondRtc{0x10000002u, 0x10003u, 0};
constexpr Respond kRespondCisData{0x10020002u, 0, 0};
constexpr Respond kRespondCisInfo{0x10020000u, 0, 0};

// Protocol operation codes: group in the upper 16 bits, sub-code in the lower.
constexpr uint32_t kGroupShutter = 0x1001;
constexpr uint32_t kGroupCis = 0x1002;
constexpr uint32_t kGroupRtc = 0x1003;
constexpr uint32_t kGroupPaf = 0x1004;

/// A worker's own answer (response, data or file) wins over the loop's default.
void prepareRespond(const Respond& respond)
{
    CPTPAdjInterface* transfer = CPTPAdjInterface::GetInstance();
    if (transfer->GetTransferDataType() != PTP_TRANSFER_NONE) return;
    transfer->SetRespond(respond.code, respond.value2, respond.value3);
}

bool isWord(const char* word, const char* expected)
{
    return std::strcmp(word, expected) == 0;
}

void setSubCommand(_tPM_Command& command, const char* subCommand)
{
    std::memset(command.szParam[0], 0, sizeof command.szParam[0]);
    std::snprintf(command.szParam[0], sizeof command.szParam[0], "%s", subCommand);
}

void showCommandFailure(const _tPM_Command& command)
{
    CProductionOSD::GetInstance()->Text(kFailTextArea, "CMD FAIL: %s, %s, %s", command.szWorker, command.szParam[0],
                                        command.szParam[1]);
    PM_TRACE_RED("CMD FAIL: %s, %s, %s", command.szWorker, command.szParam[0], command.szParam[1]);
}

/// Result tables named by a recorded line are files on the card.
bool namesResultTable(const char* name)
{
    return std::strstr(name, "_result") != nullptr || std::strstr(name, "_log") != nullptr
           || std::strstr(name, "_14") != nullptr;
}

} // namespace

int CProductionMode::runHostMode()
{
    _tPM_Command current;
    for (;;) {
        if (pPTP == nullptr) {
            PM_ASSERT_FAILED();
            nOperationType = OP_TYPE_NONE;
            return -1;
        }
        pPTP->PollingPTPComm();
        nOperationType = OP_TYPE_PTP;

        const uint32_t type = pPTP->GetPTPMessageType();
        if (isStopRequested() || (type != PTP_MSG_SCRIPT && type != PTP_MSG_PROTOCOL)) {
            nOperationType = OP_TYPE_NONE;
            return 0;
        }
        if (type == PTP_MSG_SCRIPT) {
            current = pPTP->ReadScript();
            serveHostScriptLine(current);
        } else if (!serveProtocolMessage(current)) {
            prepareRespond(kRespondFail);
        }
        if (pPTP->SendPTP() != 0) PM_ASSERT_FAILED();
    }
}

void CProductionMode::serveHostScriptLine(_tPM_Command& command)
{
    if (blCreateFile && isWord(command.szParam[0], "create_file") && isWord(command.szParam[1], "off")) {
        blCreateFile = false;
    }
    if (!blCreateFile) {
        runHostCommand(command);
        return;
    }
    prepareRespond(recordHostCommand(command) ? kRespondDone : kRespondFail);
}

void CProductionMode::runHostCommand(_tPM_Command& command)
{
    if (pWorkerFactory == nullptr) return;
    IPModeWorker* worker = pWorkerFactory->GetWorker(command.szWorker, command.szParam[0]);
    if (worker == nullptr) {
        PM_TRACE("Worker None: %s, %s, %s", command.szWorker, command.szParam[0], command.szParam[1]);
        return;
    }
    if (worker->Execute(&command) < 0) {
        showCommandFailure(command);
        prepareRespond(kRespondFail);
        return;
    }
    if (isWord(command.szWorker, "line_process") && isWord(command.szParam[0], "strobe")
        && isWord(command.szParam[1], "flash_write")) {
        unsigned char mark = 0;
        if (!CAdjustDataManager::GetInstance()->GetData(kStrobeProcessMark, &mark, sizeof mark)) {
            PM_TRACE("CAdjustDataManager::GetInstance()->GetData() ERROR\n");
        }
        worker->SetAdjResult(mark == PM_RESULT_PASS ? PM_RESULT_PASS : PM_RESULT_FAIL, true);
    }
    prepareRespond(kRespondDone);
}

bool CProductionMode::recordHostCommand(_tPM_Command& command)
{
    if (namesResultTable(command.szWorker)) {
        PM_CHECK(std::strlen(command.szWorker) + 4 < sizeof command.szWorker, false);
        std::strcat(command.szWorker, ".csv");
    }
    const std::string path = std::string("/mnt/mmc/") + strCreateFile;
    PM_CHECK(path.size() < kRecordPathMax, false);

    FILE* file = std::fopen(KernelPath(path.c_str()).c_str(), "a+t");
    if (file == nullptr) {
        PM_TRACE("File Open ERROR\n");
        PM_ASSERT_FAILED();
        return false;
    }
    bool written = std::fputs(command.szWorker, file) >= 0;
    for (int i = 0; i < command.nParamCount && i < PM_PARAM_MAX; ++i) {
        written = written && std::fprintf(file, " %s", command.szParam[i]) >= 0;
    }
    written = written && std::fputc('\n', file) != EOF;
    // A full card shows itself only when the buffered line reaches it.
    written = (std::fclose(file) == 0) && written;
    if (!written) PM_TRACE("Record File Write ERROR: %s\n", path.c_str());
    return written;
}

bool CProductionMode::serveProtocolMessage(const _tPM_Command& current)
{
    int operation = 0, p1 = 0, p2 = 0, p3 = 0, p4 = 0;
    char* payload = nullptr;
    PM_CHECK(pPTP->ReceivePTP(operation, p1, p2, p3, p4, &payload) >= 0, false);
    if (pWorkerFactory == nullptr) return true;

    IPModeWorker* worker = pWorkerFactory->GetWorker(current.szWorker, current.szParam[0]);
    PM_CHECK(CPTPAdjInterface::GetInstance() != nullptr, false);
    PM_CHECK(worker != nullptr, false);

    const uint32_t group = static_cast<uint32_t>(operation) >> 16;
    const uint32_t subCode = static_cast<uint32_t>(operation) & 0xFFFFu;
    const uint32_t arg1High = static_cast<uint32_t>(p1) >> 16;
    const uint32_t arg1Low = static_cast<uint32_t>(p1) & 0xFFFFu;

    _tPM_Command derived = current;
    const Respond* onSuccess = nullptr;
    if (group == kGroupShutter && subCode == 0x1000) {
        PM_CHECK(arg1High <= 2, false);
        if (arg1Low != 2) return true;
        setSubCommand(derived, "shutter_speed2");
        derived.nArg[0] = static_cast<uint32_t>(p4);
        derived.nArg[1] = arg1High;
        derived.pData = payload;
        onSuccess = &kRespondDone;
    } else if (group == kGroupCis && subCode == 0x1000) {
        setSubCommand(derived, "cis_data2");
        derived.nArg[0] = static_cast<uint32_t>(p4);
        derived.nArg[1] = static_cast<uint32_t>(p1);
        derived.nArg[2] = static_cast<uint32_t>(p2);
        derived.nArg[3] = static_cast<uint32_t>(p3);
        derived.pData = payload;
        onSuccess = &kRespondCisData;
    } else if (group == kGroupCis && subCode == 0x1001) {
        setSubCommand(derived, "cis_data_info");
        derived.nArg[0] = static_cast<uint32_t>(p1);
        derived.nArg[1] = static_cast<uint32_t>(p2);
        derived.nArg[2] = static_cast<uint32_t>(p3);
        derived.nArg[3] = static_cast<uint32_t>(p4);
        onSuccess = &kRespondCisInfo;
    } else if (group == kGroupRtc && subCode == 0) {
        setSubCommand(derived, "rtc2");
        derived.nArg[0] = static_cast<uint32_t>(p1);
        derived.nArg[1] = static_cast<uint32_t>(p2);
        onSuccess = &kRespondRtc;
    } else if (group == kGroupPaf && subCode == 0) {
        setSubCommand(derived, "paf2");
    } else {
        if (group == kGroupPaf) {
            PM_TRACE("Worker None: %s, %s, %s", current.szWorker, current.szParam[0], current.szParam[1]);
        }
        return true;
    }

    if (worker->Execute(&derived) < 0) {
        prepareRespond(kRespondFail);
    } else if (onSuccess != nullptr) {
        prepareRespond(*onSuccess);
    }
    return true;
}
