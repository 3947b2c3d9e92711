#include "CProductionScript.h"

#include "PMReport.h"
#include "kernel.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

constexpr int kLineMax = PM_LINE_SIZE - 1; // bytes of a line that are seen
constexpr int kWordMax = PM_WORD_SIZE - 1; // bytes of a word

// Keywords, in the order they are tested.
constexpr const char* kKeywords[] = {
    "label", "step_reset", "step_end", "step_end_power_off", "for", "step", "delay", "execute_script", "goto",
};

/// Ends the text at its first newline, or at the carriage return right before it.
void cutAtLineEnd(char* text, size_t copied)
{
    char* newline = std::strchr(text, '\n');
    if (newline == nullptr) return;
    if (copied > 1 && newline != text && newline[-1] == '\r') --newline;
    *newline = '\0';
}

bool isSeparator(char c)
{
    return c == ' ' || c == '\t';
}

// Words are read straight from the text: each use splits the line once, in place,
// with no copy of the line and no second scan from its start.

/// The bytes of a line that are seen: at most kLineMax, up to the end of the line
/// (its newline, or the carriage return right before it).
size_t seenLength(const char* line)
{
    const size_t copied = strnlen(line, kLineMax);
    const void* newline = std::memchr(line, '\n', copied);
    if (newline == nullptr) return copied;
    size_t end = static_cast<size_t>(static_cast<const char*>(newline) - line);
    if (copied > 1 && end > 0 && line[end - 1] == '\r') --end;
    return end;
}

struct Word {
    const char* text = nullptr;
    size_t length = 0;
};

/// A line's seen part and a cursor over its words.
class WordReader {
public:
    explicit WordReader(const char* line) : m_line(line), m_length(seenLength(line)) {}
    /// A line has words only if it holds a space.
    bool HasWords() const { return std::memchr(m_line, ' ', m_length) != nullptr; }
    /// The next word; false at the end of the line.
    bool Next(Word& word)
    {
        while (m_at < m_length && isSeparator(m_line[m_at])) ++m_at;
        if (m_at == m_length) return false;
        const size_t start = m_at;
        while (m_at < m_length && !isSeparator(m_line[m_at])) ++m_at;
        word = {m_line + start, m_at - start};
        return true;
    }
    /// A line without words is still handed out whole when it fits a word buffer.
    void CopyShortLine(char* out) const
    {
        if (m_length <= static_cast<size_t>(kWordMax)) std::memcpy(out, m_line, m_length);
    }

private:
    const char* m_line;
    size_t m_length;
    size_t m_at = 0;
};

/// Copies a word into a zeroed word buffer (no terminator); false for a word too long.
bool copyWord(const Word& word, char* out)
{
    if (word.length > static_cast<size_t>(kWordMax)) return false;
    std::memcpy(out, word.text, word.length);
    return true;
}

bool wordIs(const Word& word, const char* text)
{
    return word.length == std::strlen(text) && std::memcmp(word.text, text, word.length) == 0;
}

/// A comment word begins with "/" and holds "//".
bool isCommentWord(const Word& word)
{
    if (word.length == 0 || word.text[0] != '/') return false;
    for (size_t i = 0; i + 1 < word.length; ++i) {
        if (word.text[i] == '/' && word.text[i + 1] == '/') return true;
    }
    return false;
}

bool isKeyword(const char* word)
{
    for (const char* keyword : kKeywords) {
        if (std::strcmp(word, keyword) == 0) return true;
    }
    return false;
}

/// Splits a line into a command's name and parameters in one pass. False when it has
/// no first word (the name buffer may then hold a short line that has no space).
bool parseCommand(const char* line, _tPM_Command& command)
{
    WordReader reader(line);
    Word word;
    if (!reader.HasWords()) {
        reader.CopyShortLine(command.szWorker);
        return false;
    }
    if (!reader.Next(word) || !copyWord(word, command.szWorker)) return false;
    for (int i = 0; i < PM_PARAM_MAX && reader.Next(word); ++i) {
        if (copyWord(word, command.szParam[i])) command.nParamCount = i + 1;
    }
    return true;
}

} // namespace

CProductionScript::CProductionScript() : nCurLine(0), pBuffer(nullptr), nLoopCount(0), nLogicType(LOGIC_NONE) {}

CProductionScript::~CProductionScript()
{
    delete[] pBuffer;
}

