/*
 * bench_args.h - what the benchmarks share: their options ("--pings N",
 * "--agent PATH"), read with getopt_long, the directory of their programs
 * and procedure 3's call.
 */
#ifndef BENCH_ARGS_H
#define BENCH_ARGS_H

#include <getopt.h>
#include <stdlib.h>

#include <string.h>

#include <string>
#include <vector>

#include "ea_proto.h"
#include "exec_proto.h"

/* One option with a value: a text or a whole number. */
struct BenchOption {
    const char* name;
    std::string* text;
    long* number;
};

/* Sets each option given; returns false after getopt's message on a bad one. */
inline bool bench_options(int argc, char** argv, const std::vector<BenchOption>& opts)
{
    std::vector<struct option> longopts;
    for (const BenchOption& o : opts)
        longopts.push_back({o.name, required_argument, nullptr, 0});
    longopts.push_back({nullptr, 0, nullptr, 0});
    int c, index = 0;
    while ((c = getopt_long(argc, argv, "", longopts.data(), &index)) == 0) {
        if (opts[index].text)
            *opts[index].text = optarg;
        else
            *opts[index].number = atol(optarg);
    }
    return c == -1;
}

/* The directory of this program, with its trailing '/'. */
inline std::string bench_bindir(const char* argv0)
{
    std::string path(argv0);
    return path.substr(0, path.rfind('/') + 1);
}

/* Procedure 3 in message mode (block 0) or background mode (block 1); the
 * call's result, the reply in *r. */
inline int bench_exec(ExecProto* proto, const char* cmd, int block, ExecCmdres* r)
{
    ExecCmdargs a = {(int)strlen(cmd) + 1, const_cast<char*>(cmd), !block, block, 1,
                     const_cast<char*>(""), const_cast<char*>(""), 0};
    *r = {0, 0, NULL};
    return proto->call(EA_PROC_EXEC_CMD, JXDR_PROC(ExecCmdargs, jxdr_ExecCmdargs), (char*)&a,
                       JXDR_PROC(ExecCmdres, jxdr_ExecCmdres), (char*)r);
}

#endif /* BENCH_ARGS_H */
