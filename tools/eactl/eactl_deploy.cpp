/*
 * eactl_deploy.cpp - puts kvx_ea on the node and starts it as the backup
 * server does: a copy in a fresh target directory, started with
 * --targetworkdir under a shell of its own (a local sh, or the remote shell
 * of ssh), so that the agent's cleanup (which deletes its own file and kills
 * its parent) never reaches this client.
 */
#include "eactl.h"

#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

int remove_entry(const char* path, const struct stat*, int, struct FTW*)
{
    remove(path);
    return 0;
}

/* Quotes text for a POSIX shell command line. */
std::string shell_quote(const std::string& text)
{
    std::string out = "'";
    for (char c : text) {
        if (c == '\'')
            out += "'\\''";
        else
            out += c;
    }
    return out + "'";
}

/* Runs argv with stdin from in_path (or /dev/null) and returns its stdout;
 * status gets the exit status, -1 when it could not run. */
std::string run_capture(const std::vector<std::string>& args, const char* in_path, int* status)
{
    *status = -1;
    int out[2];
    if (pipe(out) != 0)
        return "";
    pid_t pid = fork();
    if (pid < 0) {
        close(out[0]);
        close(out[1]);
        return "";
    }
    if (pid == 0) {
        int in = open(in_path ? in_path : "/dev/null", O_RDONLY);
        if (in < 0)
            _exit(126);
        dup2(in, 0);
        dup2(out[1], 1);
        close(out[0]);
        close(out[1]);
        std::vector<char*> argv;
        for (const std::string& a : args)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    close(out[1]);
    std::string text;
    char buf[512];
    ssize_t n;
    while ((n = read(out[0], buf, sizeof(buf))) > 0 || (n < 0 && errno == EINTR))
        if (n > 0)
            text.append(buf, (size_t)n);
    close(out[0]);
    int st = 0;
    while (waitpid(pid, &st, 0) < 0 && errno == EINTR)
        ;
    *status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return text;
}

std::vector<std::string> ssh_argv(const EactlSession* s, const std::string& remote_cmd)
{
    return {"ssh", "-o", "BatchMode=yes", s->host, remote_cmd};
}

bool copy_local(const char* from, const std::string& to)
{
    int in = open(from, O_RDONLY);
    if (in < 0)
        return false;
    int out = open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0755);
    bool ok = out >= 0;
    char buf[65536];
    ssize_t n;
    while (ok && (n = read(in, buf, sizeof(buf))) > 0)
        ok = write(out, buf, (size_t)n) == n;
    close(in);
    if (out >= 0)
        close(out);
    return ok && chmod(to.c_str(), 0755) == 0;
}

int make_local_target(EactlSession* s)
{
    if (s->target_dir.empty()) {
        char tmpl[] = "/tmp/kvx-eactl.XXXXXX";
        if (!mkdtemp(tmpl)) {
            fprintf(stderr, "kvx-eactl: mkdtemp: %s\n", strerror(errno));
            return -1;
        }
        chmod(tmpl, 0755);
        s->target_dir = tmpl;
        s->own_dir = true;
    }
    std::string boot = s->target_dir + "/boot";
    s->work_dir = s->target_dir + "/work";
    mkdir(s->target_dir.c_str(), 0755);
    mkdir(boot.c_str(), 0755);
    mkdir(s->work_dir.c_str(), 0755);
    mkdir((s->work_dir + "/linux-kvx-client").c_str(), 0755);
    if (!copy_local(s->agent_path.c_str(), boot + "/kvx_ea")) {
        fprintf(stderr, "kvx-eactl: cannot copy %s to %s: %s\n", s->agent_path.c_str(),
                boot.c_str(), strerror(errno));
        return -1;
    }
    return 0;
}

int make_remote_target(EactlSession* s)
{
    std::string dir = s->target_dir.empty() ? "$(mktemp -d /tmp/kvx-eactl.XXXXXX)"
                                            : shell_quote(s->target_dir);
    std::string cmd = "set -e; d=" + dir + "; mkdir -p \"$d/boot\" \"$d/work/linux-kvx-client\"; "
                      "cat > \"$d/boot/kvx_ea\"; chmod 755 \"$d/boot/kvx_ea\"; echo \"$d\"";
    int status;
    std::string out = run_capture(ssh_argv(s, cmd), s->agent_path.c_str(), &status);
    if (status != 0) {
        fprintf(stderr, "kvx-eactl: cannot deploy the agent to %s (ssh status %d)\n",
                s->host.c_str(), status);
        return -1;
    }
    out.erase(out.find_last_not_of("\r\n") + 1);
    s->own_dir = s->target_dir.empty();
    s->target_dir = out;
    s->work_dir = out + "/work";
    return 0;
}

/* Directory of this program (build/bin), "." when it cannot be read. */
std::string own_bin_dir()
{
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (n <= 0)
        return ".";
    self[n] = '\0';
    char* slash = strrchr(self, '/');
    if (slash)
        *slash = '\0';
    return self;
}

/* Agent file name for a "uname -m" answer, NULL when none is built for it. */
const char* agent_for_machine(const std::string& machine)
{
    if (machine == "x86_64")
        return "kvx_ea";
    if (machine.size() == 4 && machine[0] == 'i' && machine.compare(2, 2, "86") == 0 &&
        machine[1] >= '3' && machine[1] <= '6')
        return "kvx_ea-i386";
    return NULL;
}

