#include "ScriptChecker.h"

#include "CProductionScript.h"
#include "CWorkerFactory.h"
#include "IPModeWorker.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

namespace {

constexpr size_t kLineMax = PM_LINE_SIZE - 1;
constexpr size_t kWordMax = PM_WORD_SIZE - 1;
constexpr size_t kWordsSeen = 1 + PM_PARAM_MAX;

constexpr const char* kKeywords[] = {
    "label", "step_reset", "step_end", "step_end_power_off", "for", "step", "delay", "execute_script", "goto",
};

bool isKeyword(const std::string& word)
{
    for (const char* keyword : kKeywords)
        if (word == keyword) return true;
    return false;
}

bool isCommentWord(const std::string& word)
{
    return !word.empty() && word[0] == '/' && word.find("//") != std::string::npos;
}

/// Words as the reader splits them: runs of spaces and tabs separate.
std::vector<std::string> splitWords(const std::string& line)
{
    std::vector<std::string> words;
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
        size_t start = i;
        while (i < line.size() && line[i] != ' ' && line[i] != '\t') ++i;
        if (i > start) words.push_back(line.substr(start, i - start));
    }
    return words;
}

std::string shorten(const std::string& word)
{
    return word.size() <= 24 ? word : word.substr(0, 20) + "...";
}

/// The label the script-mode loop looks for when it resumes at a step.
std::string resumeLabel(long step)
{
    char label[32] = {};
    if (step <= 9)
        std::snprintf(label, sizeof label, "ADJ_0%1ld", step);
    else
        std::snprintf(label, sizeof label, "ADJ_%2ld", step);
    return label;
}

struct ScriptLine {
    std::string text; ///< as the reader sees it: CR dropped, at most 509 bytes
    bool hasNewline = false;
};

struct GotoLine {
    int line; ///< 0-based
    std::string label;
    bool countValid; ///< count present and at least 1
};

class Analysis {
public:
    Analysis(const GroupResolver& resolver, bool probing, CheckResult& result)
        : m_resolver(resolver), m_probing(probing),
          m_unserved(probing ? "no worker group serves" : "no loaded worker serves"), m_result(result)
    {}

    void Run(const std::string& text)
    {
        if (rejectBinary(text)) return;
        splitLines(text);
        for (size_t i = 0; i < m_lines.size(); ++i) checkLine(static_cast<int>(i));
        checkGotos();
        checkResumeLabels();
        std::stable_sort(m_result.findings.begin(), m_result.findings.end(),
                         [](const CheckFinding& a, const CheckFinding& b) { return a.line < b.line; });
    }

    /// Errors after which the reader itself would fail a check while resolving the run.
    bool flowBroken() const { return m_flowBroken; }
    /// The text holds bytes no script has: nothing else was looked at.
    bool binary() const { return m_binary; }

private:
    void error(int line, const std::string& message) { m_result.findings.push_back({line + 1, true, message}); }
    void warning(int line, const std::string& message) { m_result.findings.push_back({line + 1, false, message}); }

    /// A NUL byte (the reader sees nothing after it) or another control byte than
    /// tab, CR and LF: the file is no script. One error; nothing else is checked.
    bool rejectBinary(const std::string& text)
    {
        size_t at = 0;
        while (at < text.size()) {
            unsigned char c = static_cast<unsigned char>(text[at]);
            if ((c < 0x20 && c != '\t' && c != '\n' && c != '\r') || c == 0x7f) break;
            ++at;
        }
        if (at == text.size()) return false;
        const char* nul = text[at] == '\0' ? "; the reader sees nothing after a NUL byte" : "";
        char found[160];
        std::snprintf(found, sizeof found, "binary data (byte 0x%02x at offset %zu): not a text file%s",
                      static_cast<unsigned char>(text[at]), at, nul);
        error(static_cast<int>(std::count(text.begin(), text.begin() + static_cast<long>(at), '\n')), found);
        m_flowBroken = true;
        m_binary = true;
        return true;
    }

    void splitLines(const std::string& body)
    {
        size_t start = 0;
        while (true) {
            size_t end = body.find('\n', start);
            ScriptLine line;
            std::string raw = body.substr(start, end == std::string::npos ? std::string::npos : end - start);
            if (end != std::string::npos && !raw.empty() && raw.back() == '\r') raw.pop_back();
            line.hasNewline = end != std::string::npos;
            if (raw.size() > kLineMax) {
                warning(static_cast<int>(m_lines.size()),
                        "line of " + std::to_string(raw.size()) + " bytes: the reader sees only the first 509");
                raw.resize(kLineMax);
            }
            line.text = raw;
            m_lines.push_back(line);
            if (end == std::string::npos) break;
            start = end + 1;
        }
    }

