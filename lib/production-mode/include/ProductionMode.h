#pragma once
// Everything the host application and the workers use of libproduction-mode.

#include "CProductionMode.h"
#include "CProductionScript.h"
#include "_tPM_Command.h"
#include "CProductionPTP.h"
#include "CPTPAdjInterface.h"
#include "CProductionOSD.h"
#include "CWorkerFactory.h"
#include "IPModeWorker.h"
#include "AdjWriteLog.h"
#include "CAdjustFile.h"
#include "CAdjustPreference.h"
#include "CAdjustDataManager.h"
