// Demo plug-in "CAP": shutter speed measurement and adjustment, white balance,
// ISO sensitivity and the internal strobe. Registers its worker when the library
// is loaded.
#include "AdjustDataList.h"
#include "CWorkerFactory.h"
#include "DemoWorker.h"
#include "PmodeSimHost.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

namespace {

constexpr double kShutterTolerancePct = 3.0;

/// "1/4000" -> 250 us; 0 when the text is not a shutter speed.
double nominalMicroseconds(const std::string& speed)
{
    unsigned denominator = 0;
    if (std::sscanf(speed.c_str(), "1/%u", &denominator) != 1 || denominator == 0) return 0.0;
    return 1e6 / denominator;
}

/// A deviation of d percent as stored: hundredths of a percent around 10000.
uint16_t storedDeviation(double percent)
{
    return static_cast<uint16_t>(std::lround(10000.0 + percent * 100.0));
}

class CCAPWorker : public DemoWorker {
public:
    CCAPWorker() : DemoWorker("CAP") {}

protected:
    int Run(_tPM_Command& command) override
    {
        const std::string name = command.szWorker;
        const std::string step = Param(command, 0);
        if (name == "shutter" && step == "init") return initShutter();
        if (name == "shutter" && step == "measure") return measureShutter(Param(command, 1));
        if (name == "shutter" && step == "adjust") return adjustShutter(Param(command, 1));
        if (name == "line_process" && step == "awb")
            return adjustWhiteBalance(Param(command, 1), Number(command, 2, 5500));
        if (name == "line_process" && step == "iso_sensitivity") return adjustIso(Number(command, 1, 100));
        if (name == "line_process" && step == "strobe") return writeStrobe(command);
        if (step == "shutter_speed2") return takeShutterData(command);
        if (name == "efs" || name == "capture") return captureCheck(command);
        return Unknown(command);
    }

private:
    int initShutter()
    {
        m_deviations.clear();
        PmodeSimNote("shutter: charged, measurement sensor ready");
        return 0;
    }

    /// shutter measure 1/N: one exposure timed by the line's light sensor.
    int measureShutter(const std::string& speed)
    {
        double nominal = nominalMicroseconds(speed);
        if (nominal <= 0.0) {
            PmodeSimNote("shutter measure: '%s' is not a shutter speed (1/N)", speed.c_str());
            return -1;
        }
        static const double kDrift[] = {0.62, -0.41, 0.23, 0.35, -0.18};
        double deviation = Provoked() ? 9.4 : kDrift[m_deviations.size() % 5];
        m_deviations.push_back(deviation);
        double measured = nominal * (1.0 + deviation / 100.0);
        bool passed = std::fabs(deviation) <= kShutterTolerancePct;
        std::this_thread::sleep_for(std::chrono::milliseconds(3));
        PmodeSimNote("shutter %s pass %zu: %.1f us (nominal %.1f us, %+.2f %%)", speed.c_str(), m_deviations.size(),
                     measured, nominal, deviation);
        char row[128];
        std::snprintf(row, sizeof row, "%s,%zu,%.1f,%.1f,%+.2f", speed.c_str(), m_deviations.size(), nominal, measured,
                      deviation);
        WriteResult("shutter_result.csv", "SPEED,PASS,NOMINAL_US,MEASURED_US,DEVIATION_PCT", {row}, passed);
        return passed ? 0 : -1;
    }

    /// shutter adjust 1/N: the mean and spread of the passes become the calibration.
    int adjustShutter(const std::string& speed)
    {
        if (m_deviations.empty()) {
            PmodeSimNote("shutter adjust without measurements (shutter measure first)");
            return FinishAdjustment(ADJUST_SHUTTER_PROCESS_MARK, false, true);
        }
        double sum = 0.0, squares = 0.0;
        for (double d : m_deviations) sum += d;
        double mean = sum / static_cast<double>(m_deviations.size());
        for (double d : m_deviations) squares += (d - mean) * (d - mean);
        double spread = std::sqrt(squares / static_cast<double>(m_deviations.size()));
        bool passed = std::fabs(mean) <= kShutterTolerancePct && !Provoked();
        if (speed == "1/2000") {
            SetValue16(ADJUST_SHUTTER_SPEED_1_2000TH, storedDeviation(mean), false);
        } else {
            SetValue16(ADJUST_SHUTTER_SPEED_1_4000TH_AVR, storedDeviation(mean), false);
            SetValue16(ADJUST_SHUTTER_SPEED_1_4000TH_VAR, storedDeviation(spread), false);
            SetValue16(ADJUST_SHUTTER_SPEED_1_4000TH_MURA, storedDeviation(mean - m_deviations.front()), false);
        }
        PmodeSimNote("shutter %s: %zu passes, mean %+.2f %%, spread %.2f %% -> %s", speed.c_str(), m_deviations.size(),
                     mean, spread, passed ? "calibration stored" : "out of tolerance");
        m_deviations.clear();
        return FinishAdjustment(ADJUST_SHUTTER_PROCESS_MARK, passed, true);
    }

