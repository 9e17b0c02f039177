/*
 * zelfunc.h - process execution, pseudo-terminal and su/sudo runners,
 * directories, paths, locks, shared memory, time stamps and trims of the
 * utility library (source name "zelfunc").
 *
 * Fixed buffers: 4096 bytes for paths and command lines, 1024 for short
 * texts, 128 for passwords and user names.  Every copy is bounded.
 */
#ifndef ZELFUNC_H
#define ZELFUNC_H

#include <signal.h>
#include <stddef.h>
#include <sys/types.h>
#include "zel_basic_types.h"
#include "kvx_records.h"

/* ---- argument vectors and plain execution (zelfunc_exec) ---- */

/* Appends one printf-formatted argument; 0, or -1 when the vector is full. */
int   PushArgv(char** argv, unsigned maxsize, const char* format, ...)
        __attribute__((format(printf, 3, 4)));
int   CleanArgv(char** argv);
int   CleanLastArgv(char** argv);

/* system() with SIGCHLD at default; decoded exit status (see .cpp). Logs. */
int   ExecuteCmd(const char* cmd);
/* Same without the log line. */
int   ExecuteCmdSilently(const char* cmd);
/* fork/execvp with stdin fed from input and stdout captured while it runs. */
int   ExecuteProcess(char** argv, const char* input, size_t inputsize,
                     char* output, size_t outputsize);
int   check_process_running(const char* jobuuid, int* run);
char* GetProcessModulePath(char* path, int len);
int   isdigitstring(const char* s);

/* ---- "sh -c" with standard input on /dev/null (zelfunc_spawn) ---- */

/* Starts sh -c cmd with stdin on /dev/null and, when out_fd >= 0, stdout on
 * out_fd.  The child's pid, or -1 with errno set. */
pid_t zel_spawn_shell(const char* cmd, int out_fd);
/* SIGCHLD to its default disposition (the old one kept in *old) while the
 * caller waits for its own child, and back: a caller's handler must not
 * reap that child. */
void zel_chld_default(struct sigaction* old);
void zel_chld_restore(const struct sigaction* old);
/* Puts /dev/null on descriptor 0 (a forked child that runs commands). */
void  zel_stdin_devnull(void);
/* system(cmd) with stdin on /dev/null and SIGCHLD at its default
 * disposition meanwhile: the wait status (127 << 8 when no shell could
 * run), -1 when the wait failed. */
int   zel_system(const char* cmd);
/*
 * popen(cmd, "r") and one fread of size - 1 bytes, with stdin on /dev/null:
 * out gets what the command printed until it ended or filled the buffer
 * (always terminated); a daemon left holding the output open is not waited
 * for.  Waits for the shell; *status (may be null) gets its wait status.
 * Returns the count read, or -1 when the command could not be started.
 */
int   zel_shell_capture(const char* cmd, char* out, size_t size, int* status);

/* ---- pseudo-terminal runner (zelfunc_pty) ---- */

int   ExecuteCmdInteractively(char** argv, const char* pwd, int block, int mytimeout,
                              char* output, int outputSize);
int   ProcessSudoOutput(char* output, int outputSize);

/* ---- privileged execution (zelfunc_su) ---- */

int   SuperExecuteCmd(const char* user, const char* pwd, const char* cmd, int block,
                      char* output, int outputSize);
int   SuperExecuteCmdEx(const char* user, const char* pwd, const char* cmd, int block,
                        int mytimeout, char* output, int outputSize);
int   SudoExecuteCmdEx(const char* pwd, const char* cmd, int block, int mytimeout,
                       char* output, int outputSize);
/* SuperExecuteCmd(user, pwd, cmd, 1, NULL, 0) ended after seconds at most. */
int   SuperExecuteCmdWithin(const char* user, const char* pwd, const char* cmd, int seconds);
int   CheckRootUser(const char* user, const char* pwd, int* uid);

/* ---- shell words (zelfunc_quote) ---- */

/* 1 when s is non-empty and made only of letters, digits and /._-+=:@,% */
int   zel_shell_safe(const char* s);
/*
 * s as one shell word in out (size bytes): as it is when zel_shell_safe(s)
 * (inside double quotes when dquote is set, for command lines that always
 * quoted it so), otherwise in single quotes with each ' written as '\''.
 * Returns out, or null (out "") when the word does not fit: a caller never
 * runs a command line with a word cut short.
 */
char* zel_shell_word(const char* s, int dquote, char* out, size_t size);
/*
 * Command line built from fmt and sized from its parts, so it is never cut:
 * "%s" pastes the next string as it is (command words, fixed texts, the
 * server's own command), "%w" pastes it as one shell word (zel_shell_word),
 * "%W" likewise but inside double quotes when it is safe, "%d" an int, "%%"
 * a percent sign.  A null string is "".  Malloc'ed, the caller frees; null
 * when out of memory or for any other directive.
 */
char* zel_shell_cmdline(const char* fmt, ...);

/* ---- directories and paths (zelfunc_paths) ---- */

#define TARGET_WORK_DIR_ENV       "TARGET_WORK_DIR"
#define TARGET_BOOTSTRAP_DIR_ENV  "TARGET_BOOTSTRAP_DIR"
#define ZEL_ROOT_PATH_ENV         "ZEL_ROOT_PATH"

char* GetTargetWorkDir(void);
char* GetTargetBootstrapDir(void);
char* GetEnvLdLibraryPath(void);
char* GetEATarget(void);
char* GetZelRootDir(void);

char* path_join(const char* src1, const char* src2, char* dst, size_t len);
/* Copies at most n-1 bytes and always terminates dst[n-1]. Returns dst. */
char* exstrncpy(char* dst, const char* src, size_t n);
int   CreateDirectory(const char* path);

enum _EnumFileProperty {
    FILE_REGULAR    = 1,
    FILE_DIRECTORY  = 2,
    FILE_LINK       = 4,
    FILE_BLOCK      = 8,
    FILE_CHARACTER  = 16,
    FILE_SOCKET     = 32,
    FILE_FIFO       = 64,
    FILE_READABLE   = 65536,
    FILE_WRITABLE   = 131072,
    FILE_EXECUTABLE = 262144,
    FILE_EMPTY      = 524288,
    FILE_NON_EMPTY  = 1048576
};
int   CheckFileProperty(const char* file, unsigned iprop, int rpc);

/* Single-instance lock: descriptor >= 0, -2 held elsewhere, -1 failure. */
int   check_and_lock_file(const char* path, int quiet);

/* ---- shared memory (zelfunc_shm) ---- */

#define KVX_IPC_KEY ((int)0xac23e27e)
int   GetIPCKey(void);
void* AttachSHM(int size, int shmid);
int   DetachSHM(void* addr);
/* Writer side: creates the segment (IPC_CREAT|0666); shmid or -1. */
int   CreateSHM(int size);
int   DelSHM(int shmid);

/* ---- time stamps and trims (zelfunc_paths) ---- */

char* GetSysDate(void);
char* GetLastDate(char sep, int days);
char* GetSysTime(void);
char* TrimRightSpaces(char* s);
char* TrimLeftSpaces(char* s);
char* TrimSpaces(char* s);
char* rtrim(char* s);
char* ltrim(char* s);
char* trim(char* s);

/* ---- job result file (zelfunc_jobres) ---- */

int   create_job_result(const char* path, JOB_RESULT* rec);
int   read_job_result(const char* path, JOB_RESULT* rec);

#endif /* ZELFUNC_H */
