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
 *   node:   kvx-eactl-ready PGID DIR
 *   ...     the agent serves on the stream until its input ends; its
 *           standard error goes to DIR/kvx_ea.stderr, which the script then
 *           copies to its own standard error before it removes DIR.  What
 *           the agent left running in the shell's process group (a
 *           background job) gets SIGTERM first: nothing runs from a removed
 *           directory.
 */
#include "eactl.h"
#include "eactl_spawn.h"

#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <limits.h>
#include <signal.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <wordexp.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const char kBootMarker[] = "kvx-eactl-boot 1 ";
const char kReadyMarker[] = "kvx-eactl-ready ";
const int  kMarkerLines = 200;     /* lines a login shell may print first */
const char kControlPersist[] = "60";   /* seconds a shared connection outlives its last call */

/* One line: the stream carries the script to a login shell of any kind.
 * The boot line names the node's architecture and the agents in its cache;
 * a file line is "SIZE NAME [HASH]" and the bytes (HASH: keep it in the
 * cache), or "= NAME HASH" for the cache's copy. */
const char kBootScript[] =
    "@CACHE@"
    "printf 'kvx-eactl-boot 1 %s%s\\n' \"$(uname -m)\" \"$h\"; "
    "read -r go && [ \"$go\" = deploy ] || exit 0; "
    "@TARGET@; "
    "ok=; while read -r n f x; do "
    "if [ \"$n\" = . ]; then ok=1; break; fi; "
    "if [ \"$n\" = = ]; then "
    "echo \"$x  $c/$x\" | sha256sum -c --status 2>/dev/null && cp \"$c/$x\" \"$d/$f\" || "
    "{ rm -f \"$c/$x\"; echo \"kvx-eactl: the cached agent $c/$x failed its check and was removed; run again\" >&2; break; }; "
    "else head -c \"$n\" >\"$d/$f\" || break; "
    /* the store into the cache runs beside the agent's start */
    "[ -z \"$x\" ] || [ -z \"$c\" ] || { { [ -d \"$c\" ] || mkdir -m 700 -p \"$c\"; } && [ -O \"$c\" ] && "
    "cp \"$d/$f\" \"$c/.$x.$$\" && mv -f \"$c/.$x.$$\" \"$c/$x\"; } 2>/dev/null & fi; "
    "[ -x \"$d/$f\" ] || chmod 755 \"$d/$f\" || break; done; "
    "if [ -z \"$ok\" ]; then echo \"kvx-eactl: the copy into $d stopped short\" >&2; @REMOVE@; exit 70; fi; "
    /* the process group of this shell, for an end through a second session */
    "g=0; read -r _ _ _ _ g _ </proc/$$/stat 2>/dev/null; trap : HUP; "
    "printf 'kvx-eactl-ready %s %s\\n' \"$g\" \"$d\"; "
    "sh -c '\"$0\" --targetworkdir \"$1\" 2>\"$2\"; exit $?' "
    "\"$d/boot/kvx_ea\" \"$d/work\" \"$d/kvx_ea.stderr\"; "
    "s=$?; wait; trap '' PIPE TERM; kill -TERM 0 2>/dev/null; head -c 65536 \"$d/kvx_ea.stderr\" >&2; @REMOVE@; exit $s";

/* The node's agent cache: a directory of its login account, mode 0700,
 * listed by hash; no cache when it is anyone else's. */
const char kCacheScript[] =
    "c=\"${XDG_CACHE_HOME:-$HOME/.cache}/kvx-eactl\"; h=; "
    "if ! command -v sha256sum >/dev/null 2>&1; then c=; "   /* nothing to check a copy with: no cache */
    "elif [ -d \"$c\" ] && [ ! -L \"$c\" ] && [ -O \"$c\" ] && chmod 700 \"$c\"; then "
    "for f in \"$c\"/[0-9a-f]*; do [ -f \"$f\" ] && h=\"$h ${f##*/}\"; done; "
    "elif [ -e \"$c\" ]; then c=; fi; ";

