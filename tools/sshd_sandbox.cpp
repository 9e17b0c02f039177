/*
 * sshd_sandbox.cpp - a private sshd for tests and benchmarks (see the header).
 */
#include "sshd_sandbox.h"
#include "eactl_spawn.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace {

const char kSshd[] = "/usr/sbin/sshd";
const int  kPortTries = 5;
const int  kReadyMs = 10000;

int remove_entry(const char* path, const struct stat*, int, struct FTW*)
{
    remove(path);
    return 0;
}

bool write_text(const std::string& path, const std::string& text)
{
    FILE* f = fopen(path.c_str(), "w");
    if (!f)
        return false;
    bool ok = fwrite(text.data(), 1, text.size(), f) == text.size();
    return fclose(f) == 0 && ok;
}

/* A socket bound to a free port of 127.0.0.1; its port in *port. */
int bound_socket(int* port)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in a;
    socklen_t len = sizeof(a);
    memset(&a, 0, sizeof(a));
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0 || bind(fd, (struct sockaddr*)&a, sizeof(a)) != 0 ||
        getsockname(fd, (struct sockaddr*)&a, &len) != 0) {
        if (fd >= 0)
            close(fd);
        return -1;
    }
    *port = ntohs(a.sin_port);
    return fd;
}

/* The address of the k-th alias: each alias is a node of its own to ssh
 * (its own shared connection), all served by this one sshd. */
std::string alias_address(size_t k)
{
    return "127.0.0." + std::to_string(k % 250 + 1);
}

std::string server_config(const SshdSandbox* sb, const std::string& user, size_t aliases)
{
    std::string listen;
    for (size_t k = 1; k < aliases && k < 250; k++)
        listen += "ListenAddress " + alias_address(k) + ":" + std::to_string(sb->port) + "\n";
    return "ListenAddress 127.0.0.1:" + std::to_string(sb->port) + "\n" + listen +
           "HostKey " + sb->dir + "/host_key\n"
           "PidFile none\n"
           "AuthorizedKeysFile " + sb->dir + "/authorized_keys\n"
           "AllowUsers " + user + "\n"
           "PubkeyAuthentication yes\n"
           "PasswordAuthentication no\n"
           "KbdInteractiveAuthentication no\n"
           "UsePAM no\n"
           "StrictModes no\n"            /* the keys lie below /tmp */
           "PermitRootLogin prohibit-password\n"
           "PrintMotd no\n"
           /* a home of its own: the account's start-up files and caches stay out of it */
           "SetEnv HOME=" + sb->dir + "/home XDG_CACHE_HOME=" + sb->dir + "/cache\n";
}

std::string client_config(const SshdSandbox* sb, const std::vector<std::string>& aliases,
                          const std::string& user, int dead_port)
{
    std::string hosts;
    for (size_t k = 0; k < aliases.size(); k++)
        hosts += "Host " + aliases[k] + "\n"
                 "  HostName " + alias_address(k) + "\n"
                 "  Port " + std::to_string(sb->port) + "\n";
    return hosts +
           "Host unreachable\n"
           "  HostName 127.0.0.1\n"
           "  Port " + std::to_string(dead_port) + "\n"
           "Host silent\n"
           "  ProxyCommand sleep 120\n"
           "Host *\n"
           "  User " + user + "\n"
           "  IdentityFile " + sb->dir + "/user_key\n"
           "  IdentitiesOnly yes\n"
           "  IdentityAgent none\n"
           "  UserKnownHostsFile " + sb->dir + "/known_hosts\n"
           "  GlobalKnownHostsFile /dev/null\n"
           "  StrictHostKeyChecking yes\n"
           "  HostKeyAlias kvx-sshd-sandbox\n"
           "  ControlMaster no\n"
           "  ControlPath none\n"
           "  LogLevel ERROR\n";
}

/* Starts sshd -D and waits for it to listen; 1 listening, 0 the port was
 * taken (try another), -1 failed. */
