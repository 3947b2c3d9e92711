#include "CProductionMode.h"

CProductionMode* CProductionMode::GetInstance()
{
    static CProductionMode instance;
    return &instance;
}

CProductionMode::CProductionMode() : FThread(), nOperationType(OP_TYPE_NONE) {}

CProductionMode::~CProductionMode()
{
    Destroy();
}

bool CProductionMode::IsActive() const
{
    return nOperationType != OP_TYPE_NONE;
}

int CProductionMode::GetOperationType() const
{
    return nOperationType;
}

void CProductionMode::t_Main() {}
