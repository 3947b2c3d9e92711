#include "FileFaults.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace filefaults {
namespace {

std::atomic<bool> g_armed{false};
Action g_action = Action::Count;
long g_at = 0;
long g_count = 0;
std::vector<std::string>* g_names = nullptr;
std::mutex g_mutex;

template <typename F>
F real(const char* name)
{
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

// True when the operation must fail; kills the process where asked.
bool faulted(const char* name)
{
    if (!g_armed.load()) return false;
    std::lock_guard<std::mutex> lock(g_mutex);
    const long number = ++g_count;
    if (g_names != nullptr && g_action == Action::Count) g_names->push_back(name);
    switch (g_action) {
    case Action::Count: return false;
    case Action::FailOnce: return number == g_at;
    case Action::FailFrom: return number >= g_at;
    case Action::Kill:
        if (number == g_at) kill(getpid(), SIGKILL);
        return false;
    }
    return false;
}

bool isConsole(FILE* stream)
{
    return stream == stdout || stream == stderr;
}

bool isConsole(int fd)
{
    return fd == STDOUT_FILENO || fd == STDERR_FILENO;
}

template <typename R>
R failWith(R value)
{
    errno = EIO;
    return value;
}

} // namespace

void Arm(Action action, long at)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_action = action;
    g_at = at;
    g_count = 0;
    if (g_names == nullptr) g_names = new std::vector<std::string>();
    g_names->clear();
    g_armed = true;
}

void Disarm()
{
    g_armed = false;
}

long Count()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_count;
}

std::vector<std::string> Names()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_names != nullptr ? *g_names : std::vector<std::string>();
}

std::vector<long> SweepPoints(const std::vector<std::string>& names)
{
    std::vector<long> points;
    for (size_t i = 0; i < names.size(); ++i) {
        const bool runStarts = i == 0 || names[i] != names[i - 1];
        const bool runEnds = i + 1 == names.size() || names[i] != names[i + 1];
        if (runStarts || runEnds) points.push_back(static_cast<long>(i) + 1);
    }
    return points;
}

} // namespace filefaults

using filefaults::failWith;
using filefaults::faulted;
using filefaults::isConsole;
using filefaults::real;

extern "C" {

int open(const char* path, int flags, ...)
{
    mode_t mode = 0;
    if (flags & (O_CREAT | O_TMPFILE)) {
        va_list args;
        va_start(args, flags);
        mode = static_cast<mode_t>(va_arg(args, int));
        va_end(args);
    }
    if (faulted("open")) return failWith(-1);
    return real<int (*)(const char*, int, ...)>("open")(path, flags, mode);
}

ssize_t read(int fd, void* buffer, size_t size)
{
    if (!isConsole(fd) && fd != STDIN_FILENO && faulted("read")) return failWith<ssize_t>(-1);
    return real<ssize_t (*)(int, void*, size_t)>("read")(fd, buffer, size);
}

ssize_t write(int fd, const void* buffer, size_t size)
{
    if (!isConsole(fd) && faulted("write")) return failWith<ssize_t>(-1);
    return real<ssize_t (*)(int, const void*, size_t)>("write")(fd, buffer, size);
}

size_t fwrite(const void* buffer, size_t size, size_t count, FILE* stream)
{
    if (!isConsole(stream) && faulted("fwrite")) return failWith<size_t>(0);
    return real<size_t (*)(const void*, size_t, size_t, FILE*)>("fwrite")(buffer, size, count, stream);
}

int fflush(FILE* stream)
{
    if (stream != nullptr && !isConsole(stream) && faulted("fflush")) return failWith(EOF);
    return real<int (*)(FILE*)>("fflush")(stream);
}

int fclose(FILE* stream)
{
    // The stream is closed in any case, as a failing fclose does.
    const bool fail = !isConsole(stream) && faulted("fclose");
    const int result = real<int (*)(FILE*)>("fclose")(stream);
    return fail ? failWith(EOF) : result;
}

// The functions that only fail or pass through: return type, name, failure value, parameters, arguments.
#define PM_FAULTABLE(Ret, name, failed, params, args)       \
    Ret name params                                         \
    {                                                       \
        if (faulted(#name)) return failWith<Ret>(failed);   \
        return real<Ret(*) params>(#name) args;             \
    }
PM_FAULTABLE(FILE*, fopen, nullptr, (const char* path, const char* mode), (path, mode))
PM_FAULTABLE(size_t, fread, 0, (void* buffer, size_t size, size_t count, FILE* stream), (buffer, size, count, stream))
PM_FAULTABLE(int, fseek, -1, (FILE * stream, long offset, int origin), (stream, offset, origin))
PM_FAULTABLE(int, fsync, -1, (int fd), (fd))
PM_FAULTABLE(int, fdatasync, -1, (int fd), (fd))
PM_FAULTABLE(int, rename, -1, (const char* from, const char* to), (from, to))
PM_FAULTABLE(int, remove, -1, (const char* path), (path))
PM_FAULTABLE(int, unlink, -1, (const char* path), (path))
PM_FAULTABLE(int, mkdir, -1, (const char* path, mode_t mode), (path, mode))
PM_FAULTABLE(int, ftruncate, -1, (int fd, off_t length), (fd, length))
#undef PM_FAULTABLE

} // extern "C"
