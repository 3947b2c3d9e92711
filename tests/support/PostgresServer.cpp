#include "PostgresServer.h"

#include <arpa/inet.h>
#include <glob.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

std::string NewestServerBin()
{
    glob_t found{};
    std::string bin;
    if (glob("/usr/lib/postgresql/*/bin/initdb", 0, nullptr, &found) == 0) {
        int best = -1;
        for (size_t i = 0; i < found.gl_pathc; ++i) {
            const std::string path = found.gl_pathv[i];
            const int version = std::atoi(path.c_str() + std::string("/usr/lib/postgresql/").size());
            if (version > best && access(path.c_str(), X_OK) == 0) {
                best = version;
                bin = path.substr(0, path.size() - std::string("/initdb").size());
            }
        }
    }
    globfree(&found);
    return bin;
}

int FreePort()
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    int port = 0;
    if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), size) == 0
        && getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0)
        port = ntohs(address.sin_port);
    if (fd >= 0) close(fd);
    return port;
}

} // namespace

PostgresServer::PostgresServer()
{
    m_running = Start();
}

PostgresServer::~PostgresServer()
{
    if (m_running) RunTool("pg_ctl", "-D " + m_dir + "/data -m immediate -w stop", "stop.log");
    std::error_code ignored;
    if (!m_dir.empty()) std::filesystem::remove_all(m_dir, ignored);
}

bool PostgresServer::Start()
{
    m_bin = NewestServerBin();
    if (m_bin.empty()) {
        m_whyNot = "no PostgreSQL server programs (/usr/lib/postgresql/*/bin/initdb): install the postgresql package";
        return false;
    }
    char pattern[] = "/tmp/pm-postgres-XXXXXX"; // below /tmp: the unprivileged user must reach it
    if (!mkdtemp(pattern)) {
        m_whyNot = "cannot make a temporary directory";
        return false;
    }
    m_dir = pattern;
    if (geteuid() == 0) {
        const passwd* nobody = getpwnam("nobody");
        if (!nobody || chown(m_dir.c_str(), nobody->pw_uid, nobody->pw_gid) != 0) {
            m_whyNot = "running as root and no user \"nobody\" to run the PostgreSQL server as";
            return false;
        }
        m_asUser = "/usr/bin/setpriv --reuid=" + std::to_string(nobody->pw_uid) +
                   " --regid=" + std::to_string(nobody->pw_gid) + " --clear-groups ";
    }
    if (RunTool("initdb", "-D " + m_dir + "/data -U postgres -A trust -E UTF8 --no-locale --no-sync", "initdb.log")
        != 0) {
        m_whyNot = "initdb failed: " + LogTail("initdb.log");
        return false;
    }
    for (int attempt = 0; attempt < 3; ++attempt) { // another program may take the port in between
        const int port = FreePort();
        const std::string options = "-p " + std::to_string(port) + " -k " + m_dir + " -h 127.0.0.1 -c fsync=off";
        if (RunTool("pg_ctl", "-D " + m_dir + "/data -l " + m_dir + "/server.log -w -t 60 -o '" + options + "' start",
                    "pg_ctl.log")
            == 0) {
            m_uri = "postgresql://postgres@127.0.0.1:" + std::to_string(port) + "/postgres";
            return true;
        }
    }
    m_whyNot = "the PostgreSQL server did not start: " + LogTail("server.log");
    return false;
}

int PostgresServer::RunTool(const std::string& tool, const std::string& args, const std::string& logName)
{
    // The paths are ours (no spaces or quotes), so the shell's word splitting is safe.
    const std::string command = "cd " + m_dir + " && " + m_asUser + m_bin + "/" + tool + " " + args + " >" + m_dir +
                                "/" + logName + " 2>&1 </dev/null";
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string PostgresServer::LogTail(const std::string& logName) const
{
    std::ifstream log(m_dir + "/" + logName);
    std::ostringstream text;
    text << log.rdbuf();
    std::string all = text.str();
    return all.size() > 600 ? all.substr(all.size() - 600) : all;
}
