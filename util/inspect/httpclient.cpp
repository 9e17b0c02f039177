/*
 * httpclient.cpp - one HTTP/1.0 GET over a plain IPv4 TCP connection, and
 * the cloud instance metadata lookup built on it.  No names, no TLS, no
 * redirects, no chunks: send one request, read until the announced body is
 * there, close.  Responses live in an 8192-byte buffer, so this is only for
 * short values.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <new>

#include "httpclient.h"
#include "zelcommon.h"
#include "zellog.h"

#define HTTP_TIMEOUT_SEC  5
#define HTTP_RETRY_MAX    10
#define META_SERVER       "169.254.169.254"
#define META_PORT         80
#define META_PATH         "/latest/meta-data/"
#define META_TOKEN_PATH   "/latest/api/token"
#define META_TOKEN_TTL    "X-aws-ec2-metadata-token-ttl-seconds: 60\r\n"
#define META_TOKEN_HEADER "X-aws-ec2-metadata-token: "
#define META_TOKEN_MAX    256
#define META_DEADLINE_SEC 60     /* the whole lookup, token step included */

/* The send time-out also bounds connect(); each is set in this order. */
static const struct {
    int option;
    const char* failure;   /* log format: strerror text, errno */
} socket_timeouts[] = {
    { SO_SNDTIMEO, "Fail to set the time out for connection:%s(%d)\n" },
    { SO_RCVTIMEO, "Fail to set the time out for receive message:%s(%d)\n" },
};

