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
//  --serve-seconds SEC host-link mode: serve SEC seconds (0 to 86400), then stop
//                    (default: until SIGINT/SIGTERM)
//  --timeout SEC     script mode: give up after SEC seconds (above 0 to 86400; default 600)
//  --json FILE       writes the machine-readable report; checked before anything runs
//                    (a file that cannot be written is exit 2, nothing run)
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
// A host-link camera has no end of its own: it serves the PC until it is stopped.
// A stop (SIGINT, SIGTERM, or the end of --serve-seconds) after the host channel
// came up is the end of its job: the run passes when no failed check was
// reported, and the summary says how it ended ("stopped by SIGINT", "served 60 s,
// then stopped"). A request that a worker failed is counted and shown, but it is
// an answer for the PC to judge (pmode-pc's "expect-fail"), not a fault of the
// camera, so it does not fail a host-link run. A stop before the
// channel came up is an interruption (exit 4). In script mode a signal or the
// time-out interrupts the run (exit 4). Either way the elapsed time reported is
// the real one.
//
// Exit status: 0 the run passed; 1 the run failed (a command failed, a failed
// check was reported, the pre-flight check found an error, no command ran, the
// adjust data could not be initialised or saved); 2 a wrong argument or set-up
// (the report file cannot be written, no plug-in worker, ...); 3 the card starts no
// production run; 4 timed out or interrupted.

namespace CLI {
class App;
}

/// Adds the "run" sub-command with the options above to app; main thread.
CLI::App* AddRunCommand(CLI::App& app);

/// Runs the card as the parsed options of the "run" sub-command say; main thread,
/// once. The process's exit status.
int RunSimulator();
