#pragma once
// The ten line values in preference group 1 ("PREF_ID_LINE"): the operations behind the
// adjust data manager's getLineDataOffset, readLineData and writeLineData. The manager
// keeps the `lineLoaded` flag and hands it in; the group is loaded from NAND on the
// first access after the flag was cleared.
//
// Threads: the caller holds the adjust data manager's mutex.
//
// Failures: a line id outside 134..143 ("Wrong Line ID %d") and a group that cannot be
// loaded ("Error to load PREF_ID_LINE") are reported to the error log and are failed
// checks; the operation then stops: no value is read or written, readLineData answers
// 0, writeLineData false, and a failed load leaves the flag clear so that the next
// access tries again.

namespace pm {
namespace line {

/// The key (byte offset in group 1) of a line id; 0, which no line value uses, for a
/// wrong id (reported).
unsigned long getLineDataOffset(int id);

/// The value of a line id, loading the group first when lineLoaded is clear.
long readLineData(bool& lineLoaded, int id);

/// Reads a line value into value, loading the group first when lineLoaded is clear.
/// False, value untouched, when the id is wrong or the group cannot be loaded.
bool readLineData(bool& lineLoaded, int id, long& value);

/// Sets the value of a line id in the group's image; with save the group is then
/// written to NAND. True when the value (and the save, if asked for) went through.
bool writeLineData(bool& lineLoaded, int id, long value, bool save);

} // namespace line
} // namespace pm
