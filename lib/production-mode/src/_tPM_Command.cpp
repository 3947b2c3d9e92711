#include "_tPM_Command.h"

#include <cstring>

_tPM_Command::_tPM_Command()
{
    *this = 0;
}

_tPM_Command::_tPM_Command(const _tPM_Command& other)
{
    *this = other;
}

_tPM_Command& _tPM_Command::operator=(const _tPM_Command& other)
{
    if (this != &other) {
        std::memcpy(szWorker, other.szWorker, sizeof szWorker);
        std::memcpy(szParam, other.szParam, sizeof szParam);
        nParamCount = other.nParamCount;
        std::memcpy(nArg, other.nArg, sizeof nArg);
        pData = other.pData;
    }
    return *this;
}

_tPM_Command& _tPM_Command::operator=(int)
{
    std::memset(szWorker, 0, sizeof szWorker);
    std::memset(szParam, 0, sizeof szParam);
    nParamCount = -1;
    std::memset(nArg, 0, sizeof nArg);
    pData = nullptr;
    return *this;
}

bool _tPM_Command::operator==(int n) const
{
    return nParamCount == n || pData != nullptr;
}