int start_sshd(SshdSandbox* sb, std::string* error)
{
    std::string config = sb->dir + "/sshd_config", log = sb->dir + "/sshd.log";
    unlink(log.c_str());
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid == 0) {
        /* sshd ends with this process, however it ends. */
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent)
            _exit(1);
        int null_fd = open("/dev/null", O_RDWR);
        dup2(null_fd, 0);
        dup2(null_fd, 1);
        dup2(null_fd, 2);
        execl(kSshd, kSshd, "-D", "-f", config.c_str(), "-E", log.c_str(), (char*)NULL);
        _exit(127);
    }
    if (pid < 0) {
        *error = std::string("fork: ") + strerror(errno);
        return -1;
    }
    sb->pid = pid;
    for (int ms = 0; ms < kReadyMs; ms += 10) {
        std::string text = sshd_sandbox_read(log);
        if (text.find("Server listening on 127.0.0.1 port") != std::string::npos)
            return 1;
        int st;
        if (waitpid(pid, &st, WNOHANG) == pid) {
            sb->pid = -1;
            if (text.find("Address already in use") != std::string::npos)
                return 0;
            *error = "sshd exited: " + text;
            return -1;
        }
        struct timespec nap = {0, 10 * 1000 * 1000};
        nanosleep(&nap, NULL);
    }
    *error = "sshd did not listen within 10 s: " + sshd_sandbox_read(log);
    return -1;
}

} /* namespace */

bool sshd_sandbox_start(SshdSandbox* sb, const std::vector<std::string>& aliases, std::string* error)
{
    if (access(kSshd, X_OK) != 0) {
        *error = std::string(kSshd) + " is missing: scripts/setup.sh installs openssh-server";
        return false;
    }
    char tmpl[] = "/tmp/kvx-sshd.XXXXXX";
    if (!mkdtemp(tmpl)) {
        *error = std::string("mkdtemp: ") + strerror(errno);
        return false;
    }
    sb->dir = tmpl;
    struct passwd* pw = getpwuid(getuid());
    std::string user = pw ? pw->pw_name : "root";
    for (const char* key : {"host_key", "user_key"}) {
        if (sshd_sandbox_run({"ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", "kvx-sshd-sandbox",
                       "-f", sb->dir + "/" + key}) != 0) {
            *error = std::string("ssh-keygen could not make ") + key;
            sshd_sandbox_stop(sb);
            return false;
        }
    }
    std::string host_pub = sshd_sandbox_read(sb->dir + "/host_key.pub");
    int dead_port = 0;
    sb->dead_fd = bound_socket(&dead_port);
    sb->client_config = sb->dir + "/ssh_config";
    mkdir((sb->dir + "/home").c_str(), 0700);
    if (getuid() == 0)
        mkdir("/run/sshd", 0755);   /* sshd's privilege separation directory */
    int started = 0;
    for (int k = 0; k < kPortTries && started == 0; k++) {
        int fd = bound_socket(&sb->port);
        if (fd < 0)
            break;
        close(fd);   /* free again for sshd; if another takes it first, try anew */
        if (!write_text(sb->dir + "/authorized_keys", sshd_sandbox_read(sb->dir + "/user_key.pub")) ||
            !write_text(sb->dir + "/known_hosts", "kvx-sshd-sandbox " + host_pub) ||
            !write_text(sb->dir + "/sshd_config", server_config(sb, user, aliases.size())) ||
            !write_text(sb->client_config, client_config(sb, aliases, user, dead_port))) {
            *error = "cannot write the configuration in " + sb->dir;
            break;
        }
        started = start_sshd(sb, error);
    }
    if (started != 1 || sb->dead_fd < 0) {
        if (error->empty())
            *error = "no free port for sshd";
        sshd_sandbox_stop(sb);
        return false;
    }
    return true;
}

void sshd_sandbox_stop(SshdSandbox* sb)
{
    if (sb->pid > 0) {
        kill(sb->pid, SIGTERM);
        int st;
        for (int ms = 0; waitpid(sb->pid, &st, WNOHANG) == 0; ms += 10) {
            if (ms == 3000)
                kill(sb->pid, SIGKILL);
            struct timespec nap = {0, 10 * 1000 * 1000};
            nanosleep(&nap, NULL);
        }
        sb->pid = -1;
    }
    if (sb->dead_fd >= 0) {
        close(sb->dead_fd);
        sb->dead_fd = -1;
    }
    if (!sb->dir.empty()) {
        nftw(sb->dir.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
        sb->dir.clear();
    }
}

std::string sshd_sandbox_read(const std::string& path)
{
    std::string text;
    FILE* f = fopen(path.c_str(), "r");
    char buf[4096];
    size_t n;
    while (f && (n = fread(buf, 1, sizeof(buf), f)) > 0)
        text.append(buf, n);
    if (f)
        fclose(f);
    return text;
}

int sshd_sandbox_run(std::vector<std::string> args)
{
    int st = eactl_reap(eactl_spawn(args, EACTL_DEVNULL, EACTL_DEVNULL, EACTL_DEVNULL));
    return st != -1 && WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}
