/*
 * agent_harness.cpp - stages and runs kvx_ea under a disposable parent.
 *
 * Process tree:  test (child subreaper) -> parent P (own session) -> agent A.
 * P reports A's pid and, when A ends, A's wait status over a pipe.  When A's
 * cleanup kills P, A is re-parented to the test, which then reaps A itself.
 */
#include "agent_harness.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <mntent.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <thread>

namespace {

namespace fs = std::filesystem;

void copy_program(const std::string& from, const std::string& to)
{
    std::error_code ec;
    fs::copy_file(from, to, fs::copy_options::overwrite_existing, ec);
    chmod(to.c_str(), 0755);
}

/* Reads exactly n bytes within timeout_ms; false on time-out or end of file. */
bool read_exact(int fd, void* buf, size_t n, int timeout_ms)
{
    char* p = (char*)buf;
    size_t got = 0;
    while (got < n) {
        struct pollfd pfd = {fd, POLLIN, 0};
        int rc = poll(&pfd, 1, timeout_ms);
        if (rc < 0 && errno == EINTR)
            continue;
        if (rc <= 0)
            return false;
        ssize_t r = read(fd, p + got, n - got);
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            return false;
        got += (size_t)r;
    }
    return true;
}

int decode_status(int st)
{
    return WIFEXITED(st) ? WEXITSTATUS(st) : WIFSIGNALED(st) ? 128 + WTERMSIG(st) : st;
}

/* $name when set and not empty, else fallback. */
std::string env_or(const char* name, const std::string& fallback)
{
    const char* v = getenv(name);
    return v && *v ? v : fallback;
}

/* The user-mode emulator that runs an agent of another CPU (and its
 * simulated backup program), e.g. /usr/bin/qemu-s390x-static; empty when
 * they run natively. */
std::string emulator()
{
    return env_or("KVX_EA_EMULATOR", "");
}

/* Mount points at or below dir, deepest first (a mount is listed after the one it lies on). */
std::vector<std::string> mounts_below(const std::string& dir)
{
    std::vector<std::string> found;
    FILE* table = setmntent("/proc/self/mounts", "r");
    for (struct mntent* m; table && (m = getmntent(table)) != nullptr;)
        if ((m->mnt_dir + std::string("/")).compare(0, dir.size() + 1, dir + "/") == 0)
            found.insert(found.begin(), m->mnt_dir);
    if (table)
        endmntent(table);
    return found;
}

/* In the agent's child before exec: private mount and IPC namespaces, and a
 * copy-on-write layer over /var/lib kept in layer_dir. */
void enter_private_node(const std::string& layer_dir)
{
    if (unshare(CLONE_NEWNS | CLONE_NEWIPC) != 0)
        return;
    if (mount(NULL, "/", NULL, MS_REC | MS_PRIVATE, NULL) != 0)
        return;
    std::string opts = "lowerdir=/var/lib,upperdir=" + layer_dir + "/upper,workdir=" + layer_dir + "/work";
    mount("kvxt_node", "/var/lib", "overlay", 0, opts.c_str());
}

} /* namespace */