bool CProductionScript::Mount(const char* path)
{
    if (path == nullptr) {
        PM_TRACE("No Script file Name!!!");
        return false;
    }
    if (FILE* file = std::fopen(KernelPath(path).c_str(), "rt")) {
        long size = std::fseek(file, 0, SEEK_END) == 0 ? std::ftell(file) : -1;
        std::fseek(file, 0, SEEK_SET);
        if (size < 1) {
            PM_TRACE(" Script file size is %d!!!\n", static_cast<int>(size));
            std::fclose(file);
            return false;
        }
        // Allocated before the old text is released, so a failure keeps the old script.
        char* text = new (std::nothrow) char[static_cast<size_t>(size) + 1];
        if (text == nullptr) {
            PM_TRACE("memory allocate error!!!\n");
            std::fclose(file);
            return false;
        }
        std::memset(text, 0, static_cast<size_t>(size) + 1);
        if (std::fread(text, static_cast<size_t>(size), 1, file) != 1) PM_TRACE("Read Script file error!!!");
        std::fclose(file);
        delete[] pBuffer;
        pBuffer = text;
    }
    mapLabel.clear();
    vecLineOffset.clear();
    nCurLine = 0;
    nLoopCount = 0;
    const bool indexed = setLineOffset();
    skipComment(1);
    return indexed;
}

bool CProductionScript::Unmount()
{
    mapLabel.clear();
    vecLineOffset.clear();
    delete[] pBuffer;
    pBuffer = nullptr;
    return true;
}

bool CProductionScript::setLineOffset()
{
    if (pBuffer == nullptr) return false;
    vecLineOffset.push_back(0);
    int line = 0;
    for (unsigned int i = 0; pBuffer[i] != '\0'; ++i) {
        if (pBuffer[i] != '\n') continue;
        vecLineOffset.push_back(i + 1);
        WordReader reader(lineText(line));
        Word word, name;
        if (reader.HasWords() && reader.Next(word) && wordIs(word, "label")) {
            if (reader.Next(name) && name.length <= static_cast<size_t>(kWordMax)) {
                mapLabel[std::string(name.text, name.length)] = static_cast<unsigned int>(line);
            } else {
                // A nameless label is reported and left out; indexing goes on.
                PM_ASSERT_FAILED();
            }
        }
        ++line;
    }
    return true;
}

const char* CProductionScript::lineText(int line) const
{
    if (pBuffer == nullptr || line < 0 || line >= lineCount()) return "";
    return pBuffer + vecLineOffset[static_cast<size_t>(line)];
}

bool CProductionScript::get1LineString(char* out, int line)
{
    if (out == nullptr || pBuffer == nullptr || line < 0 || line >= lineCount()) return true;
    char work[PM_LINE_SIZE] = {};
    std::strncpy(work, pBuffer + vecLineOffset[static_cast<size_t>(line)], kLineMax);
    const size_t copied = std::strlen(work);
    if (copied == 0) return true;
    cutAtLineEnd(work, copied);
    std::memcpy(out, work, sizeof work);
    return true;
}

bool CProductionScript::getParam(const char* line, int index, char* out)
{
    if (line == nullptr || out == nullptr || index < 0) return false;
    WordReader reader(line);
    if (!reader.HasWords()) {
        reader.CopyShortLine(out);
        return false;
    }
    Word word;
    for (int i = 0; i <= index; ++i) {
        if (!reader.Next(word)) return false;
    }
    return copyWord(word, out);
}

bool CProductionScript::sumRemainString(int first, int last, const char* line, char* out)
{
    if (first >= last || out == nullptr || line == nullptr || first < 0) return false;
    WordReader reader(line);
    if (!reader.HasWords()) return false;
    std::string joined;
    Word word;
    for (int index = 0; index <= last && reader.Next(word); ++index) {
        if (index < first) continue;
        if (word.length > static_cast<size_t>(kWordMax)) break;
        if (!joined.empty()) joined += ' ';
        joined.append(word.text, word.length);
    }
    if (joined.empty() || joined.size() > static_cast<size_t>(kLineMax)) return false;
    std::memcpy(out, joined.c_str(), joined.size() + 1);
    return true;
}

bool CProductionScript::isCommandLine(int line)
{
    WordReader reader(lineText(line));
    Word word;
    return reader.HasWords() && reader.Next(word) && word.length <= static_cast<size_t>(kWordMax)
           && !isCommentWord(word);
}

