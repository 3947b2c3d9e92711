#pragma once
// Puts the controller into an operation type without running a loop, for the host-link
// paths. The member pointer comes from an explicit template instantiation, where access
// checking does not apply. Include it in one source file per program.

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

inline void SetOperationType(int type) { CProductionMode::GetInstance()->*operationTypeMember() = type; }

} // namespace pm_test
