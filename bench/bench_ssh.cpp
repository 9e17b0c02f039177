/*
 * bench_ssh.cpp - the operator client over ssh against a bare ssh command:
 * "kvx-eactl --host node ping" (the architecture check, the copy of the
 * static agent, its start, one ping and the removal, through one ssh
 * connection) against "ssh node true", both to a private sshd on 127.0.0.1,
 * in interleaved rounds.  Target: at most 1.5x.
 *
 *   bench_ssh [--rounds N]
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "sshd_sandbox.h"

namespace {

double now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

/* Milliseconds that argv took, -1 when it failed. */
double timed_run(const std::vector<std::string>& args)
{
    double t0 = now_ms();
    return sshd_sandbox_run(args) == 0 ? now_ms() - t0 : -1;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

} /* namespace */

int main(int argc, char** argv)
{
    int rounds = 20;
    if (argc == 3 && strcmp(argv[1], "--rounds") == 0)
        rounds = atoi(argv[2]);
    std::string bindir(argv[0]);
    bindir = bindir.substr(0, bindir.rfind('/') + 1);

    SshdSandbox sb;
    std::string error;
    if (!sshd_sandbox_start(&sb, {"node"}, &error)) {
        fprintf(stderr, "bench_ssh: %s\n", error.c_str());
        return 1;
    }
    std::string ssh = "ssh -F " + sb.client_config;
    std::vector<std::string> bare = {"ssh", "-F", sb.client_config, "node", "true"};
    std::vector<std::string> eactl = {bindir + "kvx-eactl", "--ssh", ssh, "--host", "node",
                                      "ping", "bench"};
    std::vector<double> t_bare, t_eactl;
    int failed = 0;
    for (int k = 0; k < rounds + 1 && !failed; k++) {   /* the first round warms up */
        double b = timed_run(bare), e = timed_run(eactl);
        failed = b < 0 || e < 0;
        if (k > 0) {
            t_bare.push_back(b);
            t_eactl.push_back(e);
        }
    }
    sshd_sandbox_stop(&sb);
    if (failed) {
        fprintf(stderr, "bench_ssh: a run failed\n");
        return 1;
    }
    double ratio = median(t_eactl) / median(t_bare);
    printf("| measure | kvx-eactl | baseline | ratio / target |\n");
    printf("|---|---|---|---|\n");
    printf("| deploy, ping and removal over ssh to 127.0.0.1 (median of %d) | %.0f ms | %.0f ms "
           "(ssh HOST true) | %.2fx (<= 1.5x) %s |\n",
           rounds, median(t_eactl), median(t_bare), ratio, ratio <= 1.5 ? "ok" : "MISSED");
    return 0;
}
