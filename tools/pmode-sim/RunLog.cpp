#include "RunLog.h"

#include <nlohmann/json.hpp>

#include <cmath>
#include <cstring>
#include <fstream>

extern "C" __attribute__((visibility("default"))) void pmode_sim_note(const char* text)
{
    RunLog::Get().Note(text);
}

namespace {

/// A command the host-link loop derived from a protocol operation: numeric
/// arguments or a payload, or one of the sub-commands the loop puts in.
bool isProtocolOperation(const _tPM_Command& command)
{
    static const char* const kSubCommands[] = {"shutter_speed2", "cis_data2", "cis_data_info", "rtc2", "paf2"};
    if (command.pData != nullptr || command.nArg[0] || command.nArg[1] || command.nArg[2] || command.nArg[3])
        return true;
    for (const char* sub : kSubCommands)
        if (std::strcmp(command.szParam[0], sub) == 0) return true;
    return false;
}

std::string commandText(const _tPM_Command& command)
{
    std::string text = command.szWorker;
    for (int i = 0; i < command.nParamCount; ++i) text += std::string(" ") + command.szParam[i];
    return text;
}

/// Milliseconds and seconds go into the report to the microsecond or millisecond.
double rounded(double value, double steps)
{
    return std::round(value * steps) / steps;
}

nlohmann::ordered_json recordJson(const CommandRecord& record)
{
    nlohmann::ordered_json json = {
        {"index", record.index}, {"worker", record.group}, {"command", record.text}, {"protocol", record.protocol}};
    if (record.protocol) json["args"] = {record.args[0], record.args[1], record.args[2], record.args[3]};
    json["result"] = record.result;
    json["passed"] = record.Passed();
    json["ms"] = rounded(record.ms, 1000.0);
    json["notes"] = record.notes;
    return json;
}

} // namespace

RunLog& RunLog::Get()
{
    static RunLog log;
    return log;
}

void RunLog::Begin(const std::string& group, const _tPM_Command& command)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_current = CommandRecord();
    m_current.index = static_cast<int>(m_records.size()) + 1;
    m_current.group = group;
    m_current.text = commandText(command);
    m_current.protocol = isProtocolOperation(command);
    std::memcpy(m_current.args, command.nArg, sizeof m_current.args);
    m_running = true;
}

void RunLog::End(int result, double ms)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_current.result = result;
    m_current.ms = ms;
    m_records.push_back(m_current);
    m_running = false;
    if (m_out == nullptr) return;
    const CommandRecord& r = m_records.back();
    std::string text = r.protocol ? r.text + " (op " + std::to_string(r.args[0]) + " " + std::to_string(r.args[1]) + " "
                                        + std::to_string(r.args[2]) + " " + std::to_string(r.args[3]) + ")"
                                  : r.text;
    std::fprintf(m_out, "[%3d] %-5s %-44s %s %8.1f ms\n", r.index, r.group.c_str(), text.c_str(),
                 r.Passed() ? "PASS" : "FAIL", r.ms);
    for (const std::string& note : r.notes) std::fprintf(m_out, "            %s\n", note.c_str());
    if (!r.Passed()) std::fprintf(m_out, "            result %d\n", r.result);
    std::fflush(m_out);
}

void RunLog::Note(const char* text)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_running) {
        m_current.notes.emplace_back(text);
    } else if (m_out != nullptr) {
        std::fprintf(m_out, "            (worker) %s\n", text);
        std::fflush(m_out);
    }
}

std::vector<CommandRecord> RunLog::Records()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_records;
}

int RunLog::Failed()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    int failed = 0;
    for (const CommandRecord& r : m_records) failed += r.Passed() ? 0 : 1;
    return failed;
}

bool RunLog::FirstFailure(CommandRecord& out)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const CommandRecord& r : m_records)
        if (!r.Passed()) {
            out = r;
            return true;
        }
    return false;
}

void RunLog::PrintSummary(const RunFacts& facts, FILE* out)
{
    std::vector<CommandRecord> records = Records();
    int failed = Failed();
    bool passed = facts.exitStatus == 0;
    std::fprintf(out, "------------------------------------------------------------------------\n");
    std::fprintf(out, "run %s (%s mode, %s): %zu commands run, %zu passed, %d failed, %.2f s\n",
                 passed ? "PASSED" : "FAILED", facts.mode.c_str(), facts.ending.c_str(), records.size(),
                 records.size() - static_cast<size_t>(failed), failed, facts.seconds);
    CommandRecord failure;
    if (FirstFailure(failure))
        std::fprintf(out, "failing command: [%d] %s %s (result %d)\n", failure.index, failure.group.c_str(),
                     failure.text.c_str(), failure.result);
    for (const std::string& fault : facts.faults) std::fprintf(out, "not a pass: %s\n", fault.c_str());
    std::fprintf(out, "device root: %s\n", facts.root.c_str());
    std::fflush(out);
}

bool RunLog::WriteJson(const RunFacts& facts, const std::string& path)
{
    std::vector<CommandRecord> records = Records();
    const int failed = Failed();
    CommandRecord failure;
    nlohmann::ordered_json report = {
        {"passed", facts.exitStatus == 0},
        {"exit_status", facts.exitStatus},
        {"mode", facts.mode},
        {"root", facts.root},
        {"script", facts.script},
        {"resume_step", facts.resumeStep},
        {"ending", facts.ending},
        {"aborted", facts.aborted},
        {"total_seconds", rounded(facts.seconds, 1000.0)},
        {"commands_run", records.size()},
        {"commands_passed", records.size() - static_cast<size_t>(failed)},
        {"commands_failed", failed},
        {"failing_command", FirstFailure(failure) ? recordJson(failure) : nlohmann::ordered_json()},
        {"preflight", facts.preflight},
        {"failed_checks", facts.failedChecks},
        {"faults", facts.faults},
        {"commands", nlohmann::ordered_json::array()}};
    for (const CommandRecord& record : records) report["commands"].push_back(recordJson(record));
    // Script words need not be UTF-8: bytes that are not are replaced rather than refused.
    const std::string text = report.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
    std::ofstream file(path, std::ios::trunc);
    file << text;
    return static_cast<bool>(file.flush());
}
