#pragma once
// The factory PC's end of the host link. The camera's PTP service would turn the
// PC's requests into key writes; here the PC writes the keys itself:
//  - a script line: the string key "memory/private/pmode";
//  - a protocol operation: the payload file "/var/run/memory/private/pmode_shutter_data"
//    (or none), the arguments "memory/private/pmode_protocol2".."5", and last the
//    operation code "memory/private/pmode_protocol1", whose change starts the request.
// The camera answers with "memory/private/pmode_Param3", "_Param2" and, last,
// "_Param1"; or "memory/private/pmode_stream"; or "memory/private/pmode_file".
// One request at a time; an object is used by one thread.

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>

struct HostAnswer {
    enum Kind { NONE, RESPONSE, STREAM, FILE_PATH } kind = NONE; ///< NONE: no answer in time
    uint32_t code = 0, value2 = 0, value3 = 0;                   ///< RESPONSE
    std::string text;                                            ///< STREAM: the data; FILE_PATH: the device path

    /// True for a response that reports a failure (0x10000002, 1, 0) and for no answer.
    bool Failed() const;
    /// The response decoded in words ("done", "adjustment passed", ...).
    std::string Describe() const;
};

class HostLinkClient {
public:
    HostLinkClient();
    ~HostLinkClient();
    HostLinkClient(const HostLinkClient&) = delete;
    HostLinkClient& operator=(const HostLinkClient&) = delete;

    /// Subscribes to the answer keys. False when the store refuses.
    bool Open();
    /// Waits until pmode-sim reports that its host channel listens. False on time-out.
    bool WaitForCamera(int timeoutMs);
    /// Sends one script line and waits for the answer.
    HostAnswer SendLine(const std::string& line, int timeoutMs);
    /// The sub-command of a protocol operation the camera serves ("cis_data2", ...);
    /// null for any other code (the camera would run nothing and answer nothing).
    static const char* OperationName(uint32_t code);
    /// Sends one protocol operation (code = group << 16 | sub-code) with four
    /// arguments and an optional payload, and waits for the answer.
    HostAnswer SendOperation(uint32_t code, const uint32_t args[4], const std::string* payload, int timeoutMs);

private:
    struct Event {
        std::string key;
        int number = 0;
        std::string text;
    };
    static void onAnswer(struct _keynode_t* node, void* self);
    void clearEvents();
    HostAnswer waitAnswer(int timeoutMs);

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Event> m_events;
    bool m_open = false;
};
