/* Running the operator client from tests: its exit status, standard output
 * and error, and how long it took. */
#ifndef EACTL_TESTKIT_H
#define EACTL_TESTKIT_H

#include <fcntl.h>
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "sshd_sandbox.h"

struct Outcome {
    int status = -1;       /* exit status, 128 + signal */
    std::string out, err;
    double seconds = 0;
};

inline std::string slurp(const std::string& path)
{
    return sshd_sandbox_read(path);
}

inline void spill(const std::string& path, const std::string& text, mode_t mode = 0644)
{
    FILE* f = fopen(path.c_str(), "w");
    if (f) {
        fputs(text.c_str(), f);
        fclose(f);
    }
    chmod(path.c_str(), mode);
}

inline int remove_tree_entry(const char* path, const struct stat*, int, struct FTW*)
{
    remove(path);
    return 0;
}

inline void remove_tree(const std::string& dir)
{
    nftw(dir.c_str(), remove_tree_entry, 16, FTW_DEPTH | FTW_PHYS);
}

inline std::string temp_dir(const char* tag)
{
    std::string tmpl = std::string("/tmp/") + tag + ".XXXXXX";
    return mkdtemp(&tmpl[0]) ? tmpl : "";
}

/* Runs argv (argv[0] looked up in PATH) with output to files in dir and
 * input as its standard input. */
inline Outcome run_program(const std::vector<std::string>& args, const std::string& dir,
                           const std::string& input = "")
{
    Outcome r;
    std::string out = dir + "/run.out", err = dir + "/run.err";
    struct timespec t0, t1;
    clock_gettime(CLOCK_MONOTONIC, &t0);
    std::string in_path = dir + "/run.in";
    spill(in_path, input);
    pid_t pid = fork();
    if (pid == 0) {
        int in = open(in_path.c_str(), O_RDONLY);
        int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(in, 0);
        dup2(o, 1);
        dup2(e, 2);
        std::vector<char*> argv;
        for (const std::string& a : args)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    int st = 0;
    waitpid(pid, &st, 0);
    clock_gettime(CLOCK_MONOTONIC, &t1);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    r.out = slurp(out);
    r.err = slurp(err);
    r.seconds = (double)(t1.tv_sec - t0.tv_sec) + (double)(t1.tv_nsec - t0.tv_nsec) / 1e9;
    return r;
}

/* kvx-eactl of this build with the given arguments. */
inline Outcome run_eactl(std::vector<std::string> args, const std::string& dir,
                         const std::string& input = "")
{
    args.insert(args.begin(), std::string(KVX_BIN_DIR) + "/kvx-eactl");
    return run_program(args, dir, input);
}

inline bool has(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

#endif /* EACTL_TESTKIT_H */
