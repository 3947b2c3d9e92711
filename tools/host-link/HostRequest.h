#pragma once
// One request of the factory PC: a script line or a protocol operation, as a batch
// line or the command line spells it ("line WORDS...", "op CODE [P1..P4]
// [payload=FILE]", optionally after "expect-fail"). Parsing is pure; any thread.

#include <cstdint>
#include <string>
#include <vector>

struct HostRequest {
    bool isLine = true;
    std::string line; ///< the script line
    uint32_t code = 0;
    uint32_t args[4] = {0, 0, 0, 0};
    bool hasPayload = false;
    std::string payload;
    bool expectFail = false;
    std::string text; ///< as written, for the report

    /// Parses text ("line ...", "op ..."); a relative payload file is found below
    /// baseDir. False with error naming what is wrong.
    static bool Parse(const std::string& text, const std::string& baseDir, HostRequest& request, std::string& error);
    /// What is wrong with one word of an operation: its code (isCode) or an
    /// argument ("size" allowed); empty when nothing is.
    static std::string WordError(const std::string& word, bool isCode);
    /// The step a request belongs to, for counting yields: a line's first two
    /// words ("lens focus_check"), an operation's name ("op cis_data2").
    std::string Step() const;
};

/// Splits text at white space.
std::vector<std::string> SplitWords(const std::string& text);
/// Reads a whole file; false when it cannot be read.
bool ReadWholeFile(const std::string& path, std::string& out);
