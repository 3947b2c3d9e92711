#pragma once
// The run of the simulated camera body (the host application of libproduction-mode).
//
//   pmode-sim [run] [--root DIR] [--card DIR] [--plugins DIR] [--host-link]
//             [--step N] [--serve-seconds N] [--timeout SEC] [--json FILE]
//             [--no-check] [--quiet]
//
//  --root DIR        device root (PMODE_ROOT); default: a new directory /tmp/pmode-sim.XXXXXX
//  --card DIR        copies the files of DIR onto the card (<root>/mnt/mmc/)
//  --plugins DIR     worker plug-ins to load (default: the build's plug-in directory)
//  --host-link       makes the card a host-link card: writes "info.tgw", removes
//                    "info.tg" and "default.adj"
//  --step N          stores N as the resume step (line value 135) before the run
//  --serve-seconds N host-link mode: serve N seconds, then stop (default: until SIGINT/SIGTERM)
//  --timeout SEC     script mode: give up after SEC seconds (default 600)
//  --json FILE       writes the machine-readable report
//  --no-check        no pre-flight check of the card's script
//  --quiet           no line per command (the summary only)
//
// Order, as on the camera: adjust data initialised, plug-ins loaded (their workers
// register), CProductionMode::Initialize, the start-up checks, the controller's
// thread started; script mode runs to the end of the script or the first failing
// command, host-link mode serves the PC until stopped; then Finalize.
//
// Exit status: 0 the run passed; 1 a command failed; 2 bad usage or set-up;
// 3 the card starts no production run; 4 timed out or interrupted.

/// Parses the options and runs the card. The process's exit status.
int RunSimulator(int argc, char** argv);
