#pragma once
// The run of the simulated camera body (the host application of libproduction-mode).
//
//   pmode-sim [run] [--root DIR] [--card DIR] [--plugins DIR] [--host-link]
//             [--step N] [--serve-seconds SEC] [--timeout SEC] [--json FILE]
//             [--force] [--quiet]
//
//  --root DIR        device root (PMODE_ROOT); default: a new directory /tmp/pmode-sim.XXXXXX;
//                    a root that resolves to the host's "/" is refused
//  --card DIR        copies the files of DIR onto the card (<root>/mnt/mmc/)
//  --plugins DIR     worker plug-ins to load (default: the demo plug-ins beside the program, or installed with it)
//  --host-link       makes the card a host-link card: writes "info.tgw", removes
//                    "info.tg" and "default.adj"
//  --step N          stores N (0 to 2147483647) as the resume step (line value 135) before the run
//  --serve-seconds SEC host-link mode: serve SEC seconds, then stop (default: until SIGINT/SIGTERM)
//  --timeout SEC     script mode: give up after SEC seconds (above 0; default 600)
//  --json FILE       writes the machine-readable report
//  --force           runs the script even when its pre-flight check found errors
//                    (without it such a script is not run); the run is FAILED all the same
//  --quiet           no line per command (the summary only)
//
// Order, as on the camera: adjust data initialised, plug-ins loaded (their workers
// register), CProductionMode::Initialize, the start-up checks, the controller's
// thread started; script mode runs to the end of the script or the first failing
// command, host-link mode serves the PC until stopped; then Finalize.
//
// A run passes only when it did its job: script mode ran at least one command and
// none failed, the pre-flight check found no error, the library reported no failed
// check ("Assertion Failed!", counted with pm::AssertionCount) from the adjust
// data's initialisation to the end, and the adjust data were initialised.
//
// Exit status: 0 the run passed; 1 the run failed (a command failed, a failed
// check was reported, the pre-flight check found an error, no command ran, the
// adjust data could not be initialised or saved); 2 bad usage or set-up; 3 the
// card starts no production run; 4 timed out or interrupted.

/// Parses the options and runs the card. The process's exit status.
int RunSimulator(int argc, char** argv);
