#pragma once
// Sets the controller's operation type; explicit instantiation skips the access check. One file per program.

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
