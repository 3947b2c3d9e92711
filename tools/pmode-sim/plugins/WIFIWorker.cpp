// Demo plug-in "WIFI": shipment country, Wi-Fi scan, serial number and the Wi-Fi
// adjustment. Registers its worker when the library is loaded.
#include "AdjustDataList.h"
#include "CAdjustDataManager.h"
#include "CWorkerFactory.h"
#include "DemoWorker.h"
#include "PmodeSimHost.h"

#include <chrono>
#include <cstring>
#include <thread>

namespace {

class CWIFIWorker : public DemoWorker {
public:
    CWIFIWorker() : DemoWorker("WIFI") {}

protected:
    int Run(_tPM_Command& command) override
    {
        const std::string name = command.szWorker;
        const std::string step = Param(command, 0);
        if (name == "set_country" && step == "code") return setCountry(Number(command, 1, -1));
        if (name == "wifi_scan" && step == "start") return scan(Number(command, 1, 3));
        if (name == "sys_serial" && step == "write") return writeSerial(Param(command, 1));
        if (name == "adj_wifi" || (name == "line_process" && step == "wifi")) return adjustWifi();
        if (name == "model_name" || name == "set_sns_gateway") {
            PmodeSimNote("%s: %s", name.c_str(), Param(command, 1).c_str());
            return 0;
        }
        return Unknown(command);
    }

private:
    /// set_country code N: the shipment country; the country-dependent items follow from it.
    int setCountry(long code)
    {
        if (code < 0 || code > 142) {
            PmodeSimNote("set_country: %ld is no shipment-country code (0 to 142)", code);
            return -1;
        }
        SetValue16(ADJUST_SHIPMENT_COUNTRY, static_cast<uint16_t>(code), true);
        char country[3] = {};
        CAdjustDataManager::GetInstance()->GetData(ADJUST_5GHZ_WIFI_CONTRY_CODE, country, sizeof country);
        uint32_t channel = 0, language = 0;
        CAdjustDataManager::GetInstance()->GetData(ADJUST_WIFI_COUNTRY_CHANNEL, &channel, 4);
        CAdjustDataManager::GetInstance()->GetData(ADJUST_DEFAULT_LANGUAGE, &language, 4);
        PmodeSimNote("shipment country %ld: Wi-Fi country %.2s, channels 1-%u, default language %u", code, country,
                     channel, language);
        return 0;
    }

    /// wifi_scan start N: N access points of the line's test network, with signal strength.
    int scan(long count)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(15));
        std::vector<std::string> rows;
        for (long i = 0; i < count && i < 16; ++i)
            rows.push_back("LINE-AP-" + std::to_string(i + 1) + "," + std::to_string(1 + (i * 5) % 13) + ","
                           + std::to_string(-38 - 7 * i));
        bool passed = !rows.empty() && !Provoked();
        PmodeSimNote("wifi scan: %zu access point%s, strongest -38 dBm", rows.size(), rows.size() == 1 ? "" : "s");
        WriteResult("wifi_result.csv", "SSID,CHANNEL,RSSI_DBM", rows, passed);
        return passed ? 0 : -1;
    }

    int writeSerial(const std::string& serial)
    {
        if (serial.empty() || serial.size() > 12) {
            PmodeSimNote("sys_serial: the serial number must be 1 to 12 characters");
            return -1;
        }
        char field[12] = {};
        std::memcpy(field, serial.data(), serial.size());
        CAdjustDataManager::GetInstance()->SetData(ADJUST_WIFI_SERIAL_NUM, field, sizeof field, true);
        PmodeSimNote("Wi-Fi serial number %s stored", serial.c_str());
        return 0;
    }

    int adjustWifi()
    {
        bool passed = !Provoked();
        PmodeSimNote("Wi-Fi: TX power 15.5 dBm, frequency offset %s", passed ? "+2 kHz" : "+61 kHz (limit 20)");
        return FinishAdjustment(ADJUST_WIFI_PROCESS_MARK, passed, true);
    }
};

__attribute__((constructor)) void registerWorker()
{
    CWorkerFactory::GetInstance()->AddWorker(new CWIFIWorker);
}

} // namespace
