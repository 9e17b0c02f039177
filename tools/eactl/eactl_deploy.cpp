/*
 * eactl_deploy.cpp - puts kvx_ea on the node and starts it as the backup
 * server does: a copy in a fresh target directory, started with
 * --targetworkdir under a shell of its own, so that the agent's cleanup
 * (which deletes its own file and kills its parent) never reaches this
 * client.
 *
 * Everything goes through one shell, a local sh or the remote shell of one
 * ssh connection, running the bootstrap script below on the same stream that
 * then carries the protocol:
 *
 *   node:   kvx-eactl-boot 1 MACHINE           ("uname -m")
 *   client: deploy
 *           SIZE boot/kvx_ea  + SIZE bytes      (the agent for MACHINE)
 *           SIZE NAME         + SIZE bytes      (more files, e.g. the simulator)
 *           .
 *   node:   kvx-eactl-ready DIR
 *   ...     the agent serves on the stream until its input ends; its
 *           standard error goes to DIR/kvx_ea.stderr, which the script then
 *           copies to its own standard error before it removes DIR.
 */
#include "eactl.h"

#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <limits.h>
#include <signal.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const char kBootMarker[] = "kvx-eactl-boot 1 ";
const char kReadyMarker[] = "kvx-eactl-ready ";
const int  kMarkerLines = 200;     /* lines a login shell may print first */
const int  kConnectTimeout = 15;   /* ssh's own limit for connecting, seconds */

/* One line: the stream carries the script to a login shell of any kind. */
const char kBootScript[] =
    "printf 'kvx-eactl-boot 1 %s\\n' \"$(uname -m)\"; "
    "read -r go && [ \"$go\" = deploy ] || exit 0; "
    "@TARGET@; "
    "[ -n \"$d\" ] && mkdir -p \"$d/boot\" \"$d/work/linux-kvx-client\" || exit 70; "
    "ok=; while read -r n f; do "
    "if [ \"$n\" = . ]; then ok=1; break; fi; "
    "head -c \"$n\" >\"$d/$f\" && chmod 755 \"$d/$f\" || break; done; "
    "if [ -z \"$ok\" ]; then echo \"kvx-eactl: the copy into $d stopped short\" >&2; @REMOVE@; exit 70; fi; "
    "printf 'kvx-eactl-ready %s\\n' \"$d\"; "
    "sh -c '\"$0\" --targetworkdir \"$1\" 2>\"$2\"; exit $?' "
    "\"$d/boot/kvx_ea\" \"$d/work\" \"$d/kvx_ea.stderr\"; "
    "s=$?; trap '' PIPE; head -c 65536 \"$d/kvx_ea.stderr\" >&2; @REMOVE@; exit $s";

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

void replace_all(std::string* text, const std::string& what, const std::string& with)
{
    for (size_t at = text->find(what); at != std::string::npos; at = text->find(what, at + with.size()))
        text->replace(at, what.size(), with);
}

std::string boot_script(const EactlSession* s)
{
    std::string script = kBootScript;
    std::string target = s->target_dir.empty()
                             ? "d=$(mktemp -d /tmp/kvx-eactl.XXXXXX) && chmod 755 \"$d\""
                             : "d=" + shell_quote(s->target_dir);
    /* The agent's last log lines may still be written while the first removal runs. */
    std::string remove = s->keep || !s->target_dir.empty()
                             ? ":"
                             : "{ rm -rf \"$d\" 2>/dev/null || { sleep 1; rm -rf \"$d\"; }; }";
    replace_all(&script, "@TARGET@", target);
    replace_all(&script, "@REMOVE@", remove);
    return script;
}

/* The command that runs the script: sh here, or ssh's remote shell. */
std::vector<std::string> shell_args(const EactlSession* s)
{
    std::string script = boot_script(s);
    if (s->host.empty())
        return {"/bin/sh", "-c", script};
    std::vector<std::string> args = s->ssh;
    if (args.empty())
        args.push_back("ssh");
    const char* base = strrchr(args[0].c_str(), '/');
    if (strcmp(base ? base + 1 : args[0].c_str(), "ssh") == 0) {
        /* Options given in --ssh come first and win over these. */
        std::vector<std::string> opts = {"-T", "-o", "BatchMode=yes"};
        if (s->timeout_s == 0 || s->timeout_s > kConnectTimeout)
            opts.insert(opts.end(), {"-o", "ConnectTimeout=" + std::to_string(kConnectTimeout)});
        args.insert(args.end(), opts.begin(), opts.end());
    }
    args.push_back(s->host);
    args.push_back("sh -c " + shell_quote(script));
    return args;
}

