/*
 * test_http_responder.cpp - the scripted HTTP server of the client tests.
 */
#include "test_http_responder.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

TestResponder::TestResponder(std::vector<ResponderStep> steps, bool hold_open,
                             const char* addr, int port)
    : steps_(std::move(steps)), hold_open_(hold_open)
{
    struct sockaddr_in sa;
    socklen_t salen = sizeof(sa);
    int one = 1;

    listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listen_fd_ < 0)
        return;
    setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    memset(&sa, 0, sizeof(sa));
    sa.sin_family = AF_INET;
    sa.sin_port = htons((uint16_t)port);
    sa.sin_addr.s_addr = inet_addr(addr);
    if (bind(listen_fd_, (struct sockaddr*)&sa, sizeof(sa)) != 0 || listen(listen_fd_, 4) != 0 ||
        getsockname(listen_fd_, (struct sockaddr*)&sa, &salen) != 0) {
        close(listen_fd_);
        listen_fd_ = -1;
        return;
    }
    port_ = ntohs(sa.sin_port);
    thread_ = std::thread(&TestResponder::serve, this);
}

TestResponder::~TestResponder()
{
    stop_ = true;
    if (thread_.joinable())
        thread_.join();
    if (listen_fd_ >= 0)
        close(listen_fd_);
}

std::string TestResponder::request()
{
    std::lock_guard<std::mutex> lock(mu_);
    return request_;
}

std::vector<ResponderStep> TestResponder::once(const std::string& response)
{
    return { { 0, response } };
}

std::vector<ResponderStep> TestResponder::dribble(const std::string& response, size_t n, int delay_ms)
{
    std::vector<ResponderStep> steps;

    for (size_t i = 0; i < response.size(); i += n)
        steps.push_back({ delay_ms, response.substr(i, n) });
    return steps;
}

/* Polls in short slices so that the destructor's stop is seen quickly. */
bool TestResponder::wait_readable(int fd, int timeout_ms)
{
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);

    while (!stop_ && std::chrono::steady_clock::now() < until) {
        struct pollfd pfd = { fd, POLLIN, 0 };
        if (poll(&pfd, 1, 50) > 0)
            return true;
    }
    return false;
}

void TestResponder::serve()
{
    std::string head;
    char buf[1024];
    int fd;

    if (!wait_readable(listen_fd_, 60000))
        return;
    fd = accept(listen_fd_, NULL, NULL);
    if (fd < 0)
        return;
    while (head.find("\r\n\r\n") == std::string::npos && wait_readable(fd, 10000)) {
        ssize_t n = recv(fd, buf, sizeof(buf), 0);
        if (n <= 0)
            break;
        head.append(buf, (size_t)n);
    }
    {
        std::lock_guard<std::mutex> lock(mu_);
        request_ = head;
    }
    for (const ResponderStep& step : steps_) {
        if (step.delay_ms > 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(step.delay_ms));
        if (!step.bytes.empty() && send(fd, step.bytes.data(), step.bytes.size(), MSG_NOSIGNAL) < 0)
            break;
    }
    if (hold_open_) {
        while (!stop_)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    close(fd);
}
