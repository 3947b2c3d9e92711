#include "CProductionPTP.h"

#include "CEventFlag.h"
#include "CPTPAdjInterface.h"
#include "PMReport.h"
#include "kernel.h"
#include "vconf.h"

#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <string>

namespace {

constexpr const char* kKeyScript = "memory/private/pmode";
constexpr const char* kKeyProtocol1 = "memory/private/pmode_protocol1";
constexpr const char* kKeyProtocol2 = "memory/private/pmode_protocol2";
constexpr const char* kKeyProtocol3 = "memory/private/pmode_protocol3";
constexpr const char* kKeyProtocol4 = "memory/private/pmode_protocol4";
constexpr const char* kKeyProtocol5 = "memory/private/pmode_protocol5";
constexpr const char* kKeyParam1 = "memory/private/pmode_Param1";
constexpr const char* kKeyParam2 = "memory/private/pmode_Param2";
constexpr const char* kKeyParam3 = "memory/private/pmode_Param3";
constexpr const char* kKeyStream = "memory/private/pmode_stream";
constexpr const char* kKeyFile = "memory/private/pmode_file";
constexpr const char* kPayloadFile = "/var/run/memory/private/pmode_shutter_data";

constexpr unsigned long kAllBits = 0x70000000UL;
constexpr unsigned long kRequestBit = 0x10000000UL;
constexpr unsigned long kStopBit = 0x40000000UL;

constexpr useconds_t kRetrySleepUs = 100000;
constexpr int kUnmountTries = 10;

bool subscribe(const char* key, vconf_callback_fn callback, void* channel)
{
    const int error = vconf_notify_key_changed(key, callback, channel);
    if (error != 0) {
        PM_TRACE("vconf_add_chaged_cb fail for key : %s [%d]\n", key, error);
        return false;
    }
    PM_TRACE("vconf_add_chaged_cb success for key : %s \n", key);
    return true;
}

bool unsubscribe(const char* key, vconf_callback_fn callback)
{
    const int error = vconf_ignore_key_changed(key, callback);
    if (error != 0) {
        PM_TRACE("vconf_remove_chaged_cb fail for key : %s [%d]\n", key, error);
        return false;
    }
    PM_TRACE("vconf_remove_chaged_cb success for key : %s \n", key);
    return true;
}

/// Checks a notification's node: false (with the trace) when it is not usable.
bool usableNode(_keynode_t* node, int expectedType)
{
    if (node == nullptr) {
        PM_TRACE("Node is NULL");
        return false;
    }
    const int type = vconf_keynode_get_type(node);
    if (type != expectedType) {
        const char* name = vconf_keynode_get_name(node);
        PM_TRACE("Err invaild key_type , incomming key_type : %d , key_name : %s", type, name != nullptr ? name : "");
        return false;
    }
    return true;
}

/// The channels alive in this process and how many callbacks run on each. The
/// store may call a callback whose subscription has just been removed (the call
/// was already on its way), so a callback reaches its channel only through this
/// list, and a channel leaves it only when no callback runs on it any more.
class LiveChannels {
public:
    void Add(const void* channel)
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mInside[channel] = 0;
    }

    /// Waits until no callback runs on the channel, then forgets it.
    void Remove(const void* channel)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        mLeft.wait(lock, [&] { return mInside[channel] == 0; });
        mInside.erase(channel);
    }

    /// True (and counted) when the channel is alive.
    bool Enter(const void* channel)
    {
        std::lock_guard<std::mutex> lock(mMutex);
        auto found = mInside.find(channel);
        if (found == mInside.end()) return false;
        ++found->second;
        return true;
    }

    void Leave(const void* channel)
    {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            --mInside[channel];
        }
        mLeft.notify_all();
    }

private:
    std::mutex mMutex;
    std::condition_variable mLeft;
    std::map<const void*, int> mInside;
};

/// Never destroyed: the controller's channel may be deleted during static destruction.
LiveChannels& liveChannels()
{
    static LiveChannels* channels = new LiveChannels;
    return *channels;
}

/// One callback's stay on a channel; `channel` is null when it is gone.
class CallbackVisit {
public:
    explicit CallbackVisit(void* userData)
        : channel(userData != nullptr && liveChannels().Enter(userData) ? static_cast<CProductionPTP*>(userData)
                                                                        : nullptr)
    {}
    ~CallbackVisit()
    {
        if (channel != nullptr) liveChannels().Leave(channel);
    }
    CallbackVisit(const CallbackVisit&) = delete;
    CallbackVisit& operator=(const CallbackVisit&) = delete;

