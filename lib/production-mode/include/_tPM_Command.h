#pragma once
// One command, as a production script line or a host message gives it to a worker.

#include "ProductionModeExport.h"

#include <cstdint>

constexpr int PM_WORD_SIZE = 50;  ///< word buffers: at most 49 characters and the NUL
constexpr int PM_PARAM_MAX = 10;  ///< parameters of a command
constexpr int PM_LINE_SIZE = 510; ///< line buffers: at most 509 bytes of a line and the NUL

struct PM_EXPORT _tPM_Command {
    char szWorker[PM_WORD_SIZE];              ///< worker or command name
    char szParam[PM_PARAM_MAX][PM_WORD_SIZE]; ///< parameters; entry 0 is the sub-command
    int nParamCount;                          ///< parameters found (1 to 10); -1: none, an empty command
    uint32_t nArg[4];                         ///< numeric arguments of a host message; 0 in script commands
    char* pData;                              ///< data of a host message (not owned); null in script commands

    /// An empty command: no text, nParamCount -1, no arguments, no data.
    _tPM_Command();
    _tPM_Command(const _tPM_Command& other);
    /// Copies every field; both copies then refer to the same data.
    _tPM_Command& operator=(const _tPM_Command& other);
    /// Resets to an empty command, whatever the integer (used with 0).
    _tPM_Command& operator=(int);
    /// True when nParamCount equals n, or when pData is set. (cmd == -1) asks
    /// whether no command is left.
    bool operator==(int n) const;
};
