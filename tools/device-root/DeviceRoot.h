#pragma once
// The device root a command-line tool works below: the directory that stands for
// the simulated camera's "/" (PMODE_ROOT of the simulated platform). A tool never
// works on the host's own system directories: with no root given, or a root that
// resolves to the host's "/" ("/", "//", "/.", "/tmp/..", a symlink to "/"), it
// refuses and tells how to give one. Used on the tool's main thread only.

#include <string>

namespace devroot {

/// Checks a device root. Refused (false, the reason in error): an empty path, a
/// path that resolves to the host's "/", and, when mustExist, a path that is not a
/// directory. On success resolved is the root's absolute path with symlinks,
/// "." and ".." resolved. The error does not say how to give another root.
bool Check(const std::string& path, bool mustExist, std::string& resolved, std::string& error);

/// The root named by given (--root DIR) or, when given is empty, by $PMODE_ROOT;
/// checked as by Check (it must be an existing directory) and exported as
/// PMODE_ROOT for the platform. False when refused; the error then also says how
/// to give a root (kHowToGive).
bool Use(const std::string& given, std::string& resolved, std::string& error);

/// How to give a root, for usage texts and refusals.
extern const char* const kHowToGive;

} // namespace devroot
