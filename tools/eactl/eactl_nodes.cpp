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
#include <stdio.h>

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

int run_child(const EactlSession& proto, const EactlNode& node,
              const std::vector<EactlStep>& chain, char** argv)
{
    EactlSession s = proto;
    s.host = node.dest;
    s.node = node.name;
    s.port = node.port;
    s.login = node.user;
    s.tty = false;
    prefix_stdout(s.json ? "" : node.name + ": ");
    int rc = eactl_run_node(&s, chain, argv);
    fclose(stdout);
    return rc;
}

void print_summary(const EactlSession& proto, const std::vector<EactlNode>& nodes,
                   const std::vector<int>& results)
{
    int ok = 0;
    std::vector<std::string> failed, unreachable;
    for (size_t k = 0; k < nodes.size(); k++) {
        if (results[k] == EACTL_OK)
            ok++;
        else
            (results[k] == EACTL_UNREACHABLE ? unreachable : failed).push_back(nodes[k].name);
    }
    if (proto.json) {
        json_t* f = json_array();
        json_t* u = json_array();
        for (const std::string& n : failed)
            json_array_append_new(f, json_string(n.c_str()));
        for (const std::string& n : unreachable)
            json_array_append_new(u, json_string(n.c_str()));
        json_t* line = json_pack("{s:s, s:i, s:i, s:i, s:o, s:o}", "type", "summary", "ok", ok,
                                 "failed", (int)failed.size(), "unreachable", (int)unreachable.size(),
                                 "failed_hosts", f, "unreachable_hosts", u);
        char* text = line ? json_dumps(line, 0) : NULL;
        if (text)
            printf("%s\n", text);
        free(text);
        json_decref(line);
        fflush(stdout);
        return;
    }
    std::string text = "summary: " + std::to_string(ok) + " ok";
    for (const std::vector<std::string>* list : {&failed, &unreachable}) {
        text += ", " + std::to_string(list->size()) + (list == &failed ? " failed" : " unreachable");
        for (size_t k = 0; k < list->size(); k++)
            text += (k == 0 ? " (" : ", ") + (*list)[k] + (k + 1 == list->size() ? ")" : "");
    }
    printf("%s\n", text.c_str());
    fflush(stdout);
}

} /* namespace */

int eactl_run_nodes(const EactlSession& proto, const std::vector<EactlNode>& nodes,
                    int parallel, const std::vector<EactlStep>& chain, char** argv)
{
    std::vector<int> results(nodes.size(), EACTL_FAILED);
    std::vector<pid_t> pids(nodes.size(), -1);
    size_t next = 0;
    int running = 0;
    bool forwarded = false;
    fflush(stdout);
    fflush(stderr);
    while ((next < nodes.size() && !eactl_interrupted()) || running > 0) {
        if (eactl_interrupted() && !forwarded) {
            /* SIGTERM reached only this process: each node ends its own agent */
            for (size_t k = 0; k < nodes.size(); k++)
                if (pids[k] > 0)
                    kill(pids[k], SIGTERM);
            forwarded = true;
        }
        if (next < nodes.size() && running < parallel && !eactl_interrupted()) {
            pid_t pid = fork();
            if (pid == 0)
                _exit(run_child(proto, nodes[next], chain, argv));
            if (pid < 0)
                fprintf(stderr, "kvx-eactl: %s: fork: %s\n", nodes[next].name.c_str(), strerror(errno));
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
        for (size_t k = 0; k < nodes.size(); k++) {
            if (pids[k] != pid)
                continue;
            int code = WIFEXITED(st) ? WEXITSTATUS(st) : EACTL_FAILED;
            results[k] = code == EACTL_OK || code == EACTL_UNREACHABLE ? code : EACTL_FAILED;
            pids[k] = -1;
            running--;
        }
    }
    print_summary(proto, nodes, results);
    if (eactl_interrupted())
        return EACTL_SIGNALLED(eactl_interrupted());
    int worst = EACTL_OK;
    for (int r : results)
        if (r == EACTL_UNREACHABLE || (r != EACTL_OK && worst == EACTL_OK))
            worst = r;
    return worst;
}