/* A fresh target in the first of /tmp, $TMPDIR, /var/tmp and $HOME where a
 * copied program can run (CIS-hardened nodes mount /tmp noexec): the probe
 * is a script in the agent's place, which the agent's copy then replaces. */
const char kFreshTarget[] =
    "d=; for b in /tmp \"$TMPDIR\" /var/tmp \"$HOME\"; do "
    "[ -n \"$b\" ] && [ -d \"$b\" ] || continue; "
    "d=$(mktemp -d \"$b/kvx-eactl.XXXXXX\" 2>/dev/null) || { d=; continue; }; "
    "mkdir -p \"$d/boot\" \"$d/work/linux-kvx-client\" && printf '#!/bin/sh\\n' >\"$d/boot/kvx_ea\" && "
    "chmod 755 \"$d\" \"$d/boot/kvx_ea\" && \"$d/boot/kvx_ea\" 2>/dev/null && break; rm -rf \"$d\"; d=; done; "
    "[ -n \"$d\" ] || { echo \"kvx-eactl: no directory where a program can run: /tmp, \\$TMPDIR, /var/tmp, \\$HOME\" >&2; exit 70; }";

/* --target DIR as it is, with the same probe and a message that names it. */
const char kGivenTarget[] =
    "d=@DIR@; mkdir -p \"$d/boot\" \"$d/work/linux-kvx-client\" && printf '#!/bin/sh\\n' >\"$d/boot/kvx_ea\" && "
    "chmod 755 \"$d/boot/kvx_ea\" && \"$d/boot/kvx_ea\" 2>/dev/null || "
    "{ echo \"kvx-eactl: $d cannot run programs (mounted noexec or read-only?)\" >&2; exit 70; }";

std::string sha256_of(const std::string& path);

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
    std::string target = s->target_dir.empty() ? kFreshTarget : kGivenTarget;
    replace_all(&target, "@DIR@", shell_quote(s->target_dir));
    /* The agent's last log lines may still be written while the first removal runs. */
    std::string remove = s->keep || !s->target_dir.empty()
                             ? ":"
                             : "{ rm -rf \"$d\" 2>/dev/null || { sleep 1; rm -rf \"$d\"; }; }";
    replace_all(&script, "@CACHE@", s->host.empty() ? "c=; h=; " : kCacheScript);
    replace_all(&script, "@TARGET@", target);
    replace_all(&script, "@REMOVE@", remove);
    return script;
}

/* The command that runs a command line on the node: sh here, or ssh's
 * remote shell. */
std::vector<std::string> node_command(const EactlSession* s, const std::string& line)
{
    if (s->host.empty())
        return {"/bin/sh", "-c", line};
    std::vector<std::string> args = s->ssh;
    if (args.empty())
        args.push_back("ssh");
    const char* base = strrchr(args[0].c_str(), '/');
    if (strcmp(base ? base + 1 : args[0].c_str(), "ssh") == 0) {
        /* Options given in --ssh come first and win over these. */
        std::vector<std::string> opts = {"-T", "-o", "BatchMode=yes", "-o",
                                         "ConnectTimeout=" + std::to_string(s->connect_timeout_s)};
        if (!s->control_dir.empty())
            opts.insert(opts.end(), {"-o", "ControlMaster=auto", "-o", "ControlPath=" + s->control_dir + "/%C",
                                     "-o", std::string("ControlPersist=") + kControlPersist});
        if (!s->port.empty())
            opts.insert(opts.end(), {"-p", s->port});
        if (!s->login.empty())
            opts.insert(opts.end(), {"-l", s->login});
        args.insert(args.end(), opts.begin(), opts.end());
    }
    args.push_back(s->host);
    args.push_back("sh -c " + shell_quote(line));
    return args;
}

std::vector<std::string> shell_args(const EactlSession* s)
{
    return node_command(s, boot_script(s));
}

/* After the grace period the local ssh is gone, but an agent stuck in a
 * command still runs on the node: a second session sends SIGHUP to the
 * node's process group (the agent's own signal to clean up; the shell
 * waits it out) and waits up to 5 s for the target's removal. */
