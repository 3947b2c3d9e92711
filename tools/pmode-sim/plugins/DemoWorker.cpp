#include "DemoWorker.h"

#include "CAdjustDataManager.h"
#include "CProductionCSV.h"
#include "CProductionMode.h"
#include "PmodeSimHost.h"

#include <cstdlib>
#include <cstring>

DemoWorker::DemoWorker(const char* group)
{
    pszName = group;
}

int DemoWorker::Execute(_tPM_Command* command)
{
    if (command == nullptr) return -1;
    m_provoked = false;
    for (int i = 0; i < command->nParamCount; ++i)
        if (std::strcmp(command->szParam[i], "fail") == 0) m_provoked = true;
    int result = Run(*command);
    if (m_provoked) {
        PmodeSimNote("failure provoked by the script (parameter \"fail\")");
        result = -1;
    }
    return result;
}

bool DemoWorker::HostLink()
{
    return CProductionMode::GetInstance()->GetOperationType() == OP_TYPE_PTP;
}

std::string DemoWorker::Param(const _tPM_Command& command, int i)
{
    return i >= 0 && i < command.nParamCount ? command.szParam[i] : "";
}

std::string DemoWorker::Text(const _tPM_Command& command)
{
    std::string text = command.szWorker;
    for (int i = 0; i < command.nParamCount; ++i) text += std::string(" ") + command.szParam[i];
    return text;
}

long DemoWorker::Number(const _tPM_Command& command, int i, long fallback)
{
    std::string word = Param(command, i);
    if (word.empty()) return fallback;
    char* end = nullptr;
    long value = std::strtol(word.c_str(), &end, 0);
    return end != nullptr && *end == '\0' ? value : fallback;
}

bool DemoWorker::SetProcessMark(int id, bool passed)
{
    unsigned char mark = passed ? '&' : '^';
    return CAdjustDataManager::GetInstance()->SetData(id, &mark, 1, true);
}

bool DemoWorker::ProcessMarkPassed(int id)
{
    unsigned char mark = 0;
    return CAdjustDataManager::GetInstance()->GetData(id, &mark, 1) && mark == '&';
}

bool DemoWorker::SetValue16(int id, uint16_t value, bool sync)
{
    return CAdjustDataManager::GetInstance()->SetData(id, &value, sizeof value, sync);
}

bool DemoWorker::SetValue32(int id, uint32_t value, bool sync)
{
    return CAdjustDataManager::GetInstance()->SetData(id, &value, sizeof value, sync);
}

uint32_t DemoWorker::GetValue32(int id)
{
    uint32_t value = 0;
    CAdjustDataManager::GetInstance()->GetData(id, &value, sizeof value);
    return value;
}

uint16_t DemoWorker::GetValue16(int id)
{
    uint16_t value = 0;
    CAdjustDataManager::GetInstance()->GetData(id, &value, sizeof value);
    return value;
}

int DemoWorker::WriteResult(const std::string& file, const std::string& header, const std::vector<std::string>& rows,
                            bool passed)
{
    if (HostLink() && !passed) return 0; // the failure response is the answer
    CProductionCSV csv;
    int code = csv.Create(file, header);
    for (size_t i = 0; code == 0 && i < rows.size(); ++i) code = csv.Write("%s", rows[i].c_str());
    csv.Close();
    if (code != 0)
        PmodeSimNote("result table %s not written (code %d)", file.c_str(), code);
    else if (HostLink())
        PmodeSimNote("result table %s sent to the PC", file.c_str());
    else
        PmodeSimNote("result table /mnt/mmc/%s: %zu line%s", file.c_str(), rows.size(), rows.size() == 1 ? "" : "s");
    return code;
}

int DemoWorker::FinishAdjustment(int markId, bool passed, bool respond)
{
    if (!SetProcessMark(markId, passed)) PmodeSimNote("process mark %d not written", markId);
    SetAdjResult(passed ? PM_RESULT_PASS : PM_RESULT_FAIL, respond);
    return passed ? 0 : -1;
}

int DemoWorker::Unknown(const _tPM_Command& command)
{
    PmodeSimNote("%s worker: no such step '%s'", GetName(), Text(command).c_str());
    return -1;
}
