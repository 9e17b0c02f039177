/*
 * bench_agent.cpp - measures the agent against simple baselines, side by
 * side in one run, and prints a table:
 *   - ping round trip over pipes vs. bench_echo_server (target: <= 1.5x)
 *   - message-mode exec round trip vs. the same server's popen+fread (<= 1.2x)
 *   - job status poll while the simulated backup program runs
 *   - start-up to first ping reply vs. spawning /bin/true
 *   - peak resident memory after 10,000 pings (target: <= 4 MiB)
 *   - resident memory across 10,000 unknown-fn requests (target: flat)
 * Agents and the baseline are deployed the way kvx-eactl does it.  Every
 * process runs on one CPU: otherwise where the scheduler happens to place
 * each peer (a wake-up across cores costs tens of microseconds on a virtual
 * machine) decides a round-trip ratio more than the peers' own work.
 *
 *   bench_agent [--agent PATH] [--pings N] [--execs N] [--starts N]
 */
#include <errno.h>
#include <sched.h>
#include <fcntl.h>
#include <ftw.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bench_args.h"
#include "ea_proto.h"
#include "eactl.h"
#include "exec_proto.h"

namespace {

double now_us()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1e6 + ts.tv_nsec / 1e3;
}

/* Starts program with --targetworkdir work as a direct child; the agent
 * only kills its parent when it cleans up, which a ping never causes. */
bool spawn(EactlSession* p, const std::string& program, const std::string& work)
{
    return eactl_start(p, {program, "--targetworkdir", work}, false) == 0;
}

int ping(ExecProto* proto, const char* text)
{
    PINGargs a = {(int)strlen(text) + 1, const_cast<char*>(text), false};
    char buf[EA_PING_MSG_SIZE];
    PINGres r = {0, (int)sizeof(buf), buf};
    return proto->call(EA_PROC_PING, JXDR_PROC(PINGargs, jxdr_PINGargs), (char*)&a,
                       JXDR_PROC(PINGres, jxdr_PINGres), (char*)&r);
}

/* Procedure 3 in message mode (block 0) or background mode (block 1). */
int exec(ExecProto* proto, const char* cmd, int block)
{
    ExecCmdres r;
    int rc = bench_exec(proto, cmd, block, &r);
    return rc != 0 ? rc : r.cmd_ret;
}

int job_status(ExecProto* proto, JOB_STATUS* st)
{
    JOBSTATUSargs a = {1};
    memset(st, 0, sizeof(*st));
    return proto->call(EA_PROC_JOBSTATUS, JXDR_PROC(JOBSTATUSargs, jxdr_JOBSTATUSargs), (char*)&a,
                       JXDR_PROC(JOB_STATUS, jxdr_JOBSTATUSres), (char*)st);
}

/* Deploys program as kvx-eactl deploys the agent (a copy under its own sh),
 * with more files installed beside it. */
bool deploy(EactlSession* s, const std::string& program, const std::vector<EactlFile>& files = {})
{
    s->agent_path = program;
    s->files = files;
    return eactl_deploy(s) == 0;
}

/* The deployed program: the innermost only child below the session's shell. */
pid_t deployed_pid(const EactlSession* s)
{
    pid_t pid = s->shell_pid;
    for (;;) {
        char path[64];
        snprintf(path, sizeof(path), "/proc/%d/task/%d/children", (int)pid, (int)pid);
        FILE* f = fopen(path, "r");
        int child = -1;
        if (f) {
            if (fscanf(f, "%d", &child) != 1)
                child = -1;
            fclose(f);
        }
        if (child <= 0)
            return pid;
        pid = child;
    }
}

/* A /proc/<pid>/status value in KiB ("VmHWM", "VmRSS"), -1 if absent. */
long status_kib(pid_t pid, const char* key)
{
    char path[64], line[256];
    snprintf(path, sizeof(path), "/proc/%d/status", (int)pid);
    FILE* f = fopen(path, "r");
    long v = -1;
    size_t klen = strlen(key);
    while (f && fgets(line, sizeof(line), f))
        if (strncmp(line, key, klen) == 0 && line[klen] == ':')
            v = atol(line + klen + 1);
    if (f)
        fclose(f);
    return v;
}

typedef int (*request_fn)(ExecProto* proto, const char* text);

int ping_request(ExecProto* proto, const char* text) { return ping(proto, text); }
int exec_request(ExecProto* proto, const char* text) { return exec(proto, text, 0); }

/* Mean microseconds per request for two peers, measured in ten interleaved
 * batches so that load on the machine falls on both alike.  false on a
 * failed request. */
bool interleaved(request_fn fn, const char* text, ExecProto* a, ExecProto* b, int n,
                 double* us_a, double* us_b)
{
    double total[2] = {0, 0};
    ExecProto* peers[2] = {a, b};
    for (ExecProto* p : peers)   /* warm-up */
        for (int k = 0; k < 20; k++)
            if (fn(p, text) != 0)
                return false;
    for (int round = 0; round < 10; round++) {
        for (int i = 0; i < 2; i++) {
            double t0 = now_us();
            for (int k = 0; k < n / 10; k++)
                if (fn(peers[i], text) != 0)
                    return false;
            total[i] += now_us() - t0;
        }
    }
    *us_a = total[0] / (n / 10 * 10);
    *us_b = total[1] / (n / 10 * 10);
    return true;
}

/* Mean microseconds per job status poll while the simulated backup program
 * (deployed with the agent) runs; starts it in the background first.  -1
 * when it never showed up. */
