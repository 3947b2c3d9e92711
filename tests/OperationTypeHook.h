#pragma once
// Test-only way to put the controller into a given operation type. Only the
// controller's run loops set it in the library; tests of the host-link paths
// need OP_TYPE_PTP without running a loop. The member pointer is obtained
// through an explicit template instantiation, where access checking does not
// apply, so CProductionMode needs no test hook of its own. Include it in one
// source file per test program.

#include "CProductionMode.h"

#include <atomic>

namespace pm_test {

using OperationTypeMember = std::atomic<int> CProductionMode::*;
OperationTypeMember operationTypeMember();

template <OperationTypeMember Member>
struct OperationTypeAccess {
    friend OperationTypeMember operationTypeMember() { return Member; }
};
template struct OperationTypeAccess<&CProductionMode::nOperationType>;

inline void SetOperationType(int type)
{
    CProductionMode::GetInstance()->*operationTypeMember() = type;
}

} // namespace pm_test
