// pmode-kv: the key-value store's command-line tool, for people and scripts.
//
//   pmode-kv [--root DIR] get KEY             prints the value (integer or string)
//   pmode-kv [--root DIR] set KEY VALUE       sets a string value
//   pmode-kv [--root DIR] set-int KEY N       sets an integer value
//   pmode-kv [--root DIR] watch [-n COUNT] KEY...
//                                 prints "watching" once subscribed, then one line
//                                 "KEY=VALUE" per set of any KEY, in the order of
//                                 the sets; ends after COUNT lines, or on SIGINT/SIGTERM
//
// The store lives below the device root like the rest of the simulated device:
// --root DIR, else $PMODE_ROOT. Without a root, or with one that resolves to the
// host's "/", the tool refuses (it never writes the host's /var/run/vconf).
// Exit status: 0 success, 1 failure (missing key, refused set), 2 bad usage or no
// device root.
#include "DeviceRoot.h"
#include "vconf.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

std::atomic<bool> g_stop{false};
std::atomic<long> g_left{-1};

void onSignal(int)
{
    g_stop = true;
}

int usage()
{
    std::fprintf(stderr,
                 "usage: pmode-kv [--root DIR] get KEY\n"
                 "       pmode-kv [--root DIR] set KEY VALUE\n"
                 "       pmode-kv [--root DIR] set-int KEY N\n"
                 "       pmode-kv [--root DIR] watch [-n COUNT] KEY...\n"
                 "the device root: %s\n",
                 devroot::kHowToGive);
    return 2;
}

int get(const char* key)
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

bool parseInt(const char* text, int& value)
{
    errno = 0;
    char* end = nullptr;
    const long parsed = std::strtol(text, &end, 0);
    if (end == text || *end != '\0' || errno != 0 || parsed < INT_MIN || parsed > INT_MAX) return false;
    value = static_cast<int>(parsed);
    return true;
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

int watch(int argc, char** argv)
{
    int first = 0;
    if (argc >= 2 && std::strcmp(argv[0], "-n") == 0) {
        int count = 0;
        if (!parseInt(argv[1], count) || count < 1) return usage();
        g_left = count;
        first = 2;
    }
    if (first >= argc) return usage();
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    std::vector<const char*> keys(argv + first, argv + argc);
    for (const char* key : keys) {
        if (vconf_notify_key_changed(key, printChange, nullptr) != 0) {
            std::fprintf(stderr, "pmode-kv: cannot watch key %s\n", key);
            return 1;
        }
    }
    std::printf("watching\n");
    std::fflush(stdout);
    while (!g_stop) usleep(10000);
    for (const char* key : keys) vconf_ignore_key_changed(key, printChange);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    std::string given;
    if (argc >= 2 && std::strcmp(argv[1], "--root") == 0) {
        if (argc < 3) return usage();
        given = argv[2];
        argc -= 2;
        argv += 2;
    }
    if (argc < 2) return usage();
    std::string root, error;
    if (!devroot::Use(given, root, error)) {
        std::fprintf(stderr, "pmode-kv: %s\n", error.c_str());
        return 2;
    }
    const std::string command = argv[1];
    if (command == "get" && argc == 3) return get(argv[2]);
    if (command == "set" && argc == 4) {
        if (vconf_set_str(argv[2], argv[3]) == 0) return 0;
        std::fprintf(stderr, "pmode-kv: cannot set key %s\n", argv[2]);
        return 1;
    }
    if (command == "set-int" && argc == 4) {
        int value = 0;
        if (!parseInt(argv[3], value)) return usage();
        if (vconf_set_int(argv[2], value) == 0) return 0;
        std::fprintf(stderr, "pmode-kv: cannot set key %s\n", argv[2]);
        return 1;
    }
    if (command == "watch") return watch(argc - 2, argv + 2);
    return usage();
}
