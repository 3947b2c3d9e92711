#include "HostLinkClient.h"
#include "PmodeSimHost.h"

#include "kernel.h"
#include "vconf.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

namespace {

constexpr const char* kScriptKey = "memory/private/pmode";
constexpr const char* kProtocolKeys[5] = {
    "memory/private/pmode_protocol1", "memory/private/pmode_protocol2", "memory/private/pmode_protocol3",
    "memory/private/pmode_protocol4", "memory/private/pmode_protocol5",
};
constexpr const char* kParam1Key = "memory/private/pmode_Param1";
constexpr const char* kParam2Key = "memory/private/pmode_Param2";
constexpr const char* kParam3Key = "memory/private/pmode_Param3";
constexpr const char* kStreamKey = "memory/private/pmode_stream";
constexpr const char* kFileKey = "memory/private/pmode_file";
constexpr const char* kPayloadFile = "/var/run/memory/private/pmode_shutter_data";
constexpr const char* kAnswerKeys[] = {kParam1Key, kStreamKey, kFileKey};

void removePayload()
{
    std::error_code ignored;
    std::filesystem::remove(KernelPath(kPayloadFile), ignored);
}

bool writePayload(const std::string& payload)
{
    std::filesystem::path path = KernelPath(kPayloadFile);
    std::error_code ignored;
    std::filesystem::create_directories(path.parent_path(), ignored);
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(payload.data(), static_cast<std::streamsize>(payload.size()));
    return static_cast<bool>(file);
}

uint32_t readUnsigned(const char* key)
{
    int value = 0;
    vconf_get_int(key, &value);
    return static_cast<uint32_t>(value);
}

} // namespace

bool HostAnswer::Failed() const
{
    return kind == NONE || (kind == RESPONSE && code == 0x10000002u && value2 == 1);
}

std::string HostAnswer::Describe() const
{
    switch (kind) {
    case NONE: return "no answer in time";
    case STREAM: return "data block of " + std::to_string(text.size()) + " bytes";
    case FILE_PATH: return "file " + text;
    case RESPONSE: break;
    }
    if (code == 0x10000000u) return "done";
    if (code == 0x10000002u && value2 == 0) return "adjustment passed";
    if (code == 0x10000002u && value2 == 1) return "FAILED";
    if (code == 0x10000002u && value2 == 0x10003u) return "clock set";
    if (code == 0x10020002u) return "sensor data taken";
    if (code == 0x10020000u) return "sensor data info taken";
    return "unknown response";
}

const char* HostLinkClient::OperationName(uint32_t code)
{
    static const struct {
        uint32_t code;
        const char* name;
    } kOperations[] = {{0x10011000u, "shutter_speed2"},
                       {0x10021000u, "cis_data2"},
                       {0x10021001u, "cis_data_info"},
                       {0x10030000u, "rtc2"},
                       {0x10040000u, "paf2"}};
    for (const auto& operation : kOperations)
        if (operation.code == code) return operation.name;
    return nullptr;
}

HostLinkClient::HostLinkClient() = default;

HostLinkClient::~HostLinkClient()
{
    if (!m_open) return;
    for (const char* key : kAnswerKeys) vconf_ignore_key_changed(key, &HostLinkClient::onAnswer);
}

bool HostLinkClient::Open()
{
    if (m_open) return true;
    for (const char* key : kAnswerKeys)
        if (vconf_notify_key_changed(key, &HostLinkClient::onAnswer, this) != 0) return false;
    m_open = true;
    return true;
}

bool HostLinkClient::WaitForCamera(int timeoutMs)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (true) {
        char* state = vconf_get_str(kSimStateKey);
        bool serving = state != nullptr && std::string(state) == "serving";
        std::free(state);
        if (serving) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

HostAnswer HostLinkClient::SendLine(const std::string& line, int timeoutMs)
{
    clearEvents();
    if (vconf_set_str(kScriptKey, line.c_str()) != 0) return HostAnswer();
    return waitAnswer(timeoutMs);
}

HostAnswer HostLinkClient::SendOperation(uint32_t code, const uint32_t args[4], const std::string* payload,
                                         int timeoutMs)
{
    clearEvents();
    // The camera reads the payload file with every operation: it exists only for an operation that has one.
    if (payload != nullptr) {
        if (!writePayload(*payload)) return HostAnswer();
    } else {
        removePayload();
    }
    for (int i = 0; i < 4; ++i)
        if (vconf_set_int(kProtocolKeys[i + 1], static_cast<int>(args[i])) != 0) return HostAnswer();
    if (vconf_set_int(kProtocolKeys[0], static_cast<int>(code)) != 0) return HostAnswer();
    HostAnswer answer = waitAnswer(timeoutMs);
    if (payload != nullptr) removePayload();
    return answer;
}

void HostLinkClient::onAnswer(struct _keynode_t* node, void* self)
{
    auto* client = static_cast<HostLinkClient*>(self);
    Event event;
    event.key = vconf_keynode_get_name(node);
    if (vconf_keynode_get_type(node) == VCONF_TYPE_INT)
        event.number = vconf_keynode_get_int(node);
    else if (const char* text = vconf_keynode_get_str(node))
        event.text = text;
    std::lock_guard<std::mutex> lock(client->m_mutex);
    client->m_events.push_back(std::move(event));
    client->m_changed.notify_all();
}

void HostLinkClient::clearEvents()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_events.clear();
}

HostAnswer HostLinkClient::waitAnswer(int timeoutMs)
{
    HostAnswer answer;
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return !m_events.empty(); }))
        return answer;
    Event event = m_events.front();
    m_events.pop_front();
    lock.unlock();
    if (event.key == kParam1Key) {
        // Param1 is written last: the other two values are in place.
        answer.kind = HostAnswer::RESPONSE;
        answer.code = static_cast<uint32_t>(event.number);
        answer.value2 = readUnsigned(kParam2Key);
        answer.value3 = readUnsigned(kParam3Key);
    } else if (event.key == kStreamKey) {
        answer.kind = HostAnswer::STREAM;
        answer.text = event.text;
    } else {
        answer.kind = HostAnswer::FILE_PATH;
        answer.text = event.text;
    }
    return answer;
}
