#pragma once
// A PostgreSQL server of the test's own: Debian's server programs
// (/usr/lib/postgresql/<version>/bin), a data and a socket directory in a new
// temporary directory, a free port on 127.0.0.1. The server refuses to run as
// root, so a root test runs it as "nobody". Stopped and removed with the object.
// When it cannot run, Running() is false and WhyNot() says why (the test skips).

#include <string>

class PostgresServer {
public:
    PostgresServer();
    ~PostgresServer();
    PostgresServer(const PostgresServer&) = delete;
    PostgresServer& operator=(const PostgresServer&) = delete;

    bool Running() const { return m_running; }
    const std::string& WhyNot() const { return m_whyNot; }
    /// "postgresql://postgres@127.0.0.1:<port>/postgres"
    const std::string& Uri() const { return m_uri; }

private:
    bool Start();
    /// Runs a server program (as the unprivileged user when we are root); its exit status.
    int RunTool(const std::string& tool, const std::string& args, const std::string& logName);
    std::string LogTail(const std::string& logName) const;

    std::string m_bin, m_dir, m_uri, m_whyNot;
    std::string m_asUser; ///< "" or the setpriv words that switch to the unprivileged user
    bool m_running = false;
};
