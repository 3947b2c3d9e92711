#pragma once
// The command line of every tool: "--help" lists every sub-command and option and
// the exit statuses, "--version" prints "<tool> <version>", both exit 0; a wrong
// argument (unknown option, missing value, extra word, a number that is not one or
// is out of range) prints a message naming it and exits 2. Numbers are checked
// with the validators below, which also bring them to one spelling before CLI11
// converts them. Used on the tool's main thread only.

#include <CLI/CLI.hpp>

#include <string>

namespace toolcli {

constexpr int kExitUsage = 2;

/// Sets up app for the tool: "-h,--help" (the whole tree of sub-commands and
/// options; a sub-command's own "--help" shows its part), "--version", and the
/// exit statuses as the footer of every help text. An option given twice takes
/// its last value.
void Describe(CLI::App& app, const std::string& exitStatuses);

/// Parses the command line. -1 when the tool goes on; otherwise the exit status
/// after the help or version was printed (0) or after a wrong argument was
/// reported on standard error (2).
int Parse(CLI::App& app, int argc, char** argv);

/// A whole number from low to high, decimal or "0x" hexadecimal, optionally
/// signed; passed on in decimal.
CLI::Validator Whole(long long low, long long high);

/// A plain number of seconds ("0.3", "20"): finite, at most high, and above low
/// (or equal to it when lowIncluded).
CLI::Validator Seconds(double low, bool lowIncluded, double high);

/// Runs the tool's body; an exception that escapes it (memory exhausted, a file
/// system error) is reported as "<tool>: <what>" and ends the tool with exit 1,
/// the work not done, instead of terminating the process.
int Guarded(const char* tool, int (*body)(int, char**), int argc, char** argv) noexcept;

/// The host-link waits of the factory PC's programs: "--timeout SEC" for each
/// answer (above 0) and "--wait SEC" for the camera to serve the link (0 or more).
void AddHostLinkWaits(CLI::App& app, double& timeout, double& wait);

/// Reads a whole number as Whole does; false for anything else (no range check).
bool ParseWhole(const std::string& text, long long& value);

} // namespace toolcli
