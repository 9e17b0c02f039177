/*
 * bench_soak.cpp - one long session against the agent, deployed as
 * kvx-eactl deploys it:
 *   - pipelined pings (default 200,000; up to 2,000 requests in flight), each
 *     reply checked for its sequence number and echo;
 *   - message-mode commands (default 2,000), each reply checked for its output;
 *   - background jobs of the simulated backup program (default 500), each
 *     polled through procedure 2 until it has ended.
 * Prints the figures, the replies lost or out of order (target 0), and the
 * agent's resident memory and descriptor count after a warm-up and at the
 * end (target: at most 64 KiB of growth, no descriptor more).
 *
 *   bench_soak [--agent PATH] [--pings N] [--execs N] [--jobs N]
 */
#include <dirent.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <jansson.h>

#include <string>
#include <thread>

#include "bench_args.h"
#include "ea_proto.h"
#include "eactl.h"
#include "exec_proto.h"

namespace {

double now_s()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

/* The deployed agent: the innermost only child below the session's shell. */
pid_t agent_pid(const EactlSession* s)
{
    pid_t pid = s->shell_pid;
    for (int child = 0;; pid = child) {
        char path[64];
        snprintf(path, sizeof(path), "/proc/%d/task/%d/children", (int)pid, (int)pid);
        FILE* f = fopen(path, "r");
        if (!f || fscanf(f, "%d", &child) != 1)
            child = 0;
        if (f)
            fclose(f);
        if (child <= 0)
            return pid;
    }
}

long rss_kib(pid_t pid)
{
    char path[64], line[256];
    snprintf(path, sizeof(path), "/proc/%d/status", (int)pid);
    FILE* f = fopen(path, "r");
    long v = -1;
    while (f && fgets(line, sizeof(line), f))
        if (strncmp(line, "VmRSS:", 6) == 0)
            v = atol(line + 6);
    if (f)
        fclose(f);
    return v;
}

int fd_count(pid_t pid)
{
    std::string path = "/proc/" + std::to_string(pid) + "/fd";
    DIR* d = opendir(path.c_str());
    int n = 0;
    for (struct dirent* e; d && (e = readdir(d));)
        n += e->d_name[0] != '.';
    if (d)
        closedir(d);
    return n;
}

/* n pings with sequence numbers from first, written by a second thread while
 * the replies are read; the replies that did not come back in order. */
long pipelined_pings(EactlSession* s, long first, long n)
{
    const long window = 2000;
    long taken = 0, bad = 0;   /* taken: replies read so far */
    FILE* out = ((STDIOChannel*)s->proto->m_channel)->m_fout;
    std::thread writer([&] {
        char line[160];
        for (long i = 0; i < n; i++) {
            if (i - __atomic_load_n(&taken, __ATOMIC_ACQUIRE) >= window) {
                fflush(out);
                while (i - __atomic_load_n(&taken, __ATOMIC_ACQUIRE) >= window)
                    sched_yield();
            }
            snprintf(line, sizeof(line), "{\"ver\": 1, \"type\": 1, \"seq\": %ld, \"fn\": 1, \"status\": 0, "
                     "\"param\": {\"str\": \"p%ld\"}}\n", first + i, first + i);
            fputs(line, out);
        }
        fflush(out);
    });
    static char buf[65536];
    for (long i = 0; i < n; i++) {
        int len;
        do
            len = s->proto->m_channel->read_line(buf, sizeof(buf));
        while (len == 1);   /* the empty line that ends each record */
        json_t* r = len > 0 ? json_loads(buf, JSON_DISABLE_EOF_CHECK, NULL) : NULL;
        char want[32];
        snprintf(want, sizeof(want), "p%ld", first + i);
        const char* echo = json_string_value(json_object_get(json_object_get(r, "param"), "str"));
        if (!r || json_integer_value(json_object_get(r, "seq")) != first + i || !echo || strcmp(echo, want) != 0)
            bad++;
        json_decref(r);
        __atomic_store_n(&taken, i + 1, __ATOMIC_RELEASE);
        if (len <= 0) {
            bad += n - i - 1;
            break;
        }
    }
    writer.join();
    return bad;
}

/* Procedure 3; 0 when the reply came with status 0 (and output "soak" in
 * message mode). */
int exec(ExecProto* proto, const char* cmd, int block)
{
    ExecCmdres r;
    if (bench_exec(proto, cmd, block, &r) != 0 || r.cmd_ret != 0)
        return -1;
    return block || (r.cmd && strncmp(r.cmd, "soak", 4) == 0) ? 0 : -1;
}

/* Polls procedure 2 until the job has ended; the number of polls, -1 on a failed call. */
int poll_to_end(ExecProto* proto)
{
    JOBSTATUSargs a = {1};
    JOB_STATUS st;
    for (int polls = 1;; polls++) {
        memset(&st, 0, sizeof(st));
        if (proto->call(EA_PROC_JOBSTATUS, JXDR_PROC(JOBSTATUSargs, jxdr_JOBSTATUSargs), (char*)&a,
                        JXDR_PROC(JOB_STATUS, jxdr_JOBSTATUSres), (char*)&st) != 0)
            return -1;
        if (st.sts == 10)
            return polls;
    }
}

} /* namespace */