namespace KVXHttpC {

HttpC::HttpC()
    : m_ip(""), m_uri(""), m_port(0), m_socketFd(-1),
      m_headLen(0), m_conLen(0), m_len(0), m_status(0), m_secret(false), m_deadline(0)
{
    m_buf[0] = '\0';
}

/*
 * The time-out for the next socket wait into tv: 5 seconds, or less when the
 * deadline comes sooner.  0 when the deadline has passed, else 1.
 */
int HttpC::HttpTimeLeft(struct timeval* tv) const
{
    long long left = m_deadline > 0 ? m_deadline - zel_now_ms() : HTTP_TIMEOUT_SEC * 1000LL;

    if (left <= 0)
        return 0;
    if (left > HTTP_TIMEOUT_SEC * 1000LL)
        left = HTTP_TIMEOUT_SEC * 1000LL;
    tv->tv_sec = (time_t)(left / 1000);
    tv->tv_usec = (suseconds_t)(left % 1000 * 1000);
    return 1;
}

HttpC::~HttpC()
{
    HttpClose();   /* a client dropped while open does not leak its socket */
}

/*
 * Connects to ip:port with 5-second send (and connect) and receive
 * time-outs.  The descriptor (>= 0); -1 on a socket, option or connect
 * failure; -3 when ip is not a dotted IPv4 address (or is 255.255.255.255).
 * On failure no socket is left open.
 */
int HttpC::HttpOpen(std::string ip, int port)
{
    struct timeval tv;
    struct sockaddr_in sa;
    in_addr_t addr;
    int err;

    m_ip = ip;
    m_port = port;
    ZELLogFunction(4, "httpclient", __LINE__, "Connection ip=%s, port=%d\n", m_ip.c_str(), m_port);

    m_socketFd = socket(AF_INET, SOCK_STREAM, 0);
    if (m_socketFd < 0) {
        err = errno;
        ZELLogFunction(0, "httpclient", __LINE__, "Fail to create socket:%s(%d)\n", strerror(err), err);
        return -1;
    }
    if (!HttpTimeLeft(&tv)) {
        ZELLogFunction(0, "httpclient", __LINE__, "Fail to create connection:%s(%d)\n",
                       strerror(ETIMEDOUT), ETIMEDOUT);
        HttpClose();
        return -1;
    }
    for (const auto& t : socket_timeouts) {
        if (setsockopt(m_socketFd, SOL_SOCKET, t.option, &tv, sizeof(tv)) != 0) {
            err = errno;
            ZELLogFunction(0, "httpclient", __LINE__, t.failure, strerror(err), err);
            HttpClose();
            return -1;
        }
    }

    addr = inet_addr(m_ip.c_str());
    if (addr == INADDR_NONE) {
        HttpClose();
        return -3;
    }
    memset(&sa, 0, sizeof(sa));
    sa.sin_family = AF_INET;
    sa.sin_port = htons((uint16_t)port);
    sa.sin_addr.s_addr = addr;
    if (connect(m_socketFd, (struct sockaddr*)&sa, sizeof(sa)) != 0) {
        err = errno;
        ZELLogFunction(0, "httpclient", __LINE__, "Fail to create connection:%s(%d)\n", strerror(err), err);
        HttpClose();
        return -1;
    }
    return m_socketFd;
}

/* Closes the socket if open; the result of close, or 0 if nothing was open. */
int HttpC::HttpClose()
{
    int rc = 0;

    /* descriptor 0 is a socket too when standard input was closed */
    if (m_socketFd >= 0) {
        rc = close(m_socketFd);
        m_socketFd = -1;
    }
    return rc;
}

/* The response text for the log, unless it carries a secret. */
const char* HttpC::Shown() const
{
    return m_secret ? "(not logged)" : m_buf;
}

/* Body length from the head read so far (last "Content-Length: " line). */
int HttpC::HttpGetConLen()
{
    m_conLen = http_content_length(m_buf, m_len);
    return m_conLen;
}

/* 1 complete response in m_buf, 0 not yet, -7 bad status line or code. */
int HttpC::HttpContentIsReady()
{
    return http_content_ready(m_buf, &m_len, &m_headLen, &m_conLen);
}

/*
 * Receives until the response is complete.  0; -2 bad status line or code;
 * -4 receive error, peer closed (or buffer full) first, or more than 10
 * receive time-outs.
 */
int HttpC::HttpReadResponse()
{
    int retries = 0;
    int err, rc;
    ssize_t n;

    m_conLen = 0;
    m_headLen = 0;
    m_len = 0;
    m_status = 0;
    m_buf[0] = '\0';

    for (;;) {
        struct timeval tv;
        /* a deadline bounds the whole response, however slowly it trickles in */
        if (m_deadline > 0 && (!HttpTimeLeft(&tv) ||
                               setsockopt(m_socketFd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv)) != 0)) {
            ZELLogFunction(0, "httpclient", __LINE__, "Fail to try to read header:(%d) %s\n",
                           ETIMEDOUT, strerror(ETIMEDOUT));
            ZELLogFunction(0, "httpclient", __LINE__, "HTTP response is (%s)\n", Shown());
            return -4;
        }
        n = recv(m_socketFd, m_buf + m_len, sizeof(m_buf) - 1 - (size_t)m_len, 0);
        if (n < 0) {
            err = errno;
            if ((err == EAGAIN || err == EWOULDBLOCK) && m_deadline > 0 && !HttpTimeLeft(&tv))
                continue;   /* the deadline, not a retry */
            if ((err == EAGAIN || err == EWOULDBLOCK) && retries < HTTP_RETRY_MAX) {
                retries++;
                ZELLogFunction(0, "httpclient", __LINE__, "Try again.\n");
                continue;
            }
            ZELLogFunction(0, "httpclient", __LINE__, "Fail to try to read header:(%d) %s\n", err, strerror(err));
            ZELLogFunction(0, "httpclient", __LINE__, "HTTP response is (%s)\n", Shown());
            return -4;
        }
        if (n == 0) {
            /* nothing more can arrive: stop instead of receiving forever */
            ZELLogFunction(0, "httpclient", __LINE__, "Fail to try to read header:(%d) %s\n",
                           0, "connection closed");
            ZELLogFunction(0, "httpclient", __LINE__, "HTTP response is (%s)\n", Shown());
            return -4;
        }
        m_len += (int)n;
        m_buf[m_len] = '\0';

        rc = HttpContentIsReady();
        if (rc != 0 && http_status_fields(m_buf, m_len, &m_status) < 2)
            m_status = 0;
        if (rc == 1) {
            m_buf[m_len] = '\0';
            ZELLogFunction(5, "httpclient", __LINE__, "HTTP response is (%s)\n", Shown());
            ZELLogFunction(5, "httpclient", __LINE__,
                           "HTTP response header length is %d, content lenth is %d, total length is %d\n",
                           m_headLen, m_conLen, m_len);
            return 0;
        }
        if (rc < 0) {
            ZELLogFunction(0, "httpclient", __LINE__, "Fail to parse header: %d\n", rc);
            ZELLogFunction(3, "httpclient", __LINE__, "HTTP response is (%s)\n", Shown());
            return -2;
        }
    }
}

/*
 * Sends "GET uri" and reads the response.  0 with the body in outContent;
 * -6 when the request was not sent whole; else HttpReadResponse's result.
 */
int HttpC::HttpMakeRequest(std::string uri, std::string& outContent)
{
    return HttpMakeRequestEx("GET", uri, "", outContent);
}

/* HttpMakeRequest with the method and extra header lines given. */
int HttpC::HttpMakeRequestEx(const char* method, std::string uri, const std::string& headers,
                             std::string& outContent)
{
    std::string req = std::string(method) + " " + uri +
                      " HTTP/1.0\r\nUser-Agent: kvx/1.0\r\nAccept: */*\r\n" + headers + "\r\n";
    ssize_t sent;
    int err, rc;

    m_uri = uri;
    /* a peer that has gone away gives EPIPE here, not a SIGPIPE for the agent */
    sent = send(m_socketFd, req.data(), req.size(), MSG_NOSIGNAL);
    if (sent < (ssize_t)req.size()) {
        err = errno;
        ZELLogFunction(0, "httpclient", __LINE__, "Fail to send request: %s(%d)\n", strerror(err), err);
        return -6;
    }
    ZELLogFunction(5, "httpclient", __LINE__, "Send request in %d bytes\n", (int)sent);

    rc = HttpReadResponse();
    if (rc < 0) {
        ZELLogFunction(0, "httpclient", __LINE__, "Fail to read response(rc=%d)\n", rc);
        return rc;
    }
    /* the head lies within the bytes received, which stay terminated */
    outContent = std::string(m_buf + m_headLen);
    return 0;
}

} /* namespace KVXHttpC */