bool CProductionScript::skipComment(int direction)
{
    if (direction > 0) {
        for (; nCurLine < lineCount(); ++nCurLine) {
            if (isCommandLine(nCurLine)) return true;
        }
        return false;
    }
    if (direction < 0) {
        for (; nCurLine >= 1; --nCurLine) {
            if (isCommandLine(nCurLine)) return true;
        }
        return false;
    }
    return false;
}

bool CProductionScript::nextLine()
{
    if (nCurLine >= lineCount()) return false;
    ++nCurLine;
    return skipComment(1);
}

bool CProductionScript::prevLine()
{
    if (nCurLine < 1) return false;
    --nCurLine;
    return skipComment(-1);
}

bool CProductionScript::isEOF()
{
    return nCurLine >= lineCount();
}

void CProductionScript::Parsing()
{
    tCommand = 0;
    nLogicType = LOGIC_NONE;
    if (!parseCommand(lineText(nCurLine), tCommand)) {
        std::memset(tCommand.szWorker, 0, sizeof tCommand.szWorker);
        return;
    }
    if (std::strcmp(tCommand.szWorker, "label") == 0) nLogicType = LOGIC_LABEL;
    if (std::strcmp(tCommand.szWorker, "goto") == 0) nLogicType = LOGIC_GOTO;
}

_tPM_Command CProductionScript::Parsing(const char* line)
{
    _tPM_Command command;
    if (line != nullptr) parseCommand(line, command);
    return command;
}

bool CProductionScript::isLogicOperation()
{
    _tPM_Command command;
    return parseCommand(lineText(nCurLine), command) && isKeyword(command.szWorker);
}

int CProductionScript::findLabel(const char* label)
{
    if (label == nullptr || mapLabel.empty()) return -1;
    auto found = mapLabel.find(label);
    return found == mapLabel.end() ? -1 : static_cast<int>(found->second);
}

bool CProductionScript::GotoLabel(const char* label)
{
    if (nLoopCount >= 1) {
        const int target = findLabel(label);
        if (target < 0) return false;
        if (--nLoopCount != 0) nCurLine = target;
        return true;
    }

    _tPM_Command line;
    if (!parseCommand(lineText(nCurLine), line)) return false;
    if (std::strcmp(line.szWorker, "goto") != 0) {
        const int target = findLabel(label);
        if (target < 0) return false;
        nCurLine = target;
        return true;
    }

    if (line.szParam[0][0] == '\0') return false; // no label name
    const int target = findLabel(label);
    if (target < 0) return false;
    nCurLine = target;
    if (line.szParam[1][0] == '\0') return false; // no count
    nLoopCount = std::atoi(line.szParam[1]);
    return true;
}

bool CProductionScript::LoopWatch::Repeats(int line, int count)
{
    if (line == savedLine && count == savedCount) return true;
    if (++steps == limit) {
        savedLine = line;
        savedCount = count;
        steps = 0;
        limit *= 2;
    }
    return false;
}

bool CProductionScript::carryOutGoto(LoopWatch& watch)
{
    const int from = nCurLine;
    if (!GotoLabel(tCommand.szParam[0])) return false;
    if (nCurLine == from) return true; // a counted loop has ended
    // Between two commands the run is fixed by the line and the counter: landing
    // twice in the same state without a command in between is a loop that never
    // ends and never hands out a command.
    if (watch.Repeats(nCurLine, nLoopCount)) {
        PM_ERROR_LOG("goto %s at line %d loops without end and without a command\n", tCommand.szParam[0], from);
        return false;
    }
    return true;
}

_tPM_Command CProductionScript::Read()
{
    if (isEOF()) return _tPM_Command();
    switch (nLogicType) {
    case LOGIC_GOTO: {
        LoopWatch watch; // the jumps of this call
        PM_CHECK(carryOutGoto(watch), _tPM_Command());
        for (;;) {
            nextLine();
            Parsing();
            if (isEOF()) break;
            if (nLogicType == LOGIC_LABEL) continue;
            if (nLogicType == LOGIC_GOTO) {
                PM_CHECK(carryOutGoto(watch), _tPM_Command());
                continue;
            }
            nextLine();
            break;
        }
        break;
    }
    case LOGIC_LABEL:
        do {
            if (isEOF()) break;
            nextLine();
            Parsing();
        } while (nLogicType == LOGIC_LABEL || nLogicType == LOGIC_GOTO);
        nextLine();
        break;
    default: nextLine(); break;
    }
    return tCommand;
}