    CProductionPTP* const channel;
};

} // namespace

CProductionPTP::CProductionPTP()
    : pEventFlag(new (std::nothrow) CEventFlag), pMessageBuffer(nullptr), pPayload(nullptr), cScript(),
      nMessageType(PTP_MSG_NONE), blMounted(false)
{
    if (pEventFlag != nullptr) {
        pEventFlag->Create(kAllBits);
        pEventFlag->Clear(kAllBits);
    }
    liveChannels().Add(this);
}

CProductionPTP::~CProductionPTP()
{
    {
        // A callback still waiting for the channel gives up its request.
        std::lock_guard<std::mutex> lock(mHandOver);
        blMounted = false;
    }
    liveChannels().Remove(this);
    if (pEventFlag != nullptr) {
        pEventFlag->Delete();
        delete pEventFlag;
        pEventFlag = nullptr;
    }
    releaseScriptText();
    releasePayload();
}

bool CProductionPTP::Mount()
{
    if (blMounted) return true;
    // Marked first: a request notified right after subscribing must find the channel mounted.
    blMounted = true;
    if (registerPTPComm()) return true;
    std::lock_guard<std::mutex> lock(mHandOver);
    blMounted = false;
    return false;
}

bool CProductionPTP::Unmount()
{
    {
        std::lock_guard<std::mutex> lock(mHandOver);
        if (!blMounted) return true;
        blMounted = false;
    }
    int tries = 0;
    while (!unregisterPTPComm()) {
        if (++tries == kUnmountTries) return false;
        usleep(kRetrySleepUs);
    }
    nMessageType = PTP_MSG_NONE;
    if (pEventFlag != nullptr) pEventFlag->Set(kStopBit);
    return true;
}

bool CProductionPTP::registerPTPComm()
{
    vconf_set_str(kKeyScript, "test");
    const bool script = subscribe(kKeyScript, &CProductionPTP::PTPCommByScript, this);
    vconf_set_int(kKeyProtocol1, 0);
    const bool protocol = subscribe(kKeyProtocol1, &CProductionPTP::PTPCommByProtocol, this);
    return script || protocol;
}

bool CProductionPTP::unregisterPTPComm()
{
    const bool script = unsubscribe(kKeyScript, &CProductionPTP::PTPCommByScript);
    const bool protocol = unsubscribe(kKeyProtocol1, &CProductionPTP::PTPCommByProtocol);
    return script || protocol;
}

void CProductionPTP::PTPCommByScript(_keynode_t* node, void* userData)
{
    if (!usableNode(node, VCONF_TYPE_STRING)) return;
    CallbackVisit visit(userData);
    if (visit.channel == nullptr) return;
    const char* text = vconf_keynode_get_str(node);
    // The node's string dies with the callback; the controller parses later.
    char* copy = strdup(text != nullptr ? text : "");
    if (copy == nullptr) {
        PM_ERROR_LOG("CProductionPTP cannot keep the request text\n");
        return;
    }
    if (!visit.channel->deliver(PTP_MSG_SCRIPT, copy, "PTPCommByScript")) std::free(copy);
}

void CProductionPTP::PTPCommByProtocol(_keynode_t* node, void* userData)
{
    if (!usableNode(node, VCONF_TYPE_INT)) return;
    if (vconf_keynode_get_int(node) == 0) {
        PM_TRACE("PTPCommByProtocol No meanning message");
        return;
    }
    CallbackVisit visit(userData);
    if (visit.channel == nullptr) return;
    visit.channel->deliver(PTP_MSG_PROTOCOL, nullptr, "PTPCommByProtocol");
}

bool CProductionPTP::deliver(uint32_t type, char* text, const char* who)
{
    for (bool told = false;; told = true) {
        {
            std::lock_guard<std::mutex> lock(mHandOver);
            if (!blMounted) {
                PM_TRACE("%s: channel stopped, request dropped\n", who);
                return false;
            }
            if (nMessageType == PTP_MSG_NONE) {
                releaseScriptText(); // a line that a stop left unread
                pMessageBuffer = text;
                nMessageType = type;
                if (pEventFlag != nullptr) pEventFlag->Set(kRequestBit);
                return true;
            }
        }
        if (!told) PM_TRACE("%s: waiting until the request in service is answered\n", who);
        usleep(kRetrySleepUs);
    }
}

void CProductionPTP::PollingPTPComm()
{
    if (pEventFlag == nullptr || !blMounted) return;
    unsigned long pattern = 0;
    pEventFlag->WaitOr(kRequestBit | kStopBit, &pattern, -1);
    if ((pattern & kStopBit) == 0) pEventFlag->Clear(kRequestBit);
}