AgentHarness::AgentHarness(const std::string& tree)
{
    signal(SIGPIPE, SIG_IGN);
    prctl(PR_SET_CHILD_SUBREAPER, 1);

    char tmpl[] = "/tmp/kvxtest.XXXXXX";
    if (!mkdtemp(tmpl))
        abort();
    base = tmpl;
    chmod(base.c_str(), 0755);
    root = tree.empty() ? base : base + "/" + tree;
    if (root != base && mkdir(root.c_str(), 0755) != 0)
        abort();
    boot_dir = root + "/boot";
    work_dir = root + "/work";
    client_dir = work_dir + "/linux-kvx-client";
    for (const std::string& dir : {boot_dir, work_dir, client_dir})
        mkdir(dir.c_str(), 0755);
    copy_program(env_or("KVX_EA_BINARY", KVX_BIN_DIR "/kvx_ea"), boot_dir + "/kvx_ea");

    m_env = {"PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "HOME=/root", "LANG=C"};
    for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"})
        if (getenv(name))
            m_env.push_back(std::string(name) + "=" + getenv(name));
}

AgentHarness::~AgentHarness()
{
    stop();
    for (const std::string& point : mounts_below(base))
        umount2(point.c_str(), MNT_DETACH);
    std::error_code ec;
    fs::remove_all(base, ec);
}

void AgentHarness::add_stub(const std::string& name, int exit_code, const std::string& extra_sh)
{
    write_script(client_dir + "/" + name, "d=$(cd \"$(dirname \"$0\")\" && pwd)\nn=$(basename \"$0\")\nline=\"$n\"\n"
                                          "for a in \"$@\"; do line=\"$line $a\"; done\n"
                                          "printf '%s\\n' \"$line\" >> \"$d/$n.calls\"\n" +
                                          extra_sh + "\nexit " + std::to_string(exit_code) + "\n");
}

std::vector<std::string> AgentHarness::stub_calls(const std::string& name) const
{
    return read_lines(client_dir + "/" + name + ".calls");
}

std::vector<std::string> AgentHarness::read_lines(const std::string& path)
{
    std::vector<std::string> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

void AgentHarness::write_script(const std::string& path, const std::string& body)
{
    write_file(path, "#!/bin/sh\n" + body);
    chmod(path.c_str(), 0755);
}

void AgentHarness::install_simulator()
{
    std::string sim = env_or("KVX_SIM_BINARY", KVX_BIN_DIR "/kvxbackupvol-sim");
    if (emulator().empty()) {
        copy_program(sim, client_dir + "/kvxbackupvol");
        return;
    }
    /* another CPU's program runs through the emulator, under the same pid */
    copy_program(sim, base + "/kvxbackupvol-sim");
    write_script(client_dir + "/kvxbackupvol",
                 "exec '" + emulator() + "' '" + base + "/kvxbackupvol-sim' \"$@\"\n");
}

void AgentHarness::set_env(const std::string& name, const std::string& value)
{
    std::string prefix = name + "=";
    m_env.erase(std::remove_if(m_env.begin(), m_env.end(),
                               [&](const std::string& e) { return e.compare(0, prefix.size(), prefix) == 0; }),
                m_env.end());
    m_env.push_back(prefix + value);
}

void AgentHarness::run_as(uid_t uid, gid_t gid)
{
    m_as_user = true;
    m_uid = uid;
    m_gid = gid;
}

bool AgentHarness::start(const std::vector<std::string>& args, bool default_args)
{
    if (!exists(boot_dir + "/kvx_ea"))
        return false;
    if (m_as_user) {   /* links are not followed */
        std::error_code ec;
        lchown(root.c_str(), m_uid, m_gid);
        for (const auto& e : fs::recursive_directory_iterator(root, ec))
            lchown(e.path().c_str(), m_uid, m_gid);
    }

    std::vector<std::string> argv_s;
    if (!emulator().empty())
        argv_s.push_back(emulator());
    argv_s.push_back(boot_dir + "/kvx_ea");
    if (default_args && args.empty())
        argv_s.insert(argv_s.end(), {"--targetworkdir", work_dir});
    else
        argv_s.insert(argv_s.end(), args.begin(), args.end());
    auto pointers = [](std::vector<std::string>& v) {   /* null-terminated, for execve */
        std::vector<char*> p;
        for (std::string& s : v)
            p.push_back(&s[0]);
        p.push_back(nullptr);
        return p;
    };
    std::vector<char*> argv = pointers(argv_s), envp = pointers(m_env);
    std::string err_path = root + "/agent.stderr", layer_dir = base + "/.node";
    bool isolate = m_private && geteuid() == 0;
    if (isolate) {   /* made after the chown above: the layer stays root's */
        struct stat vl;
        mode_t mode = stat("/var/lib", &vl) == 0 ? (vl.st_mode & 07777) : 0755;
        mkdir(layer_dir.c_str(), 0700);
        mkdir((layer_dir + "/upper").c_str(), mode);
        mkdir((layer_dir + "/work").c_str(), 0700);
        chmod((layer_dir + "/upper").c_str(), mode);
    }

    int in_pipe[2], out_pipe[2], st_pipe[2];
    if (pipe2(in_pipe, O_CLOEXEC) || pipe2(out_pipe, O_CLOEXEC) || pipe2(st_pipe, O_CLOEXEC))
        return false;

    pid_t p = fork();
    if (p < 0)
        return false;
    if (p == 0) {
        /* The disposable parent: its own session, so stop() can end every
         * process the agent left behind with one kill. */
        setsid();
        close(in_pipe[1]);
        close(out_pipe[0]);
        close(st_pipe[0]);
        pid_t a = fork();
        if (a == 0) {
            dup2(in_pipe[0], 0);
            dup2(out_pipe[1], 1);
            int efd = open(err_path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0666);
            if (efd >= 0)
                dup2(efd, 2);
            signal(SIGPIPE, SIG_DFL);
            if (isolate)
                enter_private_node(layer_dir);
            struct rlimit files = {(rlim_t)m_nofile, (rlim_t)m_nofile};
            for (int fd = 3; m_nofile > 0 && fd < 1024; fd++)   /* nothing from ctest counts */
                close(fd);
            if (m_nofile > 0 && setrlimit(RLIMIT_NOFILE, &files) != 0)
                _exit(126);
            if ((m_as_user && (setgroups(0, nullptr) || setgid(m_gid) || setuid(m_uid))) || chdir(boot_dir.c_str()))
                _exit(126);
            execve(argv[0], argv.data(), envp.data());
            _exit(127);
        }
        close(in_pipe[0]);
        close(out_pipe[1]);
        int msg[2] = {(int)a, 0};
        if (write(st_pipe[1], &msg[0], sizeof(int)) != (ssize_t)sizeof(int))
            _exit(1);
        /* Look at the agent's end without reaping it: if the agent's cleanup
         * kills this parent before the status is passed on, the agent is
         * still a zombie, goes to the test (the subreaper) and is reaped there. */
        siginfo_t si = {};
        while (a > 0 && waitid(P_PID, (id_t)a, &si, WEXITED | WNOWAIT) < 0 && errno == EINTR)
            ;
        msg[1] = si.si_code == CLD_EXITED ? (si.si_status & 0xff) << 8 : (si.si_status & 0x7f);
        if (write(st_pipe[1], &msg[1], sizeof(int)) != (ssize_t)sizeof(int))
            _exit(1);
        waitpid(a, nullptr, 0);
        _exit(0);
    }

    m_parent = p;
    close(in_pipe[0]);
    close(out_pipe[1]);
    close(st_pipe[1]);
    m_to_agent = in_pipe[1];
    m_from_agent = out_pipe[0];
    m_status_fd = st_pipe[0];
    int apid = -1;
    if (!read_exact(m_status_fd, &apid, sizeof(apid), 10000) || apid <= 0)
        return false;
    m_agent = apid;

    m_out = fdopen(m_from_agent, "r");
    m_in = fdopen(m_to_agent, "w");
    /* Unbuffered, so that poll() on the descriptor sees everything unread. */
    setvbuf(m_out, nullptr, _IONBF, 0);
    m_channel = new STDIOChannel(m_out, m_in);
    m_proto = new ExecProto(m_channel);
    return true;
}

int AgentHarness::call(int fn, jxdrproc_t f_args, char* args, jxdrproc_t f_resp, char* resp,
                       int timeout_ms)
{
    if (!m_proto)
        return -100;
    std::promise<void> done;
    std::thread watchdog([this, timeout_ms, ended = done.get_future()] {
        if (ended.wait_for(std::chrono::milliseconds(timeout_ms)) == std::future_status::timeout)
            kill(m_agent, SIGKILL);
    });
    int rc = m_proto->call(fn, f_args, args, f_resp, resp);
    done.set_value();
    watchdog.join();
    return rc;
}

void AgentHarness::send_raw(const std::string& text, bool newline)
{
    std::string line = newline ? text + "\n" : text;
    size_t off = 0;
    while (m_to_agent >= 0 && off < line.size()) {
        ssize_t w = write(m_to_agent, line.data() + off, line.size() - off);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            break;
        off += (size_t)w;
    }
}

bool AgentHarness::read_raw(std::string& out, int timeout_ms)
{
    out.clear();
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (m_from_agent >= 0) {
        int left = (int)std::chrono::duration_cast<std::chrono::milliseconds>(
                       deadline - std::chrono::steady_clock::now()).count();
        if (left < 0)
            return false;
        char c;
        if (!read_exact(m_from_agent, &c, 1, left))
            return false;
        out.push_back(c);
        if (c == '\n')
            return true;
    }
    return false;
}

bool AgentHarness::in_agent_namespaces(const std::function<bool()>& fn)
{
    if (m_agent <= 0)
        return false;
    pid_t c = fork();
    if (c == 0) {
        for (const char* kind : {"ipc", "mnt"}) {
            std::string path = "/proc/" + std::to_string(m_agent) + "/ns/" + kind;
            int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
            if (fd < 0 || setns(fd, 0) != 0)
                _exit(2);
            close(fd);
        }
        _exit(fn() ? 0 : 1);
    }
    int st = 0;
    while (c > 0 && waitpid(c, &st, 0) < 0 && errno == EINTR)
        ;
    return c > 0 && WIFEXITED(st) && WEXITSTATUS(st) == 0;
}

void AgentHarness::close_output()
{
    if (m_out) {
        fclose(m_out);
        m_out = nullptr;
        if (m_channel)
            m_channel->m_fin = nullptr;
        m_from_agent = -1;
    }
}

void AgentHarness::close_input()
{
    if (m_in) {
        fclose(m_in);
        /* Later writes through the channel go nowhere instead of to a stale stream. */
        m_in = fopen("/dev/null", "w");
        if (m_channel)
            m_channel->m_fout = m_in;
        m_to_agent = -1;
    }
}

int AgentHarness::wait_exit(int timeout_s)
{
    if (m_exit >= 0)
        return m_exit;
    if (m_agent <= 0)
        return -1;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_s);
    while (std::chrono::steady_clock::now() < deadline) {
        int st = 0;
        /* Parent still alive: it reports the agent's wait status. */
        if (m_status_fd >= 0) {
            struct pollfd pfd = {m_status_fd, POLLIN, 0};
            if (poll(&pfd, 1, 0) > 0) {
                if (read_exact(m_status_fd, &st, sizeof(st), 100))
                    return m_exit = decode_status(st);
                close(m_status_fd);   /* parent gone without a report */
                m_status_fd = -1;
            }
        }
        /* Parent killed: the agent was re-parented to us. */
        if (waitpid(m_agent, &st, WNOHANG) == m_agent)
            return m_exit = decode_status(st);
        if (m_parent > 1 && waitpid(m_parent, &st, WNOHANG) == m_parent)
            m_parent = -m_parent;   /* reaped; keep the number for the record */
        usleep(20000);
    }
    return -1;
}

bool AgentHarness::parent_alive()
{
    if (m_parent <= 0)
        return false;
    int st;
    if (waitpid(m_parent, &st, WNOHANG) == m_parent) {
        m_parent = -m_parent;
        return false;
    }
    return kill(m_parent, 0) == 0;
}

void AgentHarness::signal_agent(int sig)
{
    if (m_agent > 0)
        kill(m_agent, sig);
}

void AgentHarness::stop()
{
    if (m_agent > 0 && m_exit < 0) {
        kill(m_agent, SIGKILL);
        wait_exit(10);
    }
    /* Whatever the agent left in the parent's session.  m_parent is -1 before
     * start() and minus the pid once reaped: never let that become kill(-1). */
    pid_t group = m_parent > 1 ? m_parent : (m_parent < -1 ? -m_parent : 0);
    if (group > 1)
        kill(-group, SIGKILL);
    if (m_parent > 1) {
        kill(m_parent, SIGKILL);
        waitpid(m_parent, nullptr, 0);
    }
    delete m_proto;
    m_proto = nullptr;
    delete m_channel;
    m_channel = nullptr;
    if (m_in)
        fclose(m_in);
    if (m_out)
        fclose(m_out);
    m_in = m_out = nullptr;
    if (m_status_fd >= 0)
        close(m_status_fd);
    m_status_fd = -1;
}

std::string AgentHarness::log() const
{
    return read_file(work_dir + "/logs/kvx-agent.log");
}

std::string AgentHarness::agent_stderr() const
{
    return read_file(root + "/agent.stderr");
}

bool AgentHarness::exists(const std::string& path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

std::string AgentHarness::read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void AgentHarness::write_file(const std::string& path, const std::string& text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}