/* A file that holds the shell's standard error, gone from the file system. */
int capture_fd()
{
    int fd = open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (fd >= 0)
        return fd;
    char tmpl[] = "/tmp/kvx-eactl-err.XXXXXX";
    fd = mkostemp(tmpl, O_CLOEXEC);
    if (fd >= 0)
        unlink(tmpl);
    return fd;
}

std::string read_capture(int fd)
{
    std::string text;
    char buf[4096];
    ssize_t n;
    off_t at = 0;
    while ((n = pread(fd, buf, sizeof(buf), at)) > 0) {
        text.append(buf, (size_t)n);
        at += n;
    }
    return text;
}

/* Reads lines until one starts with marker; its rest (without the line end)
 * goes to value.  false at end of input. */
bool read_marker(EactlSession* s, const char* marker, std::string* value)
{
    char line[PATH_MAX + 64];
    size_t len = strlen(marker);
    for (int k = 0; k < kMarkerLines && fgets(line, sizeof(line), s->from_agent); k++) {
        if (strncmp(line, marker, len) == 0) {
            line[strcspn(line, "\r\n")] = '\0';
            *value = line + len;
            return !value->empty();
        }
    }
    return false;
}

/* Sends one file as "SIZE NAME\n" and its bytes; 0 or -1. */
int send_file(EactlSession* s, const std::string& local, const std::string& name)
{
    int fd = open(local.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0) {
        eactl_error(s, "cannot read %s: %s", local.c_str(), strerror(errno));
        if (fd >= 0)
            close(fd);
        return -1;
    }
    fprintf(s->to_agent, "%lld %s\n", (long long)st.st_size, name.c_str());
    char buf[65536];
    long long left = st.st_size;
    ssize_t n;
    while (left > 0 && (n = read(fd, buf, sizeof(buf))) > 0) {
        n = n > left ? (ssize_t)left : n;
        if (fwrite(buf, 1, (size_t)n, s->to_agent) != (size_t)n)
            break;
        left -= n;
    }
    close(fd);
    return left == 0 ? 0 : -1;
}

int send_files(EactlSession* s)
{
    fputs("deploy\n", s->to_agent);
    if (send_file(s, s->agent_path, "boot/kvx_ea") != 0)
        return -1;
    for (const EactlFile& f : s->files)
        if (send_file(s, f.local, f.name) != 0)
            return -1;
    fputs(".\n", s->to_agent);
    return fflush(s->to_agent) == 0 && !ferror(s->to_agent) ? 0 : -1;
}

/* Directory of this program, "." when it cannot be read. */
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

int pick_agent(EactlSession* s)
{
    std::vector<std::string> names = eactl_agents_for(s->machine, !s->host.empty());
    if (names.empty()) {
        eactl_error(s, "no agent for architecture %s; give one with --agent PATH", s->machine.c_str());
        return -1;
    }
    for (const std::string& name : names) {
        s->agent_path = eactl_find_program(name.c_str());
        if (!s->agent_path.empty())
            return 0;
    }
    eactl_error(s, "the %s node needs %s, which is neither in %s nor in %s/../lib/kvx-ea%s",
                s->machine.c_str(), names[0].c_str(), own_bin_dir().c_str(), own_bin_dir().c_str(),
                names[0] == "kvx_ea-i386" ? " (scripts/portable.sh builds it)" : "");
    return -1;
}

/* Ends a deployment that did not get as far as a serving agent. */
int give_up(EactlSession* s, int result, const char* what)
{
    s->failed = true;
    std::string reason = what;
    if (eactl_timed_out())
        reason += ": no answer within " + std::to_string(s->timeout_s) + " s";
    eactl_error(s, "%s", reason.c_str());
    eactl_finish(s);
    return result;
}

} /* namespace */

void eactl_error(const EactlSession* s, const char* fmt, ...)
{
    char text[2048];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof(text), fmt, ap);
    va_end(ap);
    fprintf(stderr, "kvx-eactl: %s: %s\n", s->node.c_str(), text);
}

std::string eactl_find_program(const char* name)
{
    std::string dir = own_bin_dir();
    for (const std::string& path : {dir + "/" + name, dir + "/../lib/kvx-ea/" + name})
        if (access(path.c_str(), R_OK) == 0)
            return path;
    return "";
}

