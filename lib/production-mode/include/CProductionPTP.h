#pragma once
// The message channel to the factory PC. The camera's PTP service turns the
// PC's requests into writes of key-value store keys; this channel subscribes to
// the two request keys, hands each request to the controller's thread, reads
// its values and writes the answer held by CPTPAdjInterface. One request is in
// flight at a time:
//
//   "memory/private/pmode"            string  a script line (message type 1)
//   "memory/private/pmode_protocol1"  int     a protocol message when set to a
//                                             value other than 0 (message type 2);
//                                             "..._protocol2" to "_protocol5" carry
//                                             its arguments, the file
//                                             "/var/run/memory/private/pmode_shutter_data"
//                                             its optional payload
//   "memory/private/pmode_Param3", "_Param2", then "_Param1"   the response
//   "memory/private/pmode_stream" / "memory/private/pmode_file" a data block / a file
//
// Threads: the two callbacks run on the key-value store's notification thread
// and block (looking every 100 ms) while a request is served; everything else
// runs on the controller's thread, except Mount/Unmount, which the controller's
// start and stop may call from the host application's thread. The hand-over is
// the message type and the event flag; a short lock makes "the channel is
// mounted and free" and the publication of a request one step, so a request is
// never published into a stopped channel.
//
// Ownership: the text of a script-line request is copied by the callback (the
// store's string lives only during the callback); the channel owns the copy
// until ReadScript takes it or SendPTP releases it. A protocol payload is kept
// apart from it and is touched by nobody but the controller's thread until
// SendPTP, so a stop while a worker reads it cannot free it. A callback that is
// waiting when the channel is unmounted drops its request (with a trace) instead
// of delivering it; a callback that is still running, or a notification that was
// already on its way when the subscription went, never touches a deleted channel:
// the destructor waits for running callbacks to leave.

#include "ProductionModeExport.h"

#include "CProductionScript.h"
#include "_tPM_Command.h"

#include <atomic>
#include <cstdint>
#include <mutex>

class CEventFlag;
struct _keynode_t;

/// Message types of the channel.
enum {
    PTP_MSG_NONE = 0,     ///< the channel is free (or stopping)
    PTP_MSG_SCRIPT = 1,   ///< a script line is pending
    PTP_MSG_PROTOCOL = 2, ///< a protocol message is pending
};

class PM_EXPORT CProductionPTP {
public:
    /// Message type 0, not mounted, no buffer.
    CProductionPTP();
    /// Waits until no callback runs on the channel any more (a waiting one gives up
    /// its request), deletes the event flag and releases the buffers. Unmount first,
    /// and not from one of the channel's own callbacks.
    ~CProductionPTP();
    CProductionPTP(const CProductionPTP&) = delete;
    CProductionPTP& operator=(const CProductionPTP&) = delete;

    /// Subscribes to the two request keys (once). True when mounted.
    bool Mount();
    /// Ends the subscriptions (up to 10 tries, 100 ms apart) and wakes a thread
    /// blocked in PollingPTPComm with the stop bit. False when every try failed.
    bool Unmount();
    /// Blocks until a request or a stop arrives; returns at once when not mounted.
    /// Controller's thread.
    void PollingPTPComm();
    /// PTP_MSG_NONE, PTP_MSG_SCRIPT or PTP_MSG_PROTOCOL. Any thread.
    uint32_t GetPTPMessageType();
    /// The command of the pending script line (an empty command when none, also
    /// while a protocol message is pending); the line's text is taken from the
    /// channel and released. Controller's thread.
    _tPM_Command ReadScript();
    /// Reads the pending protocol message: operation code, p1 to p4 and, when the
    /// payload file exists, the payload (the channel's buffer, valid until
    /// SendPTP; a NUL that is not part of it follows its bytes). 0; -1 the payload
    /// cannot be positioned; -2 short read; -3 an
    /// earlier payload is still held; -4 empty payload; -5 an operation-code or
    /// p1/p2 key cannot be read. Controller's thread.
    int32_t ReceivePTP(int& operation, int& p1, int& p2, int& p3, int& p4, char** payload);
    /// Releases the payload (the worker is done with it), writes the pending answer,
    /// clears CPTPAdjInterface and frees the channel for the next request. 0, or -1
    /// when a key could not be written. Controller's thread.
    int32_t SendPTP();

    /// The subscription steps of Mount. True when at least one subscription holds.
    bool registerPTPComm();
    /// The unsubscription steps of Unmount. True when at least one was removed.
    bool unregisterPTPComm();

    /// Notification of "memory/private/pmode"; user data is the channel.
    static void PTPCommByScript(_keynode_t* node, void* userData);
    /// Notification of "memory/private/pmode_protocol1"; user data is the channel.
    static void PTPCommByProtocol(_keynode_t* node, void* userData);

private:
    /// Waits (100 ms steps) until the previous request has been served, then
    /// publishes the next one: the script text (null for a protocol message), the
    /// type and the request bit. False, with the text not taken, when the channel
    /// was stopped meanwhile.
    PM_HIDDEN bool deliver(uint32_t type, char* text, const char* who);
    PM_HIDDEN int32_t readProtocolKeys(int& operation, int& p1, int& p2, int& p3, int& p4);
    /// Releases the script text. Call with mHandOver held while a callback may run.
    PM_HIDDEN void releaseScriptText();
    PM_HIDDEN void releasePayload();

    CEventFlag* pEventFlag;             ///< owned; wakes the controller's thread
    char* pMessageBuffer;               ///< owned (malloc); script text; null when none; under mHandOver
    char* pPayload;                     ///< owned (malloc); protocol payload until SendPTP; controller's thread
    CProductionScript cScript;          ///< parses script-line requests
    std::atomic<uint32_t> nMessageType; ///< PTP_MSG_*; 0 frees the channel
    std::atomic<bool> blMounted;        ///< true while subscribed
    std::mutex mHandOver;               ///< a request's publication against a stop; the script text
};
