/*
 * sshd_sandbox.h - a private OpenSSH server on 127.0.0.1 for the client's
 * tests and benchmarks: its own host and user keys, configuration, port and
 * log in a temporary directory, key authentication only, and a client
 * configuration to pass as "ssh -F FILE".  Nothing in ~/.ssh is read or
 * written; a login's HOME is DIR/home (the account's shell start-up files
 * are not read) and its XDG_CACHE_HOME DIR/cache.
 */
#ifndef SSHD_SANDBOX_H
#define SSHD_SANDBOX_H

#include <sys/types.h>
#include <string>
#include <vector>

typedef struct SshdSandbox {
    std::string dir;            /* keys, configurations and sshd.log */
    std::string client_config;  /* for "ssh -F" */
    int   port = -1;            /* where sshd listens */
    int   dead_fd = -1;         /* a bound socket that never listens */
    pid_t pid = -1;             /* sshd -D */
} SshdSandbox;

/* Starts sshd.  The client configuration names each of aliases as this
 * server, on an address of its own (127.0.0.1, 127.0.0.2, ...), "unreachable" as a port of 127.0.0.1 that refuses connections and
 * "silent" as a server that never answers.  sshd is ended when this process
 * dies.  true, or false with the reason in *error (everything undone). */
bool sshd_sandbox_start(SshdSandbox* sb, const std::vector<std::string>& aliases,
                        std::string* error);
/* Stops sshd and removes the directory; safe to call twice. */
void sshd_sandbox_stop(SshdSandbox* sb);

/* A file's whole text, "" when it cannot be read. */
std::string sshd_sandbox_read(const std::string& path);
/* Runs args (args[0] looked up in PATH) with /dev/null for its standard
 * input, output and error; its exit status, -1 when it did not exit. */
int  sshd_sandbox_run(std::vector<std::string> args);

#endif /* SSHD_SANDBOX_H */
