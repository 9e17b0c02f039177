/* metadata_testkit.h - a metadata service on 169.254.169.254:80 inside a
 * network namespace of the test's own, with only lo: no packet can leave. */
#ifndef METADATA_TESTKIT_H
#define METADATA_TESTKIT_H

#include <arpa/inet.h>
#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "httpclient.h"

namespace meta {

/* Moves this process into the namespace; "" or why not. */
inline std::string enter_private_netns()
{
    if (unshare(CLONE_NEWNET) != 0)
        return std::string("unshare(CLONE_NEWNET): ") + strerror(errno);
    if (system("! ip -o link show | grep -qv ': lo:' && ip link set lo up && "
               "ip addr add 169.254.169.254/32 dev lo") != 0)
        return "no namespace with lo only, or iproute2 failed";
    return "";
}

/* A response with its Content-Length. */
inline std::string http(int code, const std::string& body)
{
    return "HTTP/1.0 " + std::to_string(code) + " OK\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
}

struct Answer {
    std::string reply;        /* whole response */
    const char* expect = "";  /* text the request must contain */
    bool trickle = false;     /* sent a byte every 200 ms */
};

/* Forked server: one connection per answer, the last one repeating; each
 * request is appended to log (if any) with "====", after "UNEXPECTED" when
 * it lacks its text.  -1: nothing listens. */
inline pid_t serve(const std::vector<Answer>& answers, const std::string& log = "")
{
    int s = socket(AF_INET, SOCK_STREAM, 0), one = 1;
    struct sockaddr_in a = {AF_INET, htons(80), {inet_addr("169.254.169.254")}, {}};
    setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    if (answers.empty() || bind(s, (struct sockaddr*)&a, sizeof(a)) != 0 || listen(s, 8) != 0) {
        close(s);
        return -1;
    }
    pid_t pid = fork();
    for (size_t i = 0; pid == 0; i++) {
        const Answer& an = answers[std::min(i, answers.size() - 1)];
        int c = accept(s, NULL, NULL);
        char req[2048] = "";
        ssize_t n = recv(c, req, sizeof(req) - 1, 0);   /* the client sends each request whole */
        if (FILE* f = log.empty() ? NULL : fopen(log.c_str(), "a")) {
            fprintf(f, "%s%s====\n", n > 0 ? req : "", strstr(req, an.expect) ? "" : "UNEXPECTED\n");
            fclose(f);
        }
        for (size_t at = 0, step = an.trickle ? 1 : an.reply.size(); at < an.reply.size(); at += step)
            if (send(c, an.reply.data() + at, step, MSG_NOSIGNAL) < 0 || (an.trickle && usleep(200000)))
                break;
        close(c);
    }
    close(s);
    return pid;
}

inline void stop(pid_t server)
{
    if (server > 0 && kill(server, SIGKILL) == 0)
        waitpid(server, NULL, 0);
}

}  // namespace meta

#endif /* METADATA_TESTKIT_H */
