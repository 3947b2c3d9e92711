#pragma once
// Sets the controller's operation type without a loop, for the host-link paths: the member pointer
// comes from an explicit instantiation, where access is not checked. One source file per program.

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
