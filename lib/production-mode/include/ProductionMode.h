#pragma once
// Every public header of libproduction-mode.

#include "CAdjustDataManager.h"