std::vector<std::string> eactl_agents_for(const std::string& machine, bool remote)
{
    if (machine == "x86_64")
        return remote ? std::vector<std::string>{"kvx_ea-static"}
                      : std::vector<std::string>{"kvx_ea", "kvx_ea-static"};
    if (machine.size() == 4 && machine[0] == 'i' && machine.compare(2, 2, "86") == 0 &&
        machine[1] >= '3' && machine[1] <= '6')
        return {"kvx_ea-i386"};
    /* the other CPUs of scripts/arches.txt ("arm64" where a kernel says so) */
    static const struct { const char* machine; const char* agent; } kOther[] = {
        {"aarch64", "kvx_ea-aarch64"}, {"arm64", "kvx_ea-aarch64"},
        {"ppc64le", "kvx_ea-ppc64le"}, {"s390x", "kvx_ea-s390x"},
    };
    for (const auto& o : kOther)
        if (machine == o.machine)
            return {o.agent};
    return {};
}

std::vector<std::string> eactl_split_command(const std::string& text)
{
    std::vector<std::string> words;
    std::string word;
    bool in_word = false;
    char quote = 0;
    for (char c : text) {
        if (quote) {
            if (c == quote)
                quote = 0;
            else
                word += c;
        } else if (c == '\'' || c == '"') {
            quote = c;
            in_word = true;
        } else if (c == ' ' || c == '\t' || c == '\n') {
            if (in_word)
                words.push_back(word);
            word.clear();
            in_word = false;
        } else {
            word += c;
            in_word = true;
        }
    }
    if (quote)
        return {};
    if (in_word)
        words.push_back(word);
    return words;
}

int eactl_deploy(EactlSession* s)
{
    if (s->node.empty())
        s->node = s->host.empty() ? "localhost" : s->host;
    s->own_dir = s->target_dir.empty();
    if (!s->agent_path.empty() && access(s->agent_path.c_str(), R_OK) != 0) {
        eactl_error(s, "agent %s: %s", s->agent_path.c_str(), strerror(errno));
        return EACTL_FAILED;
    }
    s->err_fd = capture_fd();
    if (eactl_start(s, shell_args(s), true) != 0)
        return EACTL_FAILED;
    if (!read_marker(s, kBootMarker, &s->machine))
        return give_up(s, s->host.empty() ? EACTL_FAILED : EACTL_UNREACHABLE,
                       s->host.empty() ? "the local shell did not start" : "unreachable");
    if (s->agent_path.empty() && pick_agent(s) != 0)
        return give_up(s, EACTL_FAILED, "nothing deployed");
    if (send_files(s) != 0 || !read_marker(s, kReadyMarker, &s->target_dir))
        return give_up(s, EACTL_FAILED, "cannot install the agent");
    s->work_dir = s->target_dir + "/work";
    if (s->verbose)
        eactl_error(s, "%s (%s) deployed in %s", s->agent_path.c_str(), s->machine.c_str(),
                    s->target_dir.c_str());
    return EACTL_OK;
}

int eactl_start(EactlSession* s, std::vector<std::string> args, bool new_session)
{
    int to[2] = {-1, -1}, from[2] = {-1, -1};
    pid_t pid = -1;
    if (pipe2(to, O_CLOEXEC) != 0 || pipe2(from, O_CLOEXEC) != 0 || (pid = fork()) < 0) {
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
        if (s->err_fd >= 0)
            dup2(s->err_fd, 2);
        if (new_session)
            setsid();
        std::vector<char*> argv;
        for (std::string& a : args)
            argv.push_back(&a[0]);
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        fprintf(stderr, "kvx-eactl: cannot run %s: %s\n", argv[0], strerror(errno));
        _exit(127);
    }
    close(to[0]);
    close(from[1]);
    signal(SIGPIPE, SIG_IGN);
    s->shell_pid = pid;
    s->to_agent = fdopen(to[1], "w");
    s->from_agent = fdopen(from[0], "r");
    eactl_watch_shell(pid, from[0], to[1]);
    s->channel = new STDIOChannel(s->from_agent, s->to_agent);
    s->proto = new ExecProto(s->channel);
    return 0;
}

int eactl_finish(EactlSession* s)
{
    int status = -1;
    eactl_unwatch_shell();
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
        s->shell_pid = -1;
    }
    if (s->err_fd >= 0) {
        std::string text = read_capture(s->err_fd);
        close(s->err_fd);
        s->err_fd = -1;
        if (s->verbose || s->failed || status != 0) {
            for (size_t at = 0, nl; at < text.size(); at = nl + 1) {
                nl = text.find('\n', at);
                nl = nl == std::string::npos ? text.size() : nl;
                eactl_error(s, "stderr: %s", text.substr(at, nl - at).c_str());
            }
        }
    }
    /* A shell killed at the time-out could not remove a local target itself. */
    if (eactl_timed_out() && s->host.empty() && s->own_dir && !s->keep && !s->target_dir.empty())
        nftw(s->target_dir.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS | FTW_MOUNT);
    if (s->keep && !s->target_dir.empty())
        eactl_error(s, "target directory kept: %s", s->target_dir.c_str());
    return status;
}
