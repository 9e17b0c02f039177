/*
 * eactl_nodes.cpp - many nodes at once: the list of nodes, one process per
 * node (at most --parallel at a time), each node's output lines prefixed
 * with its name, and the summary line.
 */
#include "eactl.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>
#include <jansson.h>

namespace {

/* Standard output of a node's process: whole lines, each written at once
 * behind the node's prefix, so that parallel nodes never mix in a line. */
struct PrefixedOut {
    std::string prefix;
    std::string line;
};

void write_all(const std::string& text)
{
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = write(STDOUT_FILENO, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        done += (size_t)n;
    }
}

ssize_t prefixed_write(void* cookie, const char* buf, size_t size)
{
    PrefixedOut* out = (PrefixedOut*)cookie;
    out->line.append(buf, size);
    size_t nl;
    while ((nl = out->line.find('\n')) != std::string::npos) {
        write_all(out->prefix + out->line.substr(0, nl + 1));
        out->line.erase(0, nl + 1);
    }
    return (ssize_t)size;
}

int prefixed_close(void* cookie)
{
    PrefixedOut* out = (PrefixedOut*)cookie;
    if (!out->line.empty())
        write_all(out->prefix + out->line + "\n");
    delete out;
    return 0;
}

void prefix_stdout(const std::string& prefix)
{
    cookie_io_functions_t io = {nullptr, prefixed_write, nullptr, prefixed_close};
    PrefixedOut* out = new PrefixedOut{prefix, ""};
    FILE* f = fopencookie(out, "w", io);
    if (!f) {
        delete out;
        return;
    }
    stdout = f;
}

int run_child(const EactlSession& proto, const std::string& host,
              const std::vector<EactlStep>& chain, char** argv)
{
    EactlSession s = proto;
    s.host = host;
    s.node = host;
    s.tty = false;
    prefix_stdout(s.json ? "" : host + ": ");
    int rc = eactl_run_node(&s, chain, argv);
    fclose(stdout);
    return rc;
}

void print_summary(const EactlSession& proto, const std::vector<std::string>& hosts,
                   const std::vector<int>& results)
{
    int count[4] = {0, 0, 0, 0};
    std::string missed;
    for (size_t k = 0; k < hosts.size(); k++) {
        count[results[k]]++;
        if (results[k] != EACTL_OK)
            missed += (missed.empty() ? "" : ", ") + hosts[k];
    }
    if (proto.json) {
        json_t* line = json_pack("{s:{s:i, s:i, s:i}}", "summary", "ok", count[EACTL_OK],
                                 "failed", count[EACTL_FAILED], "unreachable",
                                 count[EACTL_UNREACHABLE]);
        char* text = line ? json_dumps(line, 0) : NULL;
        if (text)
            printf("%s\n", text);
        free(text);
        json_decref(line);
        return;
    }
    printf("summary: %d ok, %d failed, %d unreachable%s%s%s\n", count[EACTL_OK],
           count[EACTL_FAILED], count[EACTL_UNREACHABLE], missed.empty() ? "" : " (",
           missed.c_str(), missed.empty() ? "" : ")");
}

} /* namespace */

int eactl_read_hosts(const char* path, std::vector<std::string>* hosts)
{
    FILE* f = fopen(path, "r");
    if (!f) {
        fprintf(stderr, "kvx-eactl: cannot read %s: %s\n", path, strerror(errno));
        return -1;
    }
    char line[1024];
    int rc = 0;
    for (int number = 1; rc == 0 && fgets(line, sizeof(line), f); number++) {
        line[strcspn(line, "#\r\n")] = '\0';
        std::vector<std::string> words = eactl_split_command(line);
        if (words.size() > 1 || (words.size() == 1 && (words[0].empty() || words[0][0] == '-'))) {   /* as for --host; '' is no host */
            fprintf(stderr, "kvx-eactl: %s:%d: one ssh destination per line\n", path, number);
            rc = -1;
        } else if (words.size() == 1) {
            hosts->push_back(words[0]);
        }
    }
    fclose(f);
    return rc;
}

int eactl_run_nodes(const EactlSession& proto, const std::vector<std::string>& hosts,
                    int parallel, const std::vector<EactlStep>& chain, char** argv)
{
    std::vector<int> results(hosts.size(), EACTL_FAILED);
    std::vector<pid_t> pids(hosts.size(), -1);
    size_t next = 0;
    int running = 0;
    fflush(stdout);
    fflush(stderr);
    while (next < hosts.size() || running > 0) {
        if (next < hosts.size() && running < parallel) {
            pid_t pid = fork();
            if (pid == 0)
                _exit(run_child(proto, hosts[next], chain, argv));
            if (pid < 0)
                fprintf(stderr, "kvx-eactl: %s: fork: %s\n", hosts[next].c_str(), strerror(errno));
            else
                running++;
            pids[next++] = pid;
            continue;
        }
        int st = 0;
        pid_t pid = waitpid(-1, &st, 0);
        if (pid < 0) {
            if (errno == EINTR)
                continue;
            break;
        }
        for (size_t k = 0; k < hosts.size(); k++) {
            if (pids[k] != pid)
                continue;
            int code = WIFEXITED(st) ? WEXITSTATUS(st) : EACTL_FAILED;
            results[k] = code == EACTL_OK || code == EACTL_UNREACHABLE ? code : EACTL_FAILED;
            running--;
        }
    }
    print_summary(proto, hosts, results);
    for (int r : results)
        if (r != EACTL_OK)
            return EACTL_FAILED;
    return EACTL_OK;
}