    void checkLine(int n)
    {
        const std::string& text = m_lines[n].text;
        std::vector<std::string> words = splitWords(text);
        if (words.empty()) return;
        bool hasSpace = text.find(' ') != std::string::npos;
        if (!hasSpace) {
            if (isCommentWord(words[0]) || words[0].rfind("//", 0) == 0) return;
            if (words.size() > 1)
                warning(n, "words separated only by tabs: the reader passes over a line without a space");
            else
                warning(n, "'" + shorten(words[0]) + "' alone on a line (no space): the reader passes it over");
            return;
        }
        if (words[0].size() > kWordMax) {
            error(n, "first word is " + std::to_string(words[0].size())
                         + " bytes (at most 49): the reader passes the line over");
            return;
        }
        if (isCommentWord(words[0])) return;

        m_commandLines.push_back(n);
        for (size_t w = 1; w < words.size() && w < kWordsSeen; ++w) {
            if (words[w].size() > kWordMax)
                error(n, "word " + std::to_string(w + 1) + " ('" + shorten(words[w]) + "') is "
                             + std::to_string(words[w].size()) + " bytes (at most 49): it is read as empty");
        }
        if (words.size() > kWordsSeen)
            warning(n, std::to_string(words.size()) + " words: words after the 11th are ignored");

        if (words[0] == "label")
            checkLabel(n, words);
        else if (words[0] == "goto")
            checkGoto(n, words);
        else
            checkCommand(n, words);
    }

    void checkLabel(int n, const std::vector<std::string>& words)
    {
        if (words.size() < 2 || words[1].size() > kWordMax) {
            error(n, "label without a name");
            m_flowBroken = true;
            return;
        }
        const std::string& name = words[1];
        if (!m_lines[n].hasNewline) {
            error(n, "label '" + name + "' on the last line without a newline after it: the reader never registers it");
            return;
        }
        auto found = m_labels.find(name);
        if (found != m_labels.end())
            error(n, "label '" + name + "' defined twice (first on line " + std::to_string(found->second + 1)
                         + "): the later one wins");
        m_labels[name] = n;
        m_labelOrder.emplace_back(name, n);
    }

    void checkGoto(int n, const std::vector<std::string>& words)
    {
        if (words.size() < 2 || words[1].size() > kWordMax) {
            error(n, "goto without a label: the run stops here");
            m_flowBroken = true;
            return;
        }
        GotoLine entry{n, words[1], false};
        if (words.size() < 3 || words[2].size() > kWordMax) {
            error(n, "goto '" + words[1] + "' without a count: the jump fails its check and the run ends here");
            m_flowBroken = true;
        } else {
            const std::string& count = words[2];
            long value = std::atol(count.c_str());
            bool numeric = !count.empty();
            for (size_t i = 0; i < count.size(); ++i)
                if (!(std::isdigit(static_cast<unsigned char>(count[i]))
                      || (i == 0 && (count[i] == '-' || count[i] == '+'))))
                    numeric = false;
            if (value < 1) {
                error(n, "goto count '" + shorten(count) + "' is read as " + std::to_string(value)
                             + ": the loop never ends (a count must be 1 or more)");
            } else {
                if (!numeric) warning(n, "goto count '" + shorten(count) + "' is read as " + std::to_string(value));
                entry.countValid = true;
            }
        }
        m_gotos.push_back(entry);
        // A goto right after a label line is passed over when the run falls into the label.
        if (m_commandLines.size() >= 2) {
            int previous = m_commandLines[m_commandLines.size() - 2];
            std::vector<std::string> prevWords = splitWords(m_lines[previous].text);
            if (!prevWords.empty() && prevWords[0] == "label")
                warning(n,
                        "goto right after a label line: when the run falls into that label, this goto is passed over");
        }
    }