int main(int argc, char** argv)
{
    std::string bindir = bench_bindir(argv[0]);
    std::string agent = bindir + "kvx_ea";
    long pings = 200000, execs = 2000, jobs = 500;
    if (!bench_options(argc, argv, {{"agent", &agent, nullptr}, {"pings", nullptr, &pings},
                                    {"execs", nullptr, &execs}, {"jobs", nullptr, &jobs}}))
        return 2;
    signal(SIGPIPE, SIG_IGN);
    EactlSession s;
    s.agent_path = agent;
    s.files = {{bindir + "kvxbackupvol-sim", "work/linux-kvx-client/kvxbackupvol"}};
    if (eactl_deploy(&s) != 0) {
        fprintf(stderr, "bench_soak: cannot deploy %s\n", agent.c_str());
        return 1;
    }
    pid_t pid = agent_pid(&s);

    /* warm-up: every kind of request once, then the baseline */
    long lost = pipelined_pings(&s, 1, 10000);
    int failed = exec(s.proto, "echo soak", 0) + exec(s.proto, "kvxbackupvol --seconds 0", 1);
    failed += poll_to_end(s.proto) < 0;
    long rss0 = rss_kib(pid);
    int fds0 = fd_count(pid);

    double t0 = now_s();
    lost += pipelined_pings(&s, 100000, pings);
    double t_pings = now_s() - t0;
    t0 = now_s();
    for (long i = 0; i < execs; i++)
        failed += exec(s.proto, "echo soak", 0) != 0;
    double t_execs = now_s() - t0;
    t0 = now_s();
    long polls = 0;
    for (long i = 0; i < jobs; i++) {
        failed += exec(s.proto, "kvxbackupvol --seconds 0", 1) != 0;
        int p = poll_to_end(s.proto);
        failed += p < 0;
        polls += p > 0 ? p : 0;
    }
    double t_jobs = now_s() - t0;
    long rss1 = rss_kib(pid);
    int fds1 = fd_count(pid);
    eactl_finish(&s);

    bool flat = rss1 - rss0 <= 64 && fds1 <= fds0;
    printf("| measure | figure |\n|---|---|\n");
    printf("| %ld pipelined pings | %.1f s (%.1f us each) |\n", pings, t_pings, t_pings * 1e6 / pings);
    printf("| %ld message-mode commands (\"echo soak\") | %.1f s (%.0f us each) |\n", execs, t_execs,
           t_execs * 1e6 / execs);
    printf("| %ld background jobs polled to their end | %.1f s (%ld polls) |\n", jobs, t_jobs, polls);
    printf("| replies lost or out of order | %ld (failed calls %d) |\n", lost, failed);
    printf("| RSS after warm-up -> end | %ld -> %ld KiB |\n", rss0, rss1);
    printf("| descriptors after warm-up -> end | %d -> %d |\n", fds0, fds1);
    printf("%s\n", lost == 0 && failed == 0 && flat ? "soak ok" : "soak FAILED");
    return lost == 0 && failed == 0 && flat ? 0 : 1;
}
