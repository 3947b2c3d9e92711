// Demo plug-in "ETC": process marks and the resume step, the final check, the
// product number and the image sensor's factory data (also over the host link:
// "cis_data2" takes the sensor data from the PC, "cis_data_info" answers it as a
// data block, "line_process cis_data file" as a file). Registers its worker when
// the library is loaded.
#include "AdjustDataList.h"
#include "CAdjustDataManager.h"
#include "CPTPAdjInterface.h"
#include "CWorkerFactory.h"
#include "DemoWorker.h"
#include "PmodeSimHost.h"
#include "kernel.h"

#include <cstdio>
#include <cstring>
#include <sstream>

namespace {

constexpr const char* kCisFile = "/mnt/mmc/cis_data.txt";

/// Process marks the final check looks at: every one-byte mark of the catalogue.
bool isProcessMark(int id)
{
    return (id >= ADJUST_MAIN_FUNCTION_PROCESS_MARK && id <= ADJUST_EFUSE_PROCESS_MARK
            && id != ADJUST_ISO_SENSITIVITY_PROCESS_MARK)
           || id == ADJUST_GYROSCOPE_PROCESS_MARK;
}

class CETCWorker : public DemoWorker {
public:
    CETCWorker() : DemoWorker("ETC") {}

protected:
    int Run(_tPM_Command& command) override
    {
        const std::string step = Param(command, 0);
        if (step == "process_mark") return processMark(command);
        if (step == "final_check") return finalCheck();
        if (step == "product_number") return productNumber(command);
        if (step == "cis_data") return cisData(Param(command, 1), Param(command, 2));
        if (step == "cis_data2") return takeCisData(command);
        if (step == "cis_data_info") return answerCisInfo();
        if (step == "main_function" || step == "rotation_sensor" || step == "usb" || step == "card_lock"
            || step == "adc") {
            PmodeSimNote("%s: %s", step.c_str(), Provoked() ? "NG" : "OK");
            return Provoked() ? -1 : 0;
        }
        return Unknown(command);
    }

private:
    /// line_process process_mark next_step N: step N-1 is finished; a run that is
    /// started again resumes at label ADJ_nn of step N.
    int processMark(const _tPM_Command& command)
    {
        long next = Number(command, 2, -1);
        if (Param(command, 1) != "next_step" || next < 0) {
            PmodeSimNote("process_mark: expected 'next_step N'");
            return -1;
        }
        int32_t finished = static_cast<int32_t>(next - 1), nextStep = static_cast<int32_t>(next);
        CAdjustDataManager* manager = CAdjustDataManager::GetInstance();
        bool stored = manager->SetData(LINE_CONTROL_FINISHED_STEP, &finished, 4, true)
                      && manager->SetData(LINE_CONTROL_NEXT_STEP, &nextStep, 4, true);
        PmodeSimNote("step %ld finished; a new run resumes at ADJ_%02ld", next - 1, next);
        return stored ? 0 : -1;
    }

    /// line_process final_check all: every process mark written in this unit's
    /// production holds '&'; then the unit is finished and the resume step goes back to 0.
    int finalCheck()
    {
        int passedMarks = 0;
        std::string failedMarks;
        for (int id = 0; id < ADJUST_DATA_ID_MAX; ++id) {
            if (!isProcessMark(id) || id == ADJUST_MAIN_FUNCTION_PROCESS_MARK) continue;
            unsigned char mark = 0;
            CAdjustDataManager::GetInstance()->GetData(id, &mark, 1);
            if (mark == '&')
                ++passedMarks;
            else if (mark == '^')
                failedMarks += std::string(failedMarks.empty() ? "" : ", ")
                               + get_adjust_data_id_name(static_cast<_AdjustDataID>(id));
        }
        bool passed = failedMarks.empty() && passedMarks > 0 && !Provoked();
        if (passed) {
            int32_t zero = 0;
            CAdjustDataManager::GetInstance()->SetData(LINE_CONTROL_NEXT_STEP, &zero, 4, true);
            PmodeSimNote("final check: %d process marks passed; unit finished, resume step back to 0", passedMarks);
        } else {
            PmodeSimNote("final check: %d passed, failed: %s", passedMarks,
                         failedMarks.empty() ? "(none written)" : failedMarks.c_str());
        }
        return FinishAdjustment(ADJUST_MAIN_FUNCTION_PROCESS_MARK, passed, true);
    }

    int productNumber(const _tPM_Command& command)
    {
        std::string number = Param(command, 2);
        if (Param(command, 1) != "write" || number.empty() || number.size() > 15) {
            PmodeSimNote("product_number: expected 'write NUMBER' (1 to 15 characters)");
            return -1;
        }
        char field[16] = {};
        std::memcpy(field, number.data(), number.size());
        CAdjustDataManager::GetInstance()->SetData(ADJUST_LINE_PRODUCT_NUMBER, field, sizeof field, true);
        PmodeSimNote("product number %s stored", number.c_str());
        return 0;
    }