    void checkCommand(int n, const std::vector<std::string>& words)
    {
        CProductionScript parser;
        _tPM_Command command = parser.Parsing(m_lines[n].text.c_str());
        if (command.nParamCount == -1) {
            error(n, "command '" + shorten(words[0]) + "' has no parameter: the run ends here");
            return;
        }
        std::string group = m_resolver(command.szWorker, command.szParam[0]);
        std::string reserved = isKeyword(words[0]) ? " (a reserved word with no effect of its own)" : "";
        if (group.empty()) {
            // Name the sub-command too where it chose the group (or may have chosen it).
            bool routedBySubCommand = !m_probing || m_resolver(command.szWorker, "\x01") == "PENDING";
            std::string what =
                routedBySubCommand ? std::string(command.szWorker) + " " + command.szParam[0] : command.szWorker;
            std::string hint;
            std::string asSubCommand = m_resolver("line_process", command.szWorker);
            if (!asSubCommand.empty() && asSubCommand != "PENDING")
                hint = " ('" + std::string(command.szWorker) + "' is a sub-command: line_process " + command.szWorker
                       + " ...?)";
            else if (words[0][0] == '#' || words[0][0] == ';' || words[0][0] == '/')
                hint = " (comments start with //)";
            error(n, m_unserved + " '" + what + "'" + reserved + hint + ": the run passes it over");
        } else if (group == "PENDING") {
            error(n, m_unserved + " '" + std::string(command.szWorker) + " " + command.szParam[0] + "': sub-command '"
                         + command.szParam[0] + "' is in no group");
        }
    }

    void checkGotos()
    {
        std::vector<const GotoLine*> loops;
        for (const GotoLine& entry : m_gotos) {
            auto label = m_labels.find(entry.label);
            if (label == m_labels.end()) {
                error(entry.line,
                      "goto to unknown label '" + entry.label + "': the jump fails its check and the run ends here");
                m_flowBroken = true;
                continue;
            }
            if (label->second > entry.line) {
                warning(entry.line, "goto '" + entry.label + "' jumps forward (label on line "
                                        + std::to_string(label->second + 1) + ")");
                continue;
            }
            if (entry.countValid) loops.push_back(&entry);
        }
        // One counter serves every goto: a counted loop inside (or across) another
        // one counts down the same counter.
        for (size_t i = 0; i < loops.size(); ++i) {
            for (size_t j = 0; j < loops.size(); ++j) {
                if (i == j) continue;
                int startI = m_labels[loops[i]->label], endI = loops[i]->line;
                int startJ = m_labels[loops[j]->label], endJ = loops[j]->line;
                bool overlap = startI <= endJ && startJ <= endI;
                bool iInner = endI < endJ || (endI == endJ && i > j);
                if (overlap && iInner) {
                    error(endI, "counted loop '" + loops[i]->label + "' lies inside the loop of line "
                                    + std::to_string(endJ + 1)
                                    + ": the loops share one counter, so neither runs its count");
                    break;
                }
            }
        }
    }

    void checkResumeLabels()
    {
        std::map<long, int> steps; // step -> line
        for (const auto& [name, line] : m_labelOrder) {
            if (name.size() < 5 || name.compare(0, 4, "ADJ_") != 0) continue;
            std::string digits = name.substr(4);
            if (digits.empty() || digits.size() > 6 || !std::all_of(digits.begin(), digits.end(), [](char c) {
                    return std::isdigit(static_cast<unsigned char>(c));
                }))
                continue;
            long step = std::atol(digits.c_str());
            if (resumeLabel(step) != name) {
                warning(line, "label '" + name + "' is never a resume point (step " + std::to_string(step)
                                  + " resumes at '" + resumeLabel(step) + "')");
                continue;
            }
            steps.emplace(step, line);
        }
        if (steps.empty()) return;
        long expected = 0;
        for (const auto& [step, line] : steps) {
            for (; expected < step; ++expected)
                error(line, "resume label '" + resumeLabel(expected)
                                + "' is missing (the ADJ_nn labels must run from ADJ_00 without gaps)");
            expected = step + 1;
        }
    }

    const GroupResolver& m_resolver;
    const bool m_probing;
    const std::string m_unserved;
    CheckResult& m_result;
    std::vector<ScriptLine> m_lines;
    std::vector<int> m_commandLines;
    std::map<std::string, int> m_labels;
    std::vector<std::pair<std::string, int>> m_labelOrder;
    std::vector<GotoLine> m_gotos;
    bool m_flowBroken = false;
    bool m_binary = false;
};

std::string commandText(const _tPM_Command& command)
{
    std::string text = command.szWorker;
    for (int p = 0; p < command.nParamCount; ++p) text += std::string(" ") + command.szParam[p];
    return text;
}

