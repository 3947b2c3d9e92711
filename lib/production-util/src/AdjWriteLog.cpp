#include "AdjWriteLog.h"

#include "kernel.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

constexpr const char* kFlashDirectory = "/mnt/ubi1/";
constexpr const char* kLogDirectory = "/mnt/ubi1/log/";
constexpr const char* kLogFile = "/mnt/ubi1/log/adj_log.inf";
constexpr const char* kMonths[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

std::atomic<int> g_enabled{1};
std::atomic<AdjWriteLogClock> g_clock{&time};

bool readable(const char* devicePath)
{
    return access(KernelPath(devicePath).c_str(), R_OK) == 0;
}

} // namespace

void adj_write_log_set_clock(AdjWriteLogClock clock)
{
    g_clock.store(clock != nullptr ? clock : &time);
}

void adj_write_log(const char* format, ...)
{
    char stamp[128] = {};
    char text[2048] = {};

    const time_t now = g_clock.load()(nullptr);
    struct tm local;
    if (localtime_r(&now, &local) == nullptr) return;
    std::snprintf(stamp, sizeof stamp, "%s %02d %02d:%02d:%02d : ", kMonths[local.tm_mon % 12], local.tm_mday,
                  local.tm_hour, local.tm_min, local.tm_sec);
    va_list args;
    va_start(args, format);
    if (format != nullptr)
        std::vsnprintf(text, sizeof text, format, args);
    else
        text[0] = '\0';
    va_end(args);

    if (g_enabled.load() == 0) return;
    if (!readable(kFlashDirectory)) return; // the flash partition is not there
    if (!readable(kLogDirectory)) {
        char command[1024] = {};
        std::snprintf(command, sizeof command, "mkdir -p %s --mode=0755", kLogDirectory);
        kernel_system(command);
    }
    const int fd = open(KernelPath(kLogFile).c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0755);
    if (fd < 0) {
        std::perror("write_log: ");
        return;
    }
    ssize_t ignored = write(fd, stamp, std::strlen(stamp));
    ignored = write(fd, text, std::strlen(text));
    (void)ignored;
    fdatasync(fd);
    close(fd);
}

void adj_enable_write_log()
{
    g_enabled.store(1);
}

void adj_disable_write_log()
{
    g_enabled.store(0);
}