uint32_t CProductionPTP::GetPTPMessageType()
{
    return nMessageType;
}

_tPM_Command CProductionPTP::ReadScript()
{
    char* text = nullptr;
    {
        std::lock_guard<std::mutex> lock(mHandOver);
        std::swap(text, pMessageBuffer);
    }
    _tPM_Command command;
    if (text != nullptr) {
        command = cScript.Parsing(text);
        std::free(text);
    }
    return command;
}

int32_t CProductionPTP::readProtocolKeys(int& operation, int& p1, int& p2, int& p3, int& p4)
{
    int32_t result = 0;
    if (vconf_get_int(kKeyProtocol1, &operation) != 0) result = -5;
    if (vconf_get_int(kKeyProtocol2, &p1) != 0) result = -5;
    if (vconf_get_int(kKeyProtocol3, &p2) != 0) result = -5;
    vconf_get_int(kKeyProtocol4, &p3);
    vconf_get_int(kKeyProtocol5, &p4);
    return result;
}

int32_t CProductionPTP::ReceivePTP(int& operation, int& p1, int& p2, int& p3, int& p4, char** payload)
{
    int32_t result = 0;
    FILE* file = std::fopen(KernelPath(kPayloadFile).c_str(), "rb");
    if (file == nullptr) return readProtocolKeys(operation, p1, p2, p3, p4);

    long size = 0;
    if (std::fseek(file, 0, SEEK_END) != 0) result = -1;
    size = std::ftell(file);
    if (std::fseek(file, 0, SEEK_SET) != 0) {
        result = -1;
    } else if (size < 1) {
        result = -4;
    } else if (pPayload != nullptr) {
        PM_ERROR_LOG("CProductionPTP memory leak\n");
        result = -3;
        PM_ASSERT_FAILED();
    } else {
        // One byte more, always 0: nothing that reads the payload as text can run
        // past its end.
        pPayload = static_cast<char*>(std::calloc(static_cast<size_t>(size) + 1, 1));
        if (pPayload == nullptr) {
            PM_ERROR_LOG("CProductionPTP cannot hold a payload of %ld bytes\n", size);
            result = -2;
        } else {
            if (std::fread(pPayload, 1, static_cast<size_t>(size), file) != static_cast<size_t>(size)) {
                result = -2;
            }
            const int32_t keys = readProtocolKeys(operation, p1, p2, p3, p4);
            if (keys != 0) result = keys;
            if (payload != nullptr) *payload = pPayload;
        }
    }
    std::fclose(file);
    return result;
}

int32_t CProductionPTP::SendPTP()
{
    CPTPAdjInterface* transfer = CPTPAdjInterface::GetInstance();
    int32_t result = -1;
    if (transfer == nullptr) {
        PM_ASSERT_FAILED();
    } else {
        releasePayload();
        const uint32_t type = transfer->GetTransferDataType();
        bool known = true;
        if (type == PTP_TRANSFER_NONE || type == PTP_TRANSFER_RESPOND) {
            unsigned int code = 0, value2 = 0, value3 = 0;
            transfer->GetRespond(code, value2, value3);
            const bool written = vconf_set_int(kKeyParam3, static_cast<int>(value3)) == 0
                                 && vconf_set_int(kKeyParam2, static_cast<int>(value2)) == 0
                                 && vconf_set_int(kKeyParam1, static_cast<int>(code)) == 0;
            result = written ? 0 : -1;
        } else if (type == PTP_TRANSFER_DATA) {
            const unsigned char* data = transfer->GetData();
            const std::string block = data != nullptr ? std::string(reinterpret_cast<const char*>(data),
                                                                    static_cast<size_t>(transfer->GetDataSize()))
                                                      : std::string();
            result = vconf_set_str(kKeyStream, block.c_str()) == 0 ? 0 : -1;
        } else if (type == PTP_TRANSFER_FILE) {
            result = vconf_set_str(kKeyFile, transfer->GetFileName()) == 0 ? 0 : -1;
        } else {
            known = false;
            PM_ASSERT_FAILED();
        }
        if (known) transfer->Dispatch();
    }
    std::lock_guard<std::mutex> lock(mHandOver);
    releaseScriptText(); // a line the controller never read
    nMessageType = PTP_MSG_NONE;
    return result;
}

void CProductionPTP::releaseScriptText()
{
    std::free(pMessageBuffer);
    pMessageBuffer = nullptr;
}

void CProductionPTP::releasePayload()
{
    std::free(pPayload);
    pPayload = nullptr;
}
