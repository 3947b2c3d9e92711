#pragma once
// What the simulated camera body (pmode-sim) offers the programs around it; not a
// part of libproduction-mode.
//
//  - Worker notes: a plug-in calls PmodeSimNote("...") to attach a line of detail
//    (a measured value, a file written) to the command it is running. pmode-sim
//    shows it under the command and puts it into the JSON report. In another host
//    application, which has no pmode_sim_note, the note goes to standard output.
//  - The state key: pmode-sim sets kSimStateKey to "serving" once its host channel
//    listens, and to "stopped" when it ends, so the factory PC (pmode-pc) knows
//    when it may send.

#include <dlfcn.h>

#include <cstdarg>
#include <cstdio>

/// Key of the simulated key-value store holding pmode-sim's host-link state.
constexpr const char* kSimStateKey = "pmode_sim/state";

extern "C" {
/// Exported by pmode-sim: attaches a note to the command running now. Any thread.
typedef void (*PmodeSimNoteFn)(const char* text);
}

/// Formats a note and hands it to the host application (see above).
inline void PmodeSimNote(const char* format, ...) __attribute__((format(printf, 1, 2)));
inline void PmodeSimNote(const char* format, ...)
{
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    static PmodeSimNoteFn note = reinterpret_cast<PmodeSimNoteFn>(dlsym(RTLD_DEFAULT, "pmode_sim_note"));
    if (note != nullptr)
        note(text);
    else
        std::printf("  %s\n", text);
}
