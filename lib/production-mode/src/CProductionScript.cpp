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

/// A comment word begins with "/" and holds "//".
bool isCommentWord(const char* word)
{
    return word[0] == '/' && std::strstr(word, "//") != nullptr;
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
        char text[PM_LINE_SIZE] = {};
        get1LineString(text, line);
        char word[PM_WORD_SIZE] = {};
        if (getParam(text, 0, word) && std::strcmp(word, "label") == 0) {
            char name[PM_WORD_SIZE] = {};
            if (getParam(text, 1, name)) {
                mapLabel[name] = static_cast<unsigned int>(line);
            } else {
                // A nameless label is reported and left out; indexing goes on.
                PM_ASSERT_FAILED();
            }
        }
        ++line;
    }
    return true;
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
    char work[PM_LINE_SIZE] = {};
    std::strncpy(work, line, kLineMax);
    const size_t copied = std::strlen(work);
    if (copied == 0) return false;
    cutAtLineEnd(work, copied);

    if (std::strchr(work, ' ') == nullptr) {
        // A line without a space has no words; a short one is still handed out whole.
        const size_t length = std::strlen(work);
        if (length <= static_cast<size_t>(kWordMax)) std::memcpy(out, work, length);
        return false;
    }

    const char* cursor = work;
    for (int word = 0;; ++word) {
        while (isSeparator(*cursor)) ++cursor;
        if (*cursor == '\0') return false;
        const char* start = cursor;
        while (*cursor != '\0' && !isSeparator(*cursor)) ++cursor;
        if (word < index) continue;
        const size_t length = static_cast<size_t>(cursor - start);
        if (length > static_cast<size_t>(kWordMax)) return false;
        std::memcpy(out, start, length);
        return true;
    }
}

bool CProductionScript::sumRemainString(int first, int last, const char* line, char* out)
{
    if (first >= last || out == nullptr) return false;
    std::string joined;
    for (int index = first; index <= last; ++index) {
        char word[PM_WORD_SIZE] = {};
        if (!getParam(line, index, word)) break;
        if (!joined.empty()) joined += ' ';
        joined += word;
    }
    if (joined.empty() || joined.size() > static_cast<size_t>(kLineMax)) return false;
    std::memcpy(out, joined.c_str(), joined.size() + 1);
    return true;
}

bool CProductionScript::isCommandLine(int line)
{
    char text[PM_LINE_SIZE] = {};
    get1LineString(text, line);
    char word[PM_WORD_SIZE] = {};
    return getParam(text, 0, word) && !isCommentWord(word);
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
    char text[PM_LINE_SIZE] = {};
    get1LineString(text, nCurLine);
    if (!getParam(text, 0, tCommand.szWorker)) {
        std::memset(tCommand.szWorker, 0, sizeof tCommand.szWorker);
        return;
    }
    if (isLogicOperation()) {
        if (std::strcmp(tCommand.szWorker, "label") == 0) nLogicType = LOGIC_LABEL;
        if (std::strcmp(tCommand.szWorker, "goto") == 0) nLogicType = LOGIC_GOTO;
    }
    for (int i = 0; i < PM_PARAM_MAX; ++i) {
        if (getParam(text, i + 1, tCommand.szParam[i])) tCommand.nParamCount = i + 1;
        else std::memset(tCommand.szParam[i], 0, sizeof tCommand.szParam[i]);
    }
}

_tPM_Command CProductionScript::Parsing(const char* line)
{
    _tPM_Command command;
    if (line == nullptr || !getParam(line, 0, command.szWorker)) return command;
    for (int i = 0; i < PM_PARAM_MAX; ++i) {
        if (getParam(line, i + 1, command.szParam[i])) command.nParamCount = i + 1;
        else std::memset(command.szParam[i], 0, sizeof command.szParam[i]);
    }
    return command;
}

bool CProductionScript::isLogicOperation()
{
    char text[PM_LINE_SIZE] = {};
    get1LineString(text, nCurLine);
    char word[PM_WORD_SIZE] = {};
    if (!getParam(text, 0, word)) return false;
    for (const char* keyword : kKeywords) {
        if (std::strcmp(word, keyword) == 0) return true;
    }
    return false;
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

    char text[PM_LINE_SIZE] = {};
    get1LineString(text, nCurLine);
    char word[PM_WORD_SIZE] = {};
    if (!getParam(text, 0, word)) return false;
    if (std::strcmp(word, "goto") != 0) {
        const int target = findLabel(label);
        if (target < 0) return false;
        nCurLine = target;
        return true;
    }

    char name[PM_WORD_SIZE] = {};
    if (!getParam(text, 1, name)) return false;
    const int target = findLabel(label);
    if (target < 0) return false;
    nCurLine = target;
    char count[PM_WORD_SIZE] = {};
    if (!getParam(text, 2, count)) return false;
    nLoopCount = std::atoi(count);
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
    default:
        nextLine();
        break;
    }
    return tCommand;
}
