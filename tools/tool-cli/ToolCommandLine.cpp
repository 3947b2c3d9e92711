#include "ToolCommandLine.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace toolcli {

namespace {

std::string numberText(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%g", value);
    return text;
}

/// The message of a wrong command line; a word that names no command is named itself.
std::string wrongWhat(const CLI::App& app, const CLI::ParseError& wrong)
{
    const std::vector<std::string> words = app.remaining();
    if (dynamic_cast<const CLI::RequiredError*>(&wrong) == nullptr || !app.get_subcommands().empty() || words.empty())
        return wrong.what();
    std::string commands;
    for (const CLI::App* command : app.get_subcommands({}))
        commands += (commands.empty() ? "" : ", ") + command->get_name();
    return "'" + words.front() + "' is not a command (" + commands + ")";
}

} // namespace

void Describe(CLI::App& app, const std::string& exitStatuses)
{
    app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast); // a later --root DIR wins
    app.set_help_flag();
    // Sub-commands made later take this flag over: there it shows their own part.
    app.set_help_all_flag("-h,--help", "print this help (commands, options, exit statuses) and exit 0");
    app.set_version_flag("--version", app.get_name() + " " + PM_TOOL_VERSION,
                         "print \"" + app.get_name() + " <version>\" and exit 0");
    app.footer("exit status: " + exitStatuses);
}

int Parse(CLI::App& app, int argc, char** argv)
{
    try {
        app.parse(argc, argv);
        return -1;
    }
    catch (const CLI::CallForAllHelp&) {
        // A sub-command's flag shows that sub-command's part (help() follows the parsed sub-commands).
        std::fputs(app.help("", CLI::AppFormatMode::All).c_str(), stdout);
    }
    catch (const CLI::CallForVersion& version) {
        std::printf("%s\n", version.what());
    }
    catch (const CLI::ParseError& wrong) {
        std::fprintf(stderr, "%s: %s\nrun '%s --help' for the commands and options\n", app.get_name().c_str(),
                     wrongWhat(app, wrong).c_str(), app.get_name().c_str());
        return kExitUsage;
    }
    return 0;
}

bool ParseWhole(const std::string& text, long long& value)
{
    size_t digits = text[0] == '-' || text[0] == '+' ? 1 : 0;
    const bool hex = text.compare(digits, 2, "0x") == 0 || text.compare(digits, 2, "0X") == 0;
    if (text.size() <= digits + (hex ? 2 : 0)) return false;
    for (size_t i = digits + (hex ? 2 : 0); i < text.size(); ++i)
        if (!(hex ? std::isxdigit(static_cast<unsigned char>(text[i]))
                  : std::isdigit(static_cast<unsigned char>(text[i]))))
            return false;
    errno = 0;
    char* end = nullptr;
    value = std::strtoll(text.c_str(), &end, hex ? 16 : 10);
    return errno == 0 && *end == '\0';
}

CLI::Validator Whole(long long low, long long high)
{
    const std::string range = std::to_string(low) + " to " + std::to_string(high);
    return CLI::Validator(
        [low, high, range](std::string& text) -> std::string {
            long long value = 0;
            if (!ParseWhole(text, value)) return "'" + text + "' is not a whole number (" + range + ")";
            if (value < low || value > high) return "'" + text + "' is out of range (" + range + ")";
            text = std::to_string(value);
            return "";
        },
        range);
}

CLI::Validator Seconds(double low, bool lowIncluded, double high)
{
    const std::string range = (lowIncluded ? "" : "above ") + numberText(low) + " to " + numberText(high) + " s";
    return CLI::Validator(
        [low, lowIncluded, high, range](std::string& text) -> std::string {
            char* end = nullptr;
            const double value = std::strtod(text.c_str(), &end);
            const bool plain = !text.empty() && text.find_first_not_of("0123456789.+-") == std::string::npos;
            if (!plain || *end != '\0' || !std::isfinite(value))
                return "'" + text + "' is not a number of seconds (" + range + ")";
            if (value > high || value < low || (value == low && !lowIncluded))
                return "'" + text + "' is out of range (" + range + ")";
            return "";
        },
        range);
}

int Guarded(const char* tool, int (*body)(int, char**), int argc, char** argv) noexcept
{
    try {
        return body(argc, argv);
    }
    catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", tool, error.what());
    }
    catch (...) {
        std::fprintf(stderr, "%s: an unexpected error ended the work\n", tool);
    }
    return 1;
}

void AddHostLinkWaits(CLI::App& app, double& timeout, double& wait)
{
    app.add_option("--timeout", timeout, "seconds to wait for each answer (default 10)")
        ->type_name("SEC")
        ->check(Seconds(0.0, false, 86400.0));
    app.add_option("--wait", wait, "seconds to wait for the camera (pmode-sim) to serve the host link (default 10)")
        ->type_name("SEC")
        ->check(Seconds(0.0, true, 86400.0));
}

} // namespace toolcli
