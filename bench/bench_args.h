/*
 * bench_args.h - what the benchmarks share: their options ("--pings N",
 * "--agent PATH"), read with getopt_long, and the directory of their
 * programs.
 */
#ifndef BENCH_ARGS_H
#define BENCH_ARGS_H

#include <getopt.h>
#include <stdlib.h>

#include <string>
#include <vector>

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

#endif /* BENCH_ARGS_H */