/* See httpclient.h. */
int http_get(const char* ip, int port, const char* uri, char* out, int* outlen)
{
    return http_request(ip, port, "GET", uri, "", out, outlen, NULL, 0, 0);
}

/* See httpclient.h. */
int http_request(const char* ip, int port, const char* method, const char* uri,
                 const char* headers, char* out, int* outlen, int* status, int secret,
                 long long deadline_ms)
{
    std::unique_ptr<KVXHttpC::HttpC> client(new (std::nothrow) KVXHttpC::HttpC());
    std::string content;
    int rc;

    if (status != NULL)
        *status = 0;
    if (!client)
        return -1;
    client->HttpSetSecret(secret != 0);
    client->HttpSetDeadline(deadline_ms);
    if (ip == NULL)   /* no address is not a dotted address */
        return -3;
    if (uri == NULL)
        return -1;
    rc = client->HttpOpen(ip, port);
    if (rc < 0)
        return rc;
    rc = client->HttpMakeRequestEx(method, uri, headers != NULL ? headers : "", content);
    client->HttpClose();
    if (status != NULL)
        *status = client->HttpStatus();
    if (rc < 0)
        return rc;

    ZELLogFunction(3, "httpclient", __LINE__, "HTTP response content length is %d\n", (int)content.size());
    ZELLogFunction(3, "httpclient", __LINE__, "HTTP response content is %s\n",
                   secret ? "(not logged)" : content.c_str());
    /* the body is copied only when there is a length to bound it */
    if (out != NULL && outlen != NULL && *outlen > 0) {
        strncpy(out, content.c_str(), (size_t)*outlen);
        if (*outlen > (int)content.size())
            *outlen = (int)content.size();
    }
    return 0;
}

/*
 * Session token for the metadata service into token (META_TOKEN_MAX bytes,
 * terminated); 0 or http_request's result, -2 for a token that could not go
 * into a header line.
 */
static int get_meta_token(char* token, long long deadline_ms)
{
    int len = META_TOKEN_MAX - 1;
    int rc;

    memset(token, 0, META_TOKEN_MAX);
    ZELLogFunction(3, "httpclient", __LINE__, "Get meta data token\n");
    rc = http_request(META_SERVER, META_PORT, "PUT", META_TOKEN_PATH, META_TOKEN_TTL, token, &len, NULL, 1,
                      deadline_ms);
    token[len >= 0 && len < META_TOKEN_MAX ? len : META_TOKEN_MAX - 1] = '\0';
    /* the token goes into a header line: refuse an empty one or one with line breaks */
    if (rc == 0 && (token[0] == '\0' || strpbrk(token, "\r\n") != NULL))
        rc = -2;
    if (rc != 0)
        ZELLogFunction(0, "httpclient", __LINE__, "Fail to get meta data token\n");
    else
        ZELLogFunction(3, "httpclient", __LINE__, "Get meta data token successfully\n");
    return rc;
}

/* See httpclient.h. */
int get_meta_value_by_key(const char* key, char* value, int* pvaluelen)
{
    return get_meta_value_within(key, value, pvaluelen, META_DEADLINE_SEC);
}

/* See httpclient.h. */
int get_meta_value_within(const char* key, char* value, int* pvaluelen, int seconds)
{
    long long deadline = zel_now_ms() + seconds * 1000LL;
    std::string path, headers;
    char token[META_TOKEN_MAX];
    int status = 0;
    int rc;

    ZELLogFunction(3, "httpclient", __LINE__, "Get meta data for %s\n", key != NULL ? key : "(null)");
    if (key == NULL)
        return -1;
    path = std::string(META_PATH) + key;
    rc = http_request(META_SERVER, META_PORT, "GET", path.c_str(), "", value, pvaluelen, &status, 0,
                      deadline);
    if (rc == -2 && status == 401) {
        /* the node requires session tokens: fetch one and ask again with it */
        ZELLogFunction(3, "httpclient", __LINE__, "Meta data for %s requires a session token\n", key);
        rc = get_meta_token(token, deadline);
        if (rc == 0) {
            headers = std::string(META_TOKEN_HEADER) + token + "\r\n";
            rc = http_request(META_SERVER, META_PORT, "GET", path.c_str(), headers.c_str(), value,
                              pvaluelen, NULL, 0, deadline);
        }
    }
    if (rc != 0)
        ZELLogFunction(0, "httpclient", __LINE__, "Fail to get meta data for %s\n", key);
    else
        ZELLogFunction(3, "httpclient", __LINE__, "Get meta data for %s successfully\n", key);
    return rc;
}