    std::string cisSummary()
    {
        uint32_t serial = GetValue32(ADJUST_CIS_SN);
        char lot[33] = {};
        CAdjustDataManager::GetInstance()->GetData(ADJUST_CIS_LOT_NUMBER, lot, 32);
        std::ostringstream text;
        text << "CIS S/N " << serial << "\nchip version " << GetValue16(ADJUST_CIS_CHIP_VERSION) << "\nclamp level "
             << GetValue16(ADJUST_CIS_CLAMP_LEVEL) << "\nlot " << (lot[0] != '\0' ? lot : "-") << "\n";
        return text.str();
    }

    /// line_process cis_data set SERIAL | read | file.
    int cisData(const std::string& action, const std::string& value)
    {
        if (action == "set") {
            char* end = nullptr;
            unsigned long serial = std::strtoul(value.c_str(), &end, 10);
            if (value.empty() || *end != '\0') {
                PmodeSimNote("cis_data set: '%s' is not a serial number", value.c_str());
                return -1;
            }
            SetValue32(ADJUST_CIS_SN, static_cast<uint32_t>(serial), true);
            PmodeSimNote("CIS serial number %lu stored", serial);
            return 0;
        }
        if (action == "read") {
            std::string summary = cisSummary();
            PmodeSimNote("%s", summary.substr(0, summary.find('\n')).c_str());
            std::string row = std::to_string(GetValue32(ADJUST_CIS_SN)) + ","
                              + std::to_string(GetValue16(ADJUST_CIS_CHIP_VERSION)) + ","
                              + std::to_string(GetValue16(ADJUST_CIS_CLAMP_LEVEL));
            WriteResult("cis_result.csv", "SERIAL,CHIP,CLAMP", {row}, true);
            return 0;
        }
        if (action == "file") {
            FILE* file = std::fopen(KernelPath(kCisFile).c_str(), "w");
            if (file == nullptr) {
                PmodeSimNote("cannot write %s", kCisFile);
                return -1;
            }
            std::string summary = cisSummary();
            std::fputs(summary.c_str(), file);
            std::fclose(file);
            CPTPAdjInterface::GetInstance()->SetFile(kCisFile);
            PmodeSimNote("sensor data written to %s", kCisFile);
            return 0;
        }
        PmodeSimNote("cis_data: expected set SERIAL, read or file");
        return -1;
    }

    /// Protocol operation "cis_data2": the PC hands the sensor's factory data as
    /// text "SN=... CHIP=... CLAMP=... LOT=..." (nArg[0] bytes).
    int takeCisData(const _tPM_Command& command)
    {
        if (command.pData == nullptr || command.nArg[0] == 0) {
            PmodeSimNote("cis_data2 without sensor data");
            return -1;
        }
        std::istringstream fields(std::string(command.pData, command.nArg[0]));
        int taken = 0;
        for (std::string field; fields >> field;) {
            size_t equals = field.find('=');
            if (equals == std::string::npos) continue;
            std::string key = field.substr(0, equals), value = field.substr(equals + 1);
            if (key == "SN")
                SetValue32(ADJUST_CIS_SN, static_cast<uint32_t>(std::strtoul(value.c_str(), nullptr, 10)), false);
            else if (key == "CHIP")
                SetValue16(ADJUST_CIS_CHIP_VERSION, static_cast<uint16_t>(std::atoi(value.c_str())), false);
            else if (key == "CLAMP")
                SetValue16(ADJUST_CIS_CLAMP_LEVEL, static_cast<uint16_t>(std::atoi(value.c_str())), false);
            else if (key == "LOT") {
                char lot[32] = {};
                std::strncpy(lot, value.c_str(), sizeof lot - 1);
                CAdjustDataManager::GetInstance()->SetData(ADJUST_CIS_LOT_NUMBER, lot, sizeof lot, false);
            } else
                continue;
            ++taken;
        }
        int32_t token = 0;
        CAdjustDataManager::GetInstance()->GetData(ADJUST_CHECKSUM1, &token, 1);
        CAdjustDataManager::GetInstance()->SetData(ADJUST_CHECKSUM1, &token, 1, true); // writes the values taken
        PmodeSimNote("cis_data2: %d sensor value%s taken from the PC", taken, taken == 1 ? "" : "s");
        SetProcessMark(ADJUST_CIS_DOT_DATA_PROCESS_MARK, taken > 0);
        return taken > 0 ? 0 : -1;
    }

    /// Protocol operation "cis_data_info": the sensor data as a data block.
    int answerCisInfo()
    {
        std::string summary = cisSummary();
        CPTPAdjInterface::GetInstance()->SetData(reinterpret_cast<unsigned char*>(&summary[0]),
                                                 static_cast<int>(summary.size()));
        PmodeSimNote("sensor data sent to the PC (%zu bytes)", summary.size());
        return 0;
    }
};

__attribute__((constructor)) void registerWorker()
{
    CWorkerFactory::GetInstance()->AddWorker(new CETCWorker);
}

} // namespace
