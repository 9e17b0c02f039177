/*
 * httpclient.h - minimal HTTP/1.0 GET client over IPv4 and the instance
 * metadata lookup (source name "httpclient").
 */
#ifndef HTTPCLIENT_H
#define HTTPCLIENT_H

#include <sys/time.h>
#include <string>

namespace KVXHttpC {

class HttpC {
public:
    HttpC();
    virtual ~HttpC();
    int HttpOpen(std::string ip, int port);
    int HttpClose();
    int HttpMakeRequest(std::string uri, std::string& outContent);
    /* Same with another method and extra header lines (each ending "\r\n"). */
    int HttpMakeRequestEx(const char* method, std::string uri, const std::string& headers,
                          std::string& outContent);
    /* Status code of the last response head read, 0 if none. */
    int HttpStatus() const { return m_status; }
    /* A response that carries a secret (a session token) is never logged. */
    void HttpSetSecret(bool secret) { m_secret = secret; }
    /* Connecting and reading end by this time of zel_now_ms() (0: no deadline). */
    void HttpSetDeadline(long long ms) { m_deadline = ms; }

private:
    const char* Shown() const;
    int HttpTimeLeft(struct timeval* tv) const;
    int HttpGetConLen();
    int HttpContentIsReady();
    int HttpReadResponse();

    std::string m_ip;
    std::string m_uri;
    int  m_port;
    int  m_socketFd;
    int  m_headLen;
    int  m_conLen;
    int  m_len;
    int  m_status;
    bool m_secret;
    long long m_deadline;
    char m_buf[8192];
};

} /* namespace KVXHttpC */

/*
 * One GET of uri from ip:port (dotted IPv4, no names).  0 with the body
 * copied into out (if given): at most *outlen bytes, unterminated when the
 * body fills them, and *outlen lowered to the body length when it is larger.
 * Negative on failure: -1 no client or socket/connect failure, -3 invalid
 * address, -6 request not sent whole, -2 bad status line or status not 200,
 * -4 receive failure, early close or more than 10 receive time-outs.
 */
int http_get(const char* ip, int port, const char* uri, char* out, int* outlen);

/*
 * http_get with a method and extra header lines; *status (if given) gets the
 * response's status code, also when the result is -2 for a status not 200.
 * secret non-zero keeps the body out of the log (a session token).
 * deadline_ms (zel_now_ms() time, 0: none): connecting and reading end by
 * then, -1 and -4 as for their time-outs.
 */
int http_request(const char* ip, int port, const char* method, const char* uri,
                 const char* headers, char* out, int* outlen, int* status, int secret,
                 long long deadline_ms);

/*
 * Value of one instance metadata key ("instance-id", ...) from
 * 169.254.169.254:80/latest/meta-data/<key>, with value and *pvaluelen as
 * out and *outlen of http_get.  0, -1 for a null key, else http_get's result.
 * Only when that plain request is answered 401 (the node requires session
 * tokens) a token is fetched with PUT /latest/api/token and the GET repeated
 * with it; the result is then that of the token or the second GET.  The
 * whole lookup ends within 60 seconds, however slowly the service answers.
 */
int get_meta_value_by_key(const char* key, char* value, int* pvaluelen);
/* The same lookup ending within the given seconds. */
int get_meta_value_within(const char* key, char* value, int* pvaluelen, int seconds);

/* ---- response parsing (no I/O; safe on arbitrary bytes) ----
 * The response text is buf up to its first NUL byte or len bytes, whichever
 * comes first, as the client keeps its buffer NUL-terminated. */

/* Length of the head including the blank line "\r\n\r\n", or 0 if not seen yet. */
int http_head_length(const char* buf, int len);

/*
 * Reads the status line as "%s %d %s" (protocol, code, reason) would: the
 * number of fields read (-1 when there is no text at all), the code in *code
 * when at least two were read.
 */
int http_status_fields(const char* buf, int len, int* code);

/* Body length from the last line holding "Content-Length: "; 0 if none. */
int http_content_length(const char* buf, int len);

/*
 * Is the response in buf (*len bytes) complete?  Once the head has arrived
 * (*head_len still 0 on entry) checks the status line and takes the body
 * length into *head_len and *con_len.  1 when head and body are there, with
 * *len cut to head plus body (extra bytes dropped); 0 not yet; -7 bad status
 * line or a status other than 200.  Logs as the HTTP client does.
 */
int http_content_ready(const char* buf, int* len, int* head_len, int* con_len);

#endif /* HTTPCLIENT_H */
