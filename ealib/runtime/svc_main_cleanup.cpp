/*
 * svc_main_cleanup.cpp - returning the node to the state the agent found
 * (source name "svc_main").
 *
 * When the agent loses its server, or stops while a product program it
 * started may still run, it cancels that program, unloads the product's
 * driver, stops the product's agent, removes what the server copied to the
 * node, kills the remote shell that started it and exits with status 1.
 */
#include <dirent.h>
#include <fnmatch.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "svc_main.h"
#include "svc_product.h"
#include "ea_child.h"
#include "zelcommon.h"
#include "zelfunc.h"
#include "zellog.h"
#include "zeltrust.h"

#define SRC               "svc_main"
#define CANCEL_ROUNDS     12
#define CANCEL_ROUND_SECS 5
#define CLEANUP_SECS      100   /* all of the cleanup's elevated commands together */

static int _cleaning_flag = 0;

/* Runs a command line of zel_shell_cmdline (logged) and frees it; -1 for none. */
static int run_cmdline(char* cmd)
{
    int rc = cmd != NULL ? ExecuteCmdWrapper(cmd, 0) : -1;

    free(cmd);
    return rc;
}

/* sleep() that a SIGCHLD cannot cut short. */
static void sleep_fully(unsigned secs)
{
    while (secs > 0)
        secs = sleep(secs);
}

/* Polls up to 12 times, 5 s apart, for prog to be gone; 1 when it is. */
static int wait_program_gone(const char* prog)
{
    for (int round = 0; round < CANCEL_ROUNDS; round++) {
        child_exit_events();   /* the cancelled program's end is logged as it happens */
        if (query_process_pid(prog) == 0)
            return 1;
        sleep_fully(CANCEL_ROUND_SECS);
    }
    return 0;
}

/*
 * Cancels the product program this agent started; a program that ignores
 * the cancel is killed and its session location unmounted.
 */
static void cancel_product_program(void)
{
    char cmd[4096];
    int backup = g_cached_prog_type_flag == 1;
    const char* prog = backup ? backup_program_flag : restore_program_flag;

    ZELLogFunction(3, SRC, 80, "try to cancel program: %s.\n", prog);
    ExecuteCmdWrapper(backup ? "kvxmonitor --canceljob" : "kvxbmr --cancel", 0);
    int gone = wait_program_gone(prog);
    ZELLogFunction(3, SRC, 100, "cancel the program(%s) %s.\n", prog,
                   gone ? "successfully" : "failed");
    if (gone)
        return;

    int pid = query_process_pid(prog);
    if (pid <= 1)
        return;
    snprintf(cmd, sizeof(cmd), "kill -9 %d", pid);
    ExecuteCmdWrapper(cmd, 1);
    ZELLogFunction(3, SRC, 108, "force stop program: %s, pid: %d.\n", prog, pid);
    if (run_cmdline(zel_shell_cmdline("umount -f %w", GetZelRootDir())) != 0)
        run_cmdline(zel_shell_cmdline("umount -l %w", GetZelRootDir()));
}

/* 1 when others than its owner may write dir: what it holds may be anyone's. */
static int dir_shared(const char* dir)
{
    struct stat st;

    return stat(dir, &st) == 0 && (st.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

/* Appends path to the command line cmd (size bytes) as one word when root or we own it. */
static void add_owned(char* cmd, size_t size, const char* path)
{
    char word[4096];
    struct stat st;

    if (lstat(path, &st) != 0 || !zel_trusted_owner(st.st_uid) ||
        zel_shell_word(path, 0, word, sizeof(word)) == NULL ||
        strlen(cmd) + 1 + strlen(word) >= size)
        return;
    strcat(cmd, " ");
    strcat(cmd, word);
}

/*
 * The removal of remove_staged_files() in a directory others may write:
 * only what root or the agent's account owns, "*.js" matched here.
 */
static void remove_owned_staged(const char* work, const char* boot, const char* const* names, int count)
{
    char cmd[16384] = "rm -rf";
    char path[4096];

    for (int i = 0; i < count; i++) {
        snprintf(path, sizeof(path), "%s/%s", work, names[i]);
        add_owned(cmd, sizeof(cmd), path);
    }
    DIR* d = opendir(work);
    for (struct dirent* e; d != NULL && (e = readdir(d)) != NULL;) {
        if (fnmatch("*.js", e->d_name, FNM_PERIOD) == 0) {
            snprintf(path, sizeof(path), "%s/%s", work, e->d_name);
            add_owned(cmd, sizeof(cmd), path);
        }
    }
    if (d != NULL)
        closedir(d);
    snprintf(path, sizeof(path), "%s/%s", boot, "checkmachine");
    add_owned(cmd, sizeof(cmd), path);
    add_owned(cmd, sizeof(cmd), GetEATarget());
    if (strchr(cmd, ' ') != NULL)
        ExecuteCmdWrapper(cmd, 0);
}

/* Removes the packages, lists and scripts the server copied, and ourselves. */
static void remove_staged_files(void)
{
    static const char* const names[] = {
        "linux-kvx-client", "LinuxImage-backup-client-x86.tar.gz", "LinuxImage-backup-client-x64.tar.gz",
        "LinuxImage-restore-client-x86.tar.gz", "LinuxImage-restore-client-x64.tar.gz", "drv_target.lst",
    };
    const char* work = GetTargetWorkDir();
    const char* boot = GetTargetBootstrapDir();

    /* in a directory others may write, only root's and the agent's own entries go */
    if (dir_shared(work) || dir_shared(boot)) {
        remove_owned_staged(work, boot, names, (int)(sizeof(names) / sizeof(names[0])));
        return;
    }
    /* each directory is one shell word ("/srv/kvx node" never removes "/srv/kvx"); *.js still expands */
    run_cmdline(zel_shell_cmdline("rm -rf %w/%s %w/%s %w/%s %w/%s %w/%s %w/%s %w/%s %w/%s %w",
                                  work, names[0], work, names[1], work, names[2], work, names[3],
                                  work, names[4], work, names[5], work, "*.js",
                                  boot, "checkmachine",
                                  GetEATarget()));
}

/*
 * Cleans the target and exits with status 1.  Returns only when a cleaning
 * is already under way in this process.
 */
void cleanup_target(void)
{
    char cmd[4096];

    if (_cleaning_flag) {
        ZELLogFunction(3, SRC, 69, "An cleaning function is already running.\n");
        return;
    }
    _cleaning_flag = 1;
    ea_elevated_deadline(zel_now_ms() + CLEANUP_SECS * 1000LL);
    ZELLogFunction(3, SRC, 74, "cleanup_target started, non root user flag: %d.\n",
                   g_cached_nonRootUserFlag);

    if (g_cached_prog_type_flag != 0)
        cancel_product_program();
    ExecuteCmdWrapper("driverinstall -u", 0);
    ExecuteCmdWrapper("killall kvxagent", 1);
    remove_staged_files();

    pid_t ppid = getppid();
    if (ppid != 0 && ppid != 1) {
        snprintf(cmd, sizeof(cmd), "kill -9 %d", (int)ppid);
        ExecuteCmdWrapper(cmd, 1);
    }
    ZELLogFunction(3, SRC, 144, "cleanup_target finished.\n");
    ZELLogFunction(3, SRC, 145, "ea[%d] finished.\n", (int)getpid());
    exit(1);
}
