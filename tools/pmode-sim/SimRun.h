#pragma once
// The run of the simulated camera body; see SimRun.cpp for the options.

/// Parses the options and runs the card. The process's exit status.
int RunSimulator(int argc, char** argv);
