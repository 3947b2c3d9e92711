// The host message channel on arbitrary requests from the factory PC. The input
// is a list of steps: notifications of the two request keys with values and
// key types taken from the input, protocol keys and payload files as the PC's
// side would leave them, answers left in the transfer interface, and the
// controller's side (ReadScript, ReceivePTP, SendPTP). The channel is never
// mounted, so no notification thread runs: the harness calls the callbacks
// itself with nodes it builds, on one thread, and only when the channel is free
// (a callback waits while a request is served).

#include "CPTPAdjInterface.h"
#include "CProductionPTP.h"
#include "FuzzSupport.h"
#include "OperationTypeHook.h"
#include "vconf.h"
#include "vconf_sim.h"
#include "vconf_store.h"

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

namespace {

constexpr const char* kPayloadFile = "/var/run/memory/private/pmode_shutter_data";
constexpr const char* kProtocolKeys[] = {
    "memory/private/pmode_protocol1", "memory/private/pmode_protocol2", "memory/private/pmode_protocol3",
    "memory/private/pmode_protocol4", "memory/private/pmode_protocol5",
};
constexpr int kMaxSteps = 64;

/// A key type as the store could report it: mostly the right ones, sometimes not.
int nodeType(uint8_t choice)
{
    switch (choice % 4) {
    case 0: return VCONF_TYPE_STRING;
    case 1: return VCONF_TYPE_INT;
    case 2: return choice;
    default: return -1;
    }
}

void notifyScript(CProductionPTP& channel, pmfuzz::Input& in)
{
    const uint8_t flags = in.Byte();
    _keynode_t node;
    node.name = "memory/private/pmode";
    node.type = (flags & 1) ? nodeType(flags >> 1) : VCONF_TYPE_STRING;
    node.svalue = in.ShortString(255) + (flags & 0x80 ? std::string(600, 'w') : std::string());
    CProductionPTP::PTPCommByScript((flags & 0x40) ? nullptr : &node, (flags & 0x20) ? nullptr : &channel);
}

void notifyProtocol(CProductionPTP& channel, pmfuzz::Input& in)
{
    const uint8_t flags = in.Byte();
    _keynode_t node;
    node.name = kProtocolKeys[0];
    node.type = (flags & 1) ? nodeType(flags >> 1) : VCONF_TYPE_INT;
    node.ivalue = static_cast<int>(in.Word());
    CProductionPTP::PTPCommByProtocol((flags & 0x40) ? nullptr : &node, (flags & 0x20) ? nullptr : &channel);
}

void setProtocolKeys(pmfuzz::Input& in)
{
    const uint8_t mask = in.Byte();
    for (int i = 0; i < 5; ++i) {
        if (mask & (1u << i)) vconf_set_int(kProtocolKeys[i], static_cast<int>(in.Word()));
    }
    if (mask & 0x20) vconf_sim_fail_next_get(in.Byte() % 6);
}

void leavePayload(pmfuzz::Input& in)
{
    const pmfuzz::DeviceRoot& root = pmfuzz::DeviceRoot::Get();
    const uint8_t choice = in.Byte();
    if (choice % 4 == 0) {
        std::remove(root.Host(kPayloadFile).c_str());
        return;
    }
    const std::string payload = in.Bytes(choice % 4 == 1 ? 0 : in.Byte() * 16u + in.Byte());
    root.Write(kPayloadFile, payload.data(), payload.size());
}

void receive(CProductionPTP& channel)
{
    int operation = 0, p1 = 0, p2 = 0, p3 = 0, p4 = 0;
    char* payload = nullptr;
    channel.ReceivePTP(operation, p1, p2, p3, p4, &payload);
    if (payload == nullptr) return;
    // The payload is the channel's until SendPTP: every byte of it must be readable.
    FILE* file = std::fopen(pmfuzz::DeviceRoot::Get().Host(kPayloadFile).c_str(), "rb");
    if (file == nullptr) return;
    std::fseek(file, 0, SEEK_END);
    const long size = std::ftell(file);
    std::fclose(file);
    volatile char sink = 0;
    for (long i = 0; i < size; ++i) sink = static_cast<char>(sink ^ payload[i]);
}

void leaveAnswer(pmfuzz::Input& in)
{
    CPTPAdjInterface* transfer = CPTPAdjInterface::GetInstance();
    switch (in.Byte() % 3) {
    case 0: {
        const uint32_t code = in.Word();
        transfer->SetRespond(code, in.Word(), in.Word());
        break;
    }
    case 1: {
        std::string block = in.ShortString(255);
        transfer->SetData(reinterpret_cast<unsigned char*>(block.data()), static_cast<int>(block.size()));
        break;
    }
    default: {
        const std::string path = in.ShortString(160);
        transfer->SetFile(path.c_str());
        break;
    }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    pmfuzz::DeviceRoot& root = pmfuzz::DeviceRoot::Get();
    root.Clear();
    std::filesystem::create_directories(root.Host("/var/run/memory/private"));
    pm_test::SetOperationType(OP_TYPE_PTP);

    pmfuzz::Input in(data, size);
    {
        CProductionPTP channel;
        for (int step = 0; step < kMaxSteps && !in.Empty(); ++step) {
            const bool free = channel.GetPTPMessageType() == PTP_MSG_NONE;
            switch (in.Byte() % 9) {
            case 0:
                if (free) notifyScript(channel, in);
                break;
            case 1:
                if (free) notifyProtocol(channel, in);
                break;
            case 2: setProtocolKeys(in); break;
            case 3: leavePayload(in); break;
            case 4: channel.ReadScript(); break;
            case 5: receive(channel); break;
            case 6: leaveAnswer(in); break;
            case 7:
                if (in.Byte() & 1) vconf_sim_fail_next_set(1);
                channel.SendPTP();
                break;
            default:
                channel.PollingPTPComm(); // not mounted: returns at once
                channel.Unmount();
                break;
            }
        }
    }
    // Nothing carries over to the next input.
    CPTPAdjInterface::GetInstance()->Dispatch();
    vconf_sim_fail_next_set(0);
    vconf_sim_fail_next_get(0);
    return 0;
}
