/*
 * eactl_spawn.h - starting a program with its standard streams set: the
 * client's helpers (ssh, ansible-inventory, sha256sum), the private sshd of
 * its tests and the tests themselves.
 */
#ifndef EACTL_SPAWN_H
#define EACTL_SPAWN_H

#include <sys/types.h>
#include <string>
#include <vector>

#define EACTL_KEEP (-1)      /* the stream stays this process's */
#define EACTL_DEVNULL (-2)   /* the stream is /dev/null */

/* Starts args (args[0] looked up in PATH) with in, out and err as its
 * standard input, output and error: a descriptor, EACTL_KEEP or
 * EACTL_DEVNULL; with new_session in a session of its own.  Its pid, -1
 * when fork failed; a program that cannot run exits with 127, after a line
 * on its standard error when say_failure. */
pid_t eactl_spawn(std::vector<std::string> args, int in, int out, int err,
                  bool new_session = false, bool say_failure = false);
/* Waits for pid, through interruptions; its wait status, -1 when there is none. */
int eactl_reap(pid_t pid);
/* Runs args with /dev/null as its standard input and appends its standard
 * output to *out; its standard error passes through.  false when it could
 * not run or did not exit with 0. */
bool eactl_capture(const std::vector<std::string>& args, std::string* out);

#endif /* EACTL_SPAWN_H */