/* Without --agent: asks the node for "uname -m" (over ssh for a remote node)
 * and takes the matching agent from this program's directory; 0 or -1 with
 * a message on stderr. */
int select_agent(EactlSession* s)
{
    std::vector<std::string> args = {"uname", "-m"};
    if (!s->host.empty())
        args = ssh_argv(s, "uname -m");
    int status;
    std::string machine = run_capture(args, NULL, &status);
    machine.erase(machine.find_last_not_of(" \r\n") + 1);
    if (status != 0 || machine.empty()) {
        fprintf(stderr, "kvx-eactl: cannot ask %s for its architecture (uname -m status %d)\n",
                s->host.empty() ? "this machine" : s->host.c_str(), status);
        return -1;
    }
    const char* name = agent_for_machine(machine);
    if (!name) {
        fprintf(stderr, "kvx-eactl: no agent for architecture %s; give one with --agent PATH\n",
                machine.c_str());
        return -1;
    }
    s->agent_path = own_bin_dir() + "/" + name;
    if (access(s->agent_path.c_str(), R_OK) != 0) {
        fprintf(stderr, "kvx-eactl: the %s node needs %s, which is missing%s\n", machine.c_str(),
                s->agent_path.c_str(),
                strcmp(name, "kvx_ea-i386") == 0 ? " (scripts/portable.sh builds it)" : "");
        return -1;
    }
    return 0;
}

} /* namespace */

/* An empty agent_path means no --agent was given: the agent that matches the
 * node's architecture is picked first (select_agent). */
int eactl_deploy(EactlSession* s)
{
    if (s->agent_path.empty() && select_agent(s) != 0)
        return -1;
    if (access(s->agent_path.c_str(), R_OK) != 0) {
        fprintf(stderr, "kvx-eactl: agent %s: %s\n", s->agent_path.c_str(), strerror(errno));
        return -1;
    }
    if ((s->host.empty() ? make_local_target(s) : make_remote_target(s)) != 0)
        return -1;

    std::string agent = s->target_dir + "/boot/kvx_ea";
    std::vector<std::string> args;
    if (s->host.empty()) {
        /* The shell stays the agent's parent: "; exit $?" keeps it from exec'ing. */
        args = {"/bin/sh", "-c", "\"$0\" --targetworkdir \"$1\"; exit $?", agent, s->work_dir};
    } else {
        args = ssh_argv(s, shell_quote(agent) + " --targetworkdir " + shell_quote(s->work_dir));
    }

    return eactl_start(s, args, true);
}

int eactl_start(EactlSession* s, std::vector<std::string> args, bool new_session)
{
    int to[2] = {-1, -1}, from[2] = {-1, -1};
    pid_t pid = -1;
    if (pipe(to) != 0 || pipe(from) != 0 || (pid = fork()) < 0) {
        fprintf(stderr, "kvx-eactl: %s: %s\n", to[0] < 0 || from[0] < 0 ? "pipe" : "fork",
                strerror(errno));
        for (int fd : {to[0], to[1], from[0], from[1]})
            if (fd >= 0)
                close(fd);
        return -1;
    }
    if (pid == 0) {
        dup2(to[0], 0);
        dup2(from[1], 1);
        close(to[0]);
        close(to[1]);
        close(from[0]);
        close(from[1]);
        if (new_session)
            setsid();
        std::vector<char*> argv;
        for (std::string& a : args)
            argv.push_back(&a[0]);
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    close(to[0]);
    close(from[1]);
    signal(SIGPIPE, SIG_IGN);
    s->shell_pid = pid;
    s->to_agent = fdopen(to[1], "w");
    s->from_agent = fdopen(from[0], "r");
    s->channel = new STDIOChannel(s->from_agent, s->to_agent);
    s->proto = new ExecProto(s->channel);
    return 0;
}

int eactl_install_client_file(EactlSession* s, const char* local, const char* name)
{
    std::string to = s->work_dir + "/linux-kvx-client/" + name;
    if (s->host.empty())
        return copy_local(local, to) ? 0 : -1;
    int status;
    run_capture(ssh_argv(s, "cat > " + shell_quote(to) + " && chmod 755 " + shell_quote(to)),
                local, &status);
    return status == 0 ? 0 : -1;
}

int eactl_finish(EactlSession* s)
{
    int status = -1;
    delete s->proto;
    delete s->channel;
    s->proto = nullptr;
    s->channel = nullptr;
    if (s->to_agent)
        fclose(s->to_agent);   /* end of input: the agent stops */
    if (s->from_agent)
        fclose(s->from_agent);
    s->to_agent = s->from_agent = nullptr;
    if (s->shell_pid > 0) {
        int st = 0;
        while (waitpid(s->shell_pid, &st, 0) < 0 && errno == EINTR)
            ;
        status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    }
    if (s->keep || !s->own_dir) {
        if (s->keep)
            fprintf(stderr, "kvx-eactl: target directory kept: %s%s%s\n", s->host.c_str(),
                    s->host.empty() ? "" : ":", s->target_dir.c_str());
        return status;
    }
    if (s->host.empty()) {
        /* FTW_MOUNT: never descend into a file system mounted below the target. */
        nftw(s->target_dir.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS | FTW_MOUNT);
    } else {
        int rm_status;
        run_capture(ssh_argv(s, "rm -rf " + shell_quote(s->target_dir)), NULL, &rm_status);
    }
    return status;
}
