/*
 * bench_ssh.cpp - the operator client on 8 nodes over ssh against a bare ssh
 * command to each: "kvx-eactl --host node[1-8] ping" (per node the
 * architecture check, the agent from the node's cache or a copy, its start,
 * one ping and the removal) against "ssh NODE true" to the 8 nodes at once.
 * The nodes are aliases of a private sshd, each on an address of its own
 * (127.0.0.1 to 127.0.0.8), so that each has a connection of its own.
 *
 *   cold: no shared connection and an empty agent cache on the nodes (the
 *         client's memo of its agent's hash is kept);
 *   warm: the shared connections and the cached agent of an earlier call.
 *
 * The agent is deployed stripped, as the package ships it.
 * pdsh ("pdsh -w node[1-8] true") and Ansible ("ansible -m raw -a true",
 * 8 forks) are measured beside them when installed.  Rounds interleave the
 * measures; medians are reported.  Targets: warm <= 0.6x, cold <= 1.2x.
 *
 *   bench_ssh [--rounds N] [--nodes N]
 */
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bench_args.h"
#include "sshd_sandbox.h"

namespace {

typedef std::vector<std::string> Command;

double now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

/* Milliseconds that all commands, started at once, took; -1 when one failed. */
double timed_together(const std::vector<Command>& commands)
{
    double t0 = now_ms();
    std::vector<pid_t> pids;
    for (const Command& c : commands) {
        pid_t pid = fork();
        if (pid == 0)
            _exit(sshd_sandbox_run(c) == 0 ? 0 : 1);
        pids.push_back(pid);
    }
    bool ok = true;
    for (pid_t pid : pids) {
        int st = 0;
        ok = waitpid(pid, &st, 0) == pid && WIFEXITED(st) && WEXITSTATUS(st) == 0 && ok;
    }
    return ok ? now_ms() - t0 : -1;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

bool installed(const char* program)
{
    return sshd_sandbox_run({"sh", "-c", std::string("command -v ") + program}) == 0;
}

struct Measure {
    const char* name;
    std::vector<double> ms;
};

} /* namespace */

int main(int argc, char** argv)
{
    long rounds = 10, nodes = 8;
    if (!bench_options(argc, argv, {{"rounds", nullptr, &rounds}, {"nodes", nullptr, &nodes}}) ||
        rounds < 1 || nodes < 1 || nodes > 200) {
        fprintf(stderr, "usage: bench_ssh [--rounds N] [--nodes N (1-200)]\n");
        return 2;
    }
    std::string bindir = bench_bindir(argv[0]);

    std::vector<std::string> aliases;
    for (int k = 1; k <= nodes; k++)
        aliases.push_back("node" + std::to_string(k));
    SshdSandbox sb;
    std::string error;
    if (!sshd_sandbox_start(&sb, aliases, &error)) {
        fprintf(stderr, "bench_ssh: %s\n", error.c_str());
        return 1;
    }
    std::string ssh = "ssh -F " + sb.client_config;
    std::string range = "node[1-" + std::to_string(nodes) + "]";
    std::string warm_dir = sb.dir + "/cm-warm", cold_dir = sb.dir + "/cm-cold";

    std::vector<Command> bare;
    for (const std::string& a : aliases)
        bare.push_back({"ssh", "-F", sb.client_config, a, "true"});
    /* the agent as the package ships it: stripped (the build tree's carries debug information) */
    std::string agent = sb.dir + "/kvx_ea-static";
    if (sshd_sandbox_run({"sh", "-c", "strip --strip-unneeded -o " + agent + " " + bindir + "kvx_ea-static"}) != 0) {
        fprintf(stderr, "bench_ssh: cannot strip a copy of %skvx_ea-static\n", bindir.c_str());
        sshd_sandbox_stop(&sb);
        return 1;
    }
    Command eactl = {bindir + "kvx-eactl", "--ssh", ssh, "--agent", agent, "--host", range, "ping", "bench"};
    Command warm = {"env", "KVX_EACTL_CONTROL_DIR=" + warm_dir};
    warm.insert(warm.end(), eactl.begin(), eactl.end());
    Command cold = {"env", "KVX_EACTL_CONTROL_DIR=" + cold_dir};
    cold.insert(cold.end(), eactl.begin(), eactl.end());
    Command cold_plain = cold;
    cold_plain.insert(cold_plain.begin() + 3, "--no-reuse");
    /* untimed between cold rounds: no shared connection, no cached agent */
    Command forget = {"sh", "-c", "for h in " + [&] { std::string l; for (auto& a : aliases) l += a + " "; return l; }() +
                                  "; do ssh -F " + sb.client_config + " -o ControlPath=" + cold_dir +
                                  "/%C -O exit $h 2>/dev/null; done; rm -rf " + sb.dir + "/cache; true"};
    std::string hostlist;
    for (const std::string& a : aliases)
        hostlist += a + ",";
    Command pdsh = {"env", "PDSH_SSH_ARGS=-F " + sb.client_config + " -x %h", "pdsh", "-R", "ssh",
                    "-f", std::to_string(nodes), "-w", range, "true"};
    Command ansible = {"env", "ANSIBLE_HOST_KEY_CHECKING=False", "ANSIBLE_HOME=" + sb.dir + "/ansible",
                       "ANSIBLE_SSH_ARGS=-F " + sb.client_config, "ansible", "all", "-i", hostlist,
                       "-f", std::to_string(nodes), "-m", "raw", "-a", "true"};
    bool with_pdsh = installed("pdsh"), with_ansible = installed("ansible");

    std::vector<Measure> m = {{"bare", {}}, {"cold", {}}, {"warm", {}}, {"pdsh", {}}, {"ansible", {}},
                              {"cold-no-reuse", {}}};
    int failed = 0;
    sshd_sandbox_run(warm);   /* the warm measure's connections and cache */
    for (int k = 0; k < rounds + 1 && !failed; k++) {   /* the first round warms up */
        sshd_sandbox_run(forget);
        double t[6] = {timed_together({bare}), timed_together({cold}), timed_together({warm}),
                       with_pdsh ? timed_together({pdsh}) : 0, with_ansible ? timed_together({ansible}) : 0, 0};
        sshd_sandbox_run(forget);
        t[5] = timed_together({cold_plain});
        for (int j = 0; j < 6; j++) {
            failed = failed || t[j] < 0;
            if (k > 0)
                m[j].ms.push_back(t[j]);
        }
    }
    sshd_sandbox_run(forget);
    for (const std::string& a : aliases)
        sshd_sandbox_run({"ssh", "-F", sb.client_config, "-o", "ControlPath=" + warm_dir + "/%C", "-O", "exit", a});
    sshd_sandbox_stop(&sb);
    if (failed) {
        fprintf(stderr, "bench_ssh: a run failed\n");
        return 1;
    }
    double base = median(m[0].ms);
    printf("| measure (%ld nodes over ssh to 127.0.0.x, median of %ld) | time | ratio to bare ssh / target |\n",
           nodes, rounds);
    printf("|---|---|---|\n");
    printf("| `ssh NODE true` to each node at once | %.0f ms | 1.00x |\n", base);
    const struct { int j; const char* what; double target; } rows[] = {
        {1, "kvx-eactl ping, cold (new connections, agent copied)", 1.2},
        {2, "kvx-eactl ping, warm (shared connections, cached agent)", 0.6},
        {5, "kvx-eactl --no-reuse ping, cold (agent copied)", 0},
        {3, "pdsh -w node[1-N] true", 0},
        {4, "ansible all -m raw -a true (-f N)", 0},
    };
    for (const auto& r : rows) {
        if ((r.j == 3 && !with_pdsh) || (r.j == 4 && !with_ansible))
            continue;
        double v = median(m[r.j].ms);
        if (r.target > 0)
            printf("| %s | %.0f ms | %.2fx (<= %.1fx) %s |\n", r.what, v, v / base, r.target,
                   v / base <= r.target ? "ok" : "MISSED");
        else
            printf("| %s | %.0f ms | %.2fx |\n", r.what, v, v / base);
    }
    return 0;
}
