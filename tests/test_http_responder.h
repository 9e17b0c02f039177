/*
 * test_http_responder.h - a scripted one-connection HTTP server for the
 * client tests.  It listens on an address of this machine (a free port by
 * default), accepts one connection, reads the request head, then plays its
 * steps: wait, send bytes.  Afterwards it closes the connection, or holds it
 * open and silent until the responder is destroyed.
 */
#ifndef TEST_HTTP_RESPONDER_H
#define TEST_HTTP_RESPONDER_H

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct ResponderStep {
    int delay_ms;        /* wait before sending */
    std::string bytes;   /* what to send (may be empty) */
};

class TestResponder {
public:
    /* Starts listening and serving; ok() tells whether the socket is up. */
    TestResponder(std::vector<ResponderStep> steps, bool hold_open = false,
                  const char* addr = "127.0.0.1", int port = 0);
    ~TestResponder();

    bool ok() const { return listen_fd_ >= 0; }
    int port() const { return port_; }
    /* The request head as received (empty until it has arrived). */
    std::string request();

    /* One step sending the whole of a response at once. */
    static std::vector<ResponderStep> once(const std::string& response);
    /* The response cut into pieces of n bytes sent delay_ms apart. */
    static std::vector<ResponderStep> dribble(const std::string& response, size_t n, int delay_ms);

private:
    void serve();
    bool wait_readable(int fd, int timeout_ms);

    std::vector<ResponderStep> steps_;
    bool hold_open_;
    int listen_fd_ = -1;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    std::mutex mu_;
    std::string request_;
    std::thread thread_;
};

#endif /* TEST_HTTP_RESPONDER_H */
