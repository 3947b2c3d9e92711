// pmode-kv: the key-value store's command-line tool, for people and scripts.
//
//   pmode-kv [--root DIR] get KEY             prints the value (integer or string)
//   pmode-kv [--root DIR] set KEY VALUE       sets a string value
//   pmode-kv [--root DIR] set-int KEY N       sets an integer value (N: -2147483648 to
//                                             2147483647, decimal or 0x hexadecimal)
//   pmode-kv [--root DIR] watch [-n COUNT] KEY...
//                                 prints "watching" once subscribed, then one line
//                                 "KEY=VALUE" per set of any KEY, in the order of
//                                 the sets; ends after COUNT lines (1 to 2147483647),
//                                 or on SIGINT/SIGTERM
//   pmode-kv --help | --version
//
// A VALUE or KEY that starts with "-" follows "--" ("pmode-kv set k -- -5").
// The store lives below the device root like the rest of the simulated device:
// --root DIR, else $PMODE_ROOT. Without a root, or with one that resolves to the
// host's "/", the tool refuses (it never writes the host's /var/run/vconf).
// Exit status: 0 success (and --help, --version), 1 failure (missing key, refused
// set), 2 a wrong argument (named in the message) or no device root.
#include "DeviceRoot.h"
#include "ToolCommandLine.h"
#include "vconf.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

std::atomic<bool> g_stop{false};
std::atomic<long> g_left{-1};

void onSignal(int)
{
    g_stop = true;
}

int printKey(const char* key)
{
    int number = 0;
    if (vconf_get_int(key, &number) == 0) {
        std::printf("%d\n", number);
        return 0;
    }
    char* text = vconf_get_str(key);
    if (text == nullptr) {
        std::fprintf(stderr, "pmode-kv: no value for key %s\n", key);
        return 1;
    }
    std::printf("%s\n", text);
    std::free(text);
    return 0;
}

void printChange(keynode_t* node, void*)
{
    if (g_left == 0) return;
    if (vconf_keynode_get_type(node) == VCONF_TYPE_INT) {
        std::printf("%s=%d\n", vconf_keynode_get_name(node), vconf_keynode_get_int(node));
    } else {
        std::printf("%s=%s\n", vconf_keynode_get_name(node), vconf_keynode_get_str(node));
    }
    std::fflush(stdout);
    if (g_left > 0 && --g_left == 0) g_stop = true;
}

int watch(const std::vector<std::string>& keys, long count)
{
    g_left = count;
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    for (const std::string& key : keys) {
        if (vconf_notify_key_changed(key.c_str(), printChange, nullptr) != 0) {
            std::fprintf(stderr, "pmode-kv: cannot watch key %s\n", key.c_str());
            return 1;
        }
    }
    std::printf("watching\n");
    std::fflush(stdout);
    while (!g_stop) usleep(10000);
    for (const std::string& key : keys) vconf_ignore_key_changed(key.c_str(), printChange);
    return 0;
}

int setKey(const std::string& key, const std::string* text, int number)
{
    if ((text != nullptr ? vconf_set_str(key.c_str(), text->c_str()) : vconf_set_int(key.c_str(), number)) == 0)
        return 0;
    std::fprintf(stderr, "pmode-kv: cannot set key %s\n", key.c_str());
    return 1;
}

} // namespace

static int runTool(int argc, char** argv)
{
    CLI::App app("Gets, sets and watches keys of the simulated key-value store below a device root.", "pmode-kv");
    toolcli::Describe(app, "0 done; 1 a missing key or a refused set; 2 a wrong argument or no device root");
    std::string given, key, value;
    std::vector<std::string> keys;
    int number = 0;
    long count = -1;
    app.add_option("--root", given, std::string("the device root (default: $PMODE_ROOT); ") + devroot::kHowToGive)
        ->type_name("DIR");
    app.require_subcommand(1);
    CLI::App* get = app.add_subcommand("get", "print the value of KEY (integer or string)");
    get->add_option("KEY", key, "the key")->required();
    CLI::App* set = app.add_subcommand("set", "set KEY to the string VALUE");
    set->add_option("KEY", key, "the key")->required();
    set->add_option("VALUE", value, "the string")->required();
    CLI::App* setInt = app.add_subcommand("set-int", "set KEY to the integer N");
    setInt->add_option("KEY", key, "the key")->required();
    setInt->add_option("N", number, "the integer, decimal or 0x hexadecimal")
        ->required()
        ->transform(toolcli::Whole(INT_MIN, INT_MAX));
    CLI::App* watchKeys =
        app.add_subcommand("watch", "print \"watching\", then KEY=VALUE for every set of a KEY, in order");
    watchKeys->add_option("-n", count, "stop after COUNT lines (default: on SIGINT/SIGTERM)")
        ->type_name("COUNT")
        ->transform(toolcli::Whole(1, INT_MAX));
    watchKeys->add_option("KEY", keys, "the keys")->required();
    if (const int status = toolcli::Parse(app, argc, argv); status >= 0) return status;

    std::string root, error;
    if (!devroot::Use(given, root, error)) {
        std::fprintf(stderr, "pmode-kv: %s\n", error.c_str());
        return 2;
    }
    if (get->parsed()) return printKey(key.c_str());
    if (set->parsed()) return setKey(key, &value, 0);
    if (setInt->parsed()) return setKey(key, nullptr, number);
    return watch(keys, count);
}

int main(int argc, char** argv)
{
    return toolcli::Guarded("pmode-kv", runTool, argc, argv);
}
