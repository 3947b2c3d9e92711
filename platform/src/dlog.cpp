#include "dlog.h"

#include "kernel.h"

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <string>

namespace {

// Where the simulated system log lives on the device.
constexpr const char* kLogDir = "/var/log";
constexpr const char* kLogFile = "/var/log/dlog.log";

char priorityLetter(int prio)
{
    switch (prio) {
    case DLOG_DEBUG: return 'D';
    case DLOG_INFO: return 'I';
    case DLOG_WARN: return 'W';
    case DLOG_ERROR: return 'E';
    default: return '?';
    }
}

} // namespace

extern "C" int __dlog_print(int log_id, int prio, const char* tag, const char* fmt, ...)
{
    char text[1024];
    va_list args;
    va_start(args, fmt);
    int length = 0;
    if (fmt != nullptr)
        length = std::vsnprintf(text, sizeof text, fmt, args);
    else
        text[0] = '\0';
    va_end(args);
    if (length < 0) return -1;

    timeval now{};
    gettimeofday(&now, nullptr);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);

    // One write() per line with O_APPEND keeps lines whole across threads and processes.
    std::string line = std::string(stamp) + "." + std::to_string(now.tv_usec / 1000) + " " + priorityLetter(prio) + "/"
                       + (tag != nullptr ? tag : "") + "(" + std::to_string(log_id) + "): " + text;
    if (line.empty() || line.back() != '\n') line += '\n';

    std::error_code ignored;
    std::filesystem::create_directories(KernelPath(kLogDir), ignored);
    int fd = open(KernelPath(kLogFile).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) {
        std::fputs(line.c_str(), stderr);
        return length;
    }
    ssize_t written = write(fd, line.data(), line.size());
    close(fd);
    return written == static_cast<ssize_t>(line.size()) ? length : -1;
}
