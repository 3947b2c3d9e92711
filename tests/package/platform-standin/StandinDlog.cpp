// System log of the stand-in platform: nothing is logged.
#include "dlog.h"

int __dlog_print(int, int, const char*, const char*, ...) { return -1; }
