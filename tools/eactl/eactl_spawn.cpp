/*
 * eactl_spawn.cpp - fork and exec with the standard streams set (see the
 * header).
 */
#include "eactl_spawn.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

pid_t eactl_spawn(std::vector<std::string> args, int in, int out, int err, bool new_session,
                  bool say_failure)
{
    std::vector<char*> argv;   /* built before the fork: the child only sets streams and execs */
    for (std::string& a : args)
        argv.push_back(&a[0]);
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid != 0)
        return pid;
    int fds[3] = {in, out, err}, null_fd = -1;
    for (int k = 0; k < 3; k++) {
        if (fds[k] == EACTL_DEVNULL)
            fds[k] = null_fd >= 0 ? null_fd : (null_fd = open("/dev/null", O_RDWR));
        if (fds[k] >= 0)
            dup2(fds[k], k);
    }
    if (new_session)
        setsid();
    execvp(argv[0], argv.data());
    if (say_failure)
        fprintf(stderr, "kvx-eactl: cannot run %s: %s\n", argv[0], strerror(errno));
    _exit(127);
}

int eactl_reap(pid_t pid)
{
    int st = 0;
    while (pid > 0 && waitpid(pid, &st, 0) < 0)
        if (errno != EINTR)
            return -1;
    return pid > 0 ? st : -1;
}

bool eactl_capture(const std::vector<std::string>& args, std::string* out)
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return false;
    pid_t pid = eactl_spawn(args, EACTL_DEVNULL, fds[1], EACTL_KEEP);
    close(fds[1]);
    char buf[65536];
    ssize_t n;
    while (pid > 0 && ((n = read(fds[0], buf, sizeof(buf))) > 0 || (n < 0 && errno == EINTR)))
        if (n > 0)
            out->append(buf, (size_t)n);
    close(fds[0]);
    int st = eactl_reap(pid);
    return st != -1 && WIFEXITED(st) && WEXITSTATUS(st) == 0;
}
