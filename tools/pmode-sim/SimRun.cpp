#include "SimRun.h"
#include <cstdio>
int RunSimulator(int, char**) { std::fprintf(stderr, "not yet\n"); return 2; }
