#pragma once
// Everything the host application and the workers use of libproduction-mode.

// Production-mode control and the production script
#include "CProductionMode.h"
#include "CProductionPTP.h"
#include "CProductionScript.h"
#include "_tPM_Command.h"

// Worker framework
#include "CWorkerFactory.h"
#include "IPModeWorker.h"

// Host link, display, results and logs; error log, traces and failed checks
#include "AdjWriteLog.h"
#include "CAdjustLogMachine.h"
#include "CPTPAdjInterface.h"
#include "CProductionCSV.h"
#include "CProductionOSD.h"
#include "PMReport.h"

// Adjust data
#include "AdjustDataList.h"
#include "AdjustDataTypes.h"
#include "CAdjustData.h"
#include "CAdjustDataManager.h"
#include "CAdjustFile.h"
#include "CAdjustPreference.h"
#include "LineDataList.h"