void end_on_node(EactlSession* s)
{
    if (s->host.empty() || s->node_pgid <= 1 || s->target_dir.empty())
        return;
    std::string line = "kill -HUP -" + std::to_string(s->node_pgid) + " 2>/dev/null; i=0; "
                       "while [ -e " + shell_quote(s->target_dir) + " ] && [ $i -lt 50 ]; do sleep 0.1; i=$((i+1)); done";
    std::vector<std::string> args = node_command(s, line);
    args.insert(args.begin(), {"timeout", "-s", "KILL", std::to_string(s->connect_timeout_s + 10)});
    eactl_reap(eactl_spawn(args, EACTL_DEVNULL, EACTL_DEVNULL, s->err_fd >= 0 ? s->err_fd : EACTL_KEEP));
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
    /* a read-only /tmp: memory instead, or the shell's messages reach the terminal */
    return fd >= 0 ? fd : memfd_create("kvx-eactl-stderr", MFD_CLOEXEC);
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
int send_file(EactlSession* s, const std::string& local, std::string name)
{
    int fd = open(local.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0) {
        eactl_error(s, "cannot read %s: %s", local.c_str(), strerror(errno));
        if (fd >= 0)
            close(fd);
        return -1;
    }
    while (!name.empty() && name.back() == ' ')
        name.pop_back();
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

/* Sends the agent, or names the node's cached copy, and the other files. */
int send_files(EactlSession* s, const std::vector<std::string>& cached)
{
    fputs("deploy\n", s->to_agent);
    std::string hash = s->host.empty() ? "" : eactl_file_hash(s->agent_path);
    bool in_cache = false;
    for (const std::string& h : cached)
        in_cache = in_cache || (!hash.empty() && h == hash);
    if (in_cache)
        fprintf(s->to_agent, "= boot/kvx_ea %s\n", hash.c_str());
    else if (send_file(s, s->agent_path, "boot/kvx_ea " + hash) != 0)
        return -1;
    s->agent_hash = in_cache ? hash : "";
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
    if (eactl_interrupted())
        reason += ": interrupted";
    else if (eactl_timed_out())
        reason += ": no answer within " + std::to_string(s->host.empty() ? s->timeout_s : s->connect_timeout_s) + " s";
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
    /* the shell's own word expansion: quotes, ~ and $VAR, but no $(command) */
    wordexp_t we;
    std::vector<std::string> words;
    if (wordexp(text.c_str(), &we, WRDE_NOCMD) != 0)
        return words;
    for (size_t k = 0; k < we.we_wordc; k++)
        words.push_back(we.we_wordv[k]);
    wordfree(&we);
    return words;
}

std::string eactl_file_hash(const std::string& path)
{
    /* A file's hash is kept in the private control directory under its
     * device, inode, size and time of change: one sha256sum per build. */
    struct stat st;
    std::string dir = eactl_control_dir(), memo;
    if (!dir.empty() && stat(path.c_str(), &st) == 0) {
        char name[160];
        snprintf(name, sizeof(name), "/hash-%llx-%llx-%llx-%lld.%ld", (unsigned long long)st.st_dev,
                 (unsigned long long)st.st_ino, (unsigned long long)st.st_size,
                 (long long)st.st_ctim.tv_sec, (long)st.st_ctim.tv_nsec);
        memo = dir + name;
        FILE* f = fopen(memo.c_str(), "r");
        char text[80] = "";
        if (f) {
            bool whole = fgets(text, sizeof(text), f) && strlen(text) == 64;
            fclose(f);
            if (whole && strspn(text, "0123456789abcdef") == 64)
                return text;
        }
    }
    std::string out = sha256_of(path);
    if (!memo.empty() && out.size() == 64) {
        std::string tmp = memo + ".tmp" + std::to_string(getpid());
        FILE* f = fopen(tmp.c_str(), "w");
        if (f && fputs(out.c_str(), f) >= 0 && fclose(f) == 0)
            rename(tmp.c_str(), memo.c_str());
        else if (f)
            fclose(f);
        unlink(tmp.c_str());
    }
    return out;
}

namespace {

/* sha256sum's hash of a file in hex, "" when it fails. */
std::string sha256_of(const std::string& path)
{
    std::string out;
    if (!eactl_capture({"sha256sum", "--", path}, &out))
        return "";
    out = out.substr(0, out.find(' '));
    return out.size() == 64 ? out : "";
}

} /* namespace */

std::string eactl_control_dir()
{
    const char* run = getenv("KVX_EACTL_CONTROL_DIR");
    std::string dir;
    if (run && *run) {
        dir = run;
    } else {
        run = getenv("XDG_RUNTIME_DIR");
        dir = run && *run ? std::string(run) + "/kvx-eactl"
                          : "/tmp/kvx-eactl-" + std::to_string(getuid());
    }
    mkdir(dir.c_str(), 0700);
    /* Sockets of another account, or a directory others can enter, are not used. */
    struct stat st;
    if (lstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != getuid() ||
        (st.st_mode & 077) != 0)
        return "";
    /* ssh refuses a control path longer than a socket address holds */
    return dir.size() + 42 < sizeof(((struct sockaddr_un*)0)->sun_path) ? dir : "";
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
    if (eactl_interrupted())
        return EACTL_FAILED;
    s->err_fd = capture_fd();
    if (eactl_start(s, shell_args(s), true) != 0)
        return EACTL_FAILED;
    std::string boot;
    if (!read_marker(s, kBootMarker, &boot)) {
        s->reason = s->host.empty() ? "the local shell did not start" : "unreachable";
        return give_up(s, s->host.empty() ? EACTL_FAILED : EACTL_UNREACHABLE, s->reason.c_str());
    }
    std::vector<std::string> cached;
    for (size_t at = 0, end; at < boot.size(); at = end + 1) {
        end = boot.find(' ', at);
        end = end == std::string::npos ? boot.size() : end;
        (at == 0 ? s->machine : (cached.push_back(""), cached.back())) = boot.substr(at, end - at);
    }
    if (s->agent_path.empty() && pick_agent(s) != 0) {
        s->reason = "no agent for " + s->machine;
        return give_up(s, EACTL_FAILED, "nothing deployed");
    }
    std::string ready;
    if (send_files(s, cached) != 0 || !read_marker(s, kReadyMarker, &ready) ||
        ready.find(' ') == std::string::npos) {
        s->reason = "cannot install the agent";
        return give_up(s, EACTL_FAILED, s->reason.c_str());
    }
    s->node_pgid = atoi(ready.c_str());
    s->target_dir = ready.substr(ready.find(' ') + 1);
    s->work_dir = s->target_dir + "/work";
    if (s->own_dir && s->target_dir.compare(0, 5, "/tmp/") != 0)
        eactl_error(s, "/tmp cannot run programs: deployed in %s", s->target_dir.c_str());
    if (s->verbose)
        eactl_error(s, "%s (%s) deployed in %s%s", s->agent_path.c_str(), s->machine.c_str(),
                    s->target_dir.c_str(), s->agent_hash.empty() ? "" : " from the node's cache");
    return EACTL_OK;
}

int eactl_start(EactlSession* s, std::vector<std::string> args, bool new_session)
{
    int to[2] = {-1, -1}, from[2] = {-1, -1};
    pid_t pid = -1;
    if (pipe2(to, O_CLOEXEC) != 0 || pipe2(from, O_CLOEXEC) != 0 ||
        (pid = eactl_spawn(args, to[0], from[1], s->err_fd >= 0 ? s->err_fd : EACTL_KEEP, new_session, true)) < 0) {
        fprintf(stderr, "kvx-eactl: %s: %s\n", to[0] < 0 || from[0] < 0 ? "pipe" : "fork",
                strerror(errno));
        for (int fd : {to[0], to[1], from[0], from[1]})
            if (fd >= 0)
                close(fd);
        return -1;
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
    eactl_unwatch_shell();   /* its pipes are closed below */
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
        int st = eactl_wait_shell(s->shell_pid);
        if (eactl_killed())
            end_on_node(s);
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