class ProbeWorker : public IPModeWorker {
public:
    explicit ProbeWorker(const char* group) { pszName = group; }
    int Execute(_tPM_Command*) override { return -1; }
};

} // namespace

int CheckResult::Errors() const
{
    return static_cast<int>(
        std::count_if(findings.begin(), findings.end(), [](const CheckFinding& f) { return f.error; }));
}

int CheckResult::Warnings() const
{
    return static_cast<int>(findings.size()) - Errors();
}

ScriptChecker::ScriptChecker(GroupResolver resolver, bool probing, int runBound)
    : m_resolver(std::move(resolver)), m_probing(probing), m_runBound(runBound)
{}

CheckResult ScriptChecker::Check(const std::string& text, const std::string& scriptPath) const
{
    CheckResult result;
    Analysis analysis(m_resolver, m_probing, result);
    analysis.Run(text);
    if (analysis.flowBroken()) {
        result.runEnd = analysis.binary() ? "not resolved: the file is not a text file"
                                          : "not resolved: fix the label and goto errors first";
        return result;
    }
    CProductionScript reader;
    if (!reader.Mount(scriptPath.c_str())) {
        result.runResolved = true;
        result.runEnd = "the script is empty: nothing runs";
        return result;
    }
    result.runResolved = true;
    result.runEnd = "end of the script";
    for (int i = 0;; ++i) {
        if (i == m_runBound) {
            result.runTruncated = true;
            result.runEnd = "stopped after " + std::to_string(m_runBound) + " commands (a loop that never ends?)";
            break;
        }
        reader.Parsing();
        _tPM_Command command = reader.Read();
        if (command == -1) {
            if (command.szWorker[0] != '\0')
                result.runEnd = "'" + std::string(command.szWorker) + "' has no parameter: the run ends there";
            break;
        }
        result.run.push_back({commandText(command), m_resolver(command.szWorker, command.szParam[0])});
    }
    return result;
}

void ScriptChecker::Print(const CheckResult& result, const std::string& displayName, bool showRun, FILE* out)
{
    for (const CheckFinding& finding : result.findings)
        std::fprintf(out, "%s:%d: %s: %s\n", displayName.c_str(), finding.line, finding.error ? "error" : "warning",
                     finding.message.c_str());
    if (showRun) {
        std::fprintf(out, "resolved run of %s:\n", displayName.c_str());
        int index = 0;
        for (const ResolvedCommand& command : result.run) {
            const char* group = command.group.empty() ? "-" : command.group.c_str();
            std::fprintf(out, "%5d  %-8s %s%s\n", ++index, group, command.text.c_str(),
                         command.group.empty() || command.group == "PENDING" ? "   (passed over: no worker)" : "");
        }
        std::fprintf(out, "       (%s)\n", result.runEnd.c_str());
    }
    std::fprintf(out, "%s: %d error%s, %d warning%s, %zu command%s in the resolved run\n", displayName.c_str(),
                 result.Errors(), result.Errors() == 1 ? "" : "s", result.Warnings(), result.Warnings() == 1 ? "" : "s",
                 result.run.size(), result.run.size() == 1 ? "" : "s");
}

void RegisterGroupProbes()
{
    static const char* const kGroups[] = {"UI", "CAP", "LENS", "MENU", "WIFI", "DD", "ETC", "PENDING"};
    for (const char* group : kGroups) CWorkerFactory::GetInstance()->AddWorker(new ProbeWorker(group));
}

bool ReadScriptFile(const std::string& path, std::string& text, std::string& error)
{
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) {
        error = std::string("cannot open the script: ") + std::strerror(errno);
        return false;
    }
    if (!S_ISREG(info.st_mode)) {
        error = S_ISDIR(info.st_mode) ? "the script is a directory, not a file" : "the script is not a regular file";
        return false;
    }
    std::ifstream file(path, std::ios::binary);
    std::stringstream content;
    if (file) content << file.rdbuf();
    if (!file || file.bad()) {
        error = "cannot read the script";
        return false;
    }
    text = content.str();
    return true;
}

GroupResolver RegistryResolver()
{
    return [](const char* name, const char* subCommand) -> std::string {
        IPModeWorker* worker = CWorkerFactory::GetInstance()->GetWorker(name, subCommand);
        return worker != nullptr && worker->GetName() != nullptr ? worker->GetName() : "";
    };
}