    /// line_process awb high|low|strobe KELVIN: gains that make the grey chart grey.
    int adjustWhiteBalance(const std::string& light, long kelvin)
    {
        int first = 0, mark = 0;
        if (light == "high")
            first = ADJUST_AWB_HIGH_TEMP_RGAIN, mark = ADJUST_AWB_H_PROCESS_MARK;
        else if (light == "low")
            first = ADJUST_AWB_LOW_TEMP_RGAIN, mark = ADJUST_AWB_L_PROCESS_MARK;
        else if (light == "strobe")
            first = ADJUST_AWB_STROBE_RGAIN, mark = ADJUST_AWB_S_PROCESS_MARK;
        else {
            PmodeSimNote("awb: light '%s' is not high, low or strobe", light.c_str());
            return -1;
        }
        double ratio = static_cast<double>(kelvin) / 5500.0;
        uint16_t red = static_cast<uint16_t>(std::lround(1024.0 * std::pow(ratio, 0.55) * 1.62));
        uint16_t green = 1024;
        uint16_t blue = static_cast<uint16_t>(std::lround(1024.0 / std::pow(ratio, 0.48) * 1.41));
        if (Provoked()) red = 4095;
        bool passed = red < 3000 && blue < 3000;
        SetValue16(first, red, false);
        SetValue16(first + 1, green, false);
        SetValue16(first + 2, blue, false);
        PmodeSimNote("awb %s %ld K: R %u G %u B %u", light.c_str(), kelvin, red, green, blue);
        if (!HostLink()) {
            char row[96];
            std::snprintf(row, sizeof row, "%s,%ld,%u,%u,%u,%s", light.c_str(), kelvin, red, green, blue,
                          passed ? "OK" : "NG");
            WriteResult("awb_result.csv", "LIGHT,KELVIN,RGAIN,GGAIN,BGAIN,RESULT", {row}, passed);
        }
        return FinishAdjustment(mark, passed, true);
    }

    /// line_process iso_sensitivity BASE: live-view and capture gains for six ISO steps.
    int adjustIso(long base)
    {
        for (int i = 0; i < 6; ++i) {
            uint32_t gain = static_cast<uint32_t>(base) << i;
            SetValue32(ADJUST_ISOLIVEVIEW_GAIN_00 + i, gain + 3, false);
            SetValue32(ADJUST_ISOCAPTURE_GAIN_00 + i, gain, false);
        }
        PmodeSimNote("iso: gains for ISO %ld to %ld stored", base, base << 5);
        return FinishAdjustment(ADJUST_ISO_SENSITIVITY_PROCESS_MARK, !Provoked(), true);
    }

    /// line_process strobe flash_write N: fires the strobe, writes its checksum and mark.
    /// The controller itself reports the result to the PC from the mark in host-link mode.
    int writeStrobe(const _tPM_Command& command)
    {
        if (Param(command, 1) != "flash_write") return Unknown(command);
        bool passed = !Provoked();
        SetValue32(ADJUST_STROBO_CHECKSUM, 0x5A17C0DEu, false);
        SetProcessMark(ADJUST_INTERNAL_STROBE_PROCESS_MARK, passed);
        if (!HostLink()) SetAdjResult(passed ? PM_RESULT_PASS : PM_RESULT_FAIL, false);
        PmodeSimNote("strobe: guide number 12.1, flash data written, mark %c", passed ? '&' : '^');
        return 0;
    }

    /// Protocol operation "shutter_speed2": the PC's tester hands its measured
    /// exposure times (text, microseconds) for speed 1/2000 (0), 1/4000 (1) or 1/8000 (2).
    int takeShutterData(const _tPM_Command& command)
    {
        static const double kNominal[] = {500.0, 250.0, 125.0};
        unsigned index = command.nArg[1];
        std::string payload = command.pData != nullptr ? std::string(command.pData, command.nArg[0]) : "";
        std::vector<double> times;
        const char* p = payload.c_str();
        for (char* end = nullptr;; p = end) {
            double value = std::strtod(p, &end);
            if (end == p) break;
            times.push_back(value);
        }
        if (index > 2 || times.empty()) {
            PmodeSimNote("shutter_speed2: %s",
                         times.empty() ? "no measured times in the payload" : "speed index above 2");
            return FinishAdjustment(ADJUST_SHUTTER_PROCESS_MARK, false, true);
        }
        double sum = 0.0;
        for (double t : times) sum += t;
        double mean = (sum / static_cast<double>(times.size()) / kNominal[index] - 1.0) * 100.0;
        bool passed = std::fabs(mean) <= kShutterTolerancePct;
        SetValue16(index == 0 ? ADJUST_SHUTTER_SPEED_1_2000TH : ADJUST_SHUTTER_SPEED_1_4000TH_AVR,
                   storedDeviation(mean), false);
        PmodeSimNote("shutter_speed2: %zu times from the PC, mean %+.2f %% of %.0f us", times.size(), mean,
                     kNominal[index]);
        return FinishAdjustment(ADJUST_SHUTTER_PROCESS_MARK, passed, true);
    }

    int captureCheck(const _tPM_Command& command)
    {
        PmodeSimNote("%s: frame read out, %s", DemoWorker::Text(command).c_str(), Provoked() ? "sensor timeout" : "OK");
        return Provoked() ? -1 : 0;
    }

    std::vector<double> m_deviations; ///< percent, one per measured pass
};

__attribute__((constructor)) void registerWorker()
{
    CWorkerFactory::GetInstance()->AddWorker(new CCAPWorker);
}

} // namespace