double status_rtt(EactlSession* s, int* polls)
{
    if (exec(s->proto, "kvxbackupvol --seconds 4 --exit 0", 1) != 0)
        return -1;
    JOB_STATUS st;
    do {   /* the first poll waits for the program's segment */
        if (job_status(s->proto, &st) != 0)
            return -1;
    } while (st.sts == 10 && st.stg == 0);
    double t0 = now_us();
    *polls = 0;
    while (now_us() - t0 < 2e6 && job_status(s->proto, &st) == 0 && st.sts != 10)
        ++*polls;
    double per = *polls ? (now_us() - t0) / *polls : -1;
    while (job_status(s->proto, &st) == 0 && st.sts != 10)   /* let the job end */
        usleep(200000);
    return per;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

int remove_entry(const char* path, const struct stat*, int, struct FTW*)
{
    remove(path);
    return 0;
}

} /* namespace */

int main(int argc, char** argv)
{
    std::string bindir = bench_bindir(argv[0]);
    std::string agent = bindir + "kvx_ea", echo = bindir + "bench_echo_server";
    long pings = 10000, execs = 300, starts = 30;
    if (!bench_options(argc, argv, {{"agent", &agent, nullptr}, {"pings", nullptr, &pings},
                                    {"execs", nullptr, &execs}, {"starts", nullptr, &starts}}))
        return 2;
    signal(SIGPIPE, SIG_IGN);
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(sched_getcpu() >= 0 ? sched_getcpu() : 0, &one);
    sched_setaffinity(0, sizeof(one), &one);   /* inherited by every peer */
    char tmpl[] = "/tmp/kvx-bench.XXXXXX";
    if (!mkdtemp(tmpl)) {
        perror("mkdtemp");
        return 1;
    }
    std::string work = std::string(tmpl) + "/work";
    mkdir(work.c_str(), 0755);

    /* Round trips, agent and baseline deployed side by side in the same run. */
    EactlSession a, e;
    if (!deploy(&a, agent, {{bindir + "kvxbackupvol-sim", "work/linux-kvx-client/kvxbackupvol"}}) ||
        !deploy(&e, echo)) {
        fprintf(stderr, "bench_agent: cannot deploy %s or %s\n", agent.c_str(), echo.c_str());
        return 1;
    }
    double rtt_agent = -1, rtt_echo = -1, exec_agent = -1, exec_echo = -1;
    const char* cmd = "echo benchmark";
    if (!interleaved(ping_request, "hello", a.proto, e.proto, pings, &rtt_agent, &rtt_echo) ||
        !interleaved(exec_request, cmd, a.proto, e.proto, execs, &exec_agent, &exec_echo)) {
        fprintf(stderr, "bench_agent: a request failed\n");
        return 1;
    }
    pid_t agent_pid = deployed_pid(&a);
    long hwm_pings = status_kib(agent_pid, "VmHWM");

    /* Unknown procedures get no reply: send them, then sync with one ping. */
    long rss_before = status_kib(agent_pid, "VmRSS");
    const char* unknown = "{\"ver\": 1, \"type\": 1, \"seq\": 1, \"fn\": 99, \"status\": 0, \"param\": {}}\n";
    for (int k = 0; k < pings; k++)
        fputs(unknown, a.to_agent);
    fflush(a.to_agent);
    int sync_rc = ping(a.proto, "sync");
    long rss_after = status_kib(agent_pid, "VmRSS");
    int polls = 0;
    double poll_us = status_rtt(&a, &polls);
    eactl_finish(&e);
    eactl_finish(&a);

    /* Start-up to first ping reply vs. spawning /bin/true. */
    std::vector<double> t_agent, t_true;
    for (int k = 0; k < starts; k++) {
        double t0 = now_us();
        EactlSession p;
        if (!spawn(&p, agent, work) || ping(p.proto, "first") != 0)
            return 1;
        t_agent.push_back(now_us() - t0);
        eactl_finish(&p);
        t0 = now_us();
        pid_t pid = fork();
        if (pid == 0) {
            execl("/bin/true", "true", (char*)NULL);
            _exit(127);
        }
        waitpid(pid, NULL, 0);
        t_true.push_back(now_us() - t0);
    }
    nftw(tmpl, remove_entry, 16, FTW_DEPTH | FTW_PHYS);

    double ratio = rtt_echo > 0 ? rtt_agent / rtt_echo : 0;
    double exec_ratio = exec_echo > 0 ? exec_agent / exec_echo : 0;
    printf("| measure | agent | baseline | ratio / target |\n");
    printf("|---|---|---|---|\n");
    printf("| ping round trip (%ld pings) | %.1f us | %.1f us (Jansson echo server) | %.2fx (<= 1.5x) %s |\n",
           pings, rtt_agent, rtt_echo, ratio, ratio <= 1.5 ? "ok" : "MISSED");
    printf("| message-mode exec round trip (%ld x \"%s\") | %.0f us | %.0f us (popen+fread server) | %.2fx (<= 1.2x) %s |\n",
           execs, cmd, exec_agent, exec_echo, exec_ratio, exec_ratio > 0 && exec_ratio <= 1.2 ? "ok" : "MISSED");
    printf("| job status poll, live segment (%d polls) | %.1f us | | |\n", polls, poll_us);
    printf("| start-up to first ping reply (median of %ld) | %.0f us | %.0f us (/bin/true) | %.1fx |\n",
           starts, median(t_agent), median(t_true), median(t_agent) / median(t_true));
    printf("| peak RSS after %ld pings | %ld KiB | | <= 4096 KiB %s |\n", pings, hwm_pings,
           hwm_pings > 0 && hwm_pings <= 4096 ? "ok" : "MISSED");
    printf("| RSS across %ld unknown-fn requests | %ld -> %ld KiB | | flat %s |\n", pings,
           rss_before, rss_after, sync_rc == 0 && rss_after - rss_before <= 64 ? "ok" : "MISSED");
    return 0;
}
