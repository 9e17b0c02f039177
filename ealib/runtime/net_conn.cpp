/*
 * net_conn.cpp - the line channel over a pair of standard streams, and the
 * connection-settings base class.
 *
 * Inbound: one request per text line.  Outbound: the text, its NUL byte and
 * "\n\n", so a reader sees <json> 00 0A 0A.
 */
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/uio.h>
#include <unistd.h>
#include "net_conn.h"
#include "zelcommon.h"
#include "zellog.h"

#define CH_PENDING 65536   /* one line of the largest size read_line() hands out */
#define CH_STOP_GRACE_MS 5000   /* how long a stopping agent offers a reply to its reader */
#define CH_STOP_CHUNK 4096      /* a pipe that polls writable takes this much without blocking */

STDIOChannel::STDIOChannel()
    : m_fin(stdin), m_fout(stdout), m_wake(-1), m_stop(NULL), m_pend(NULL), m_plen(0), m_eof(0), m_skip(0)
{
}

STDIOChannel::STDIOChannel(FILE* fin, FILE* fout)
    : m_fin(fin), m_fout(fout), m_wake(-1), m_stop(NULL), m_pend(NULL), m_plen(0), m_eof(0), m_skip(0)
{
}

STDIOChannel::~STDIOChannel()
{
    free(m_pend);
}

/*
 * From now on lines are read straight from the input descriptor through a
 * buffer of this channel, waiting for input or for fd to become readable
 * (fd -1: until a signal arrives).  Call it before the first read_line().
 */
void STDIOChannel::set_wakeup(int fd, const volatile sig_atomic_t* stop)
{
    if (m_pend == NULL)
        m_pend = (char*)malloc(CH_PENDING);
    m_wake = fd;
    m_stop = stop;
}

/*
 * Reads one line (at most size-1 bytes, "\n" kept) into buffer, which the
 * caller zeroes.  Returns strlen(buffer); -2 once the input has reached end
 * of file, even when this call still delivered a last line without "\n"
 * (that line is dropped); 0 when the read failed (e.g. interrupted).
 */
int STDIOChannel::read_line(char* buffer, int size)
{
    if (m_pend != NULL)
        return read_pending_line(buffer, size);
    if (!fgets(buffer, size, m_fin)) {
        /* result looked at only through feof below */
    }
    if (feof(m_fin))
        return -2;
    return (int)strlen(buffer);
}

/*
 * read_line() with a wake-up descriptor: the same lines and results, but a
 * signal only interrupts the wait.  Bytes already received stay in m_pend,
 * so a line whose read a signal cut is handed out whole once its end has
 * arrived.  Returns 0 when the wake-up descriptor is readable (without one:
 * when a signal interrupted the wait).
 */
int STDIOChannel::read_pending_line(char* buffer, int size)
{
    int fd = fileno(m_fin);
    int max = size - 1 < CH_PENDING ? size - 1 : CH_PENDING;

    if (max < 1)
        return 0;
    for (;;) {
        char* nl = (char*)memchr(m_pend, '\n', (size_t)(m_plen < max ? m_plen : max));
        int take = nl != NULL ? (int)(nl - m_pend) + 1 : (m_plen >= max ? max : 0);
        /* an overlong line is one bad line: dropped up to its newline, never served in parts */
        if (take > 0 && (m_skip || nl == NULL)) {
            if (!m_skip)
                ZELLogFunction(0, "net_conn", __LINE__, "Line longer than %d bytes discarded.\n", max);
            m_skip = nl == NULL;
            m_plen -= take;
            memmove(m_pend, m_pend + take, (size_t)m_plen);
            explicit_bzero(m_pend + m_plen, (size_t)take);
            continue;
        }
        if (take > 0) {
            memcpy(buffer, m_pend, (size_t)take);
            buffer[take] = '\0';
            m_plen -= take;
            memmove(m_pend, m_pend + take, (size_t)m_plen);
            explicit_bzero(m_pend + m_plen, (size_t)take);   /* no stale copy of a request */
            return (int)strlen(buffer);
        }
        if (m_eof)
            return -2;   /* a last line without "\n" is dropped */

        struct pollfd pfd[2] = { { fd, POLLIN, 0 }, { m_wake, POLLIN, 0 } };
        if (poll(pfd, 2, -1) < 0) {
            if (errno != EINTR)
                m_eof = 1;
            else if (m_wake < 0)
                return 0;   /* no wake-up descriptor: the interrupted wait ends here, bytes kept */
            continue;   /* interrupted: the handler has made m_wake readable */
        }
        if (pfd[1].revents != 0)
            return 0;
        if (pfd[0].revents == 0)
            continue;
        ssize_t r = read(fd, m_pend + m_plen, (size_t)(CH_PENDING - m_plen));
        if (r > 0)
            m_plen += (int)r;
        else if (r == 0 || (errno != EINTR && errno != EAGAIN))
            m_eof = 1;   /* a broken input ends the session instead of failing forever */
    }
}

/* The first cap bytes of the left iovecs at v, as n iovecs in out. */
static int cap_iov(const struct iovec* v, int left, struct iovec* out, size_t cap)
{
    int n = 0;
    for (; n < left && cap > 0; n++) {
        out[n] = v[n];
        if (out[n].iov_len > cap)
            out[n].iov_len = cap;
        cap -= out[n].iov_len;
    }
    return n;
}

/*
 * Writes the text with its NUL and "\n\n" in one unbuffered writev.  Returns
 * strlen(buffer) + 1 once the whole record is out, -1 when the stream is
 * broken (a closed pipe raises SIGPIPE as well) or, with the agent stopping,
 * when the reader has not taken the record within CH_STOP_GRACE_MS.
 */
int STDIOChannel::write_line(char* buffer)
{
    size_t len = strlen(buffer) + 1;
    int fd = fileno(m_fout);
    long long give_up = 0;

    /* text, NUL and "\n\n" in one call: the same bytes, one wake-up of the reader */
    struct iovec iov[2] = { { buffer, len }, { (void*)"\n\n", 2 } };
    struct iovec* v = iov;
    int left = 2;
    while (left > 0) {
        struct iovec part[2];
        const struct iovec* out = v;
        int n = left;
        /* stopping: a reader that takes nothing for 5 s cannot hold the agent in a blocked write */
        if (m_stop != NULL && *m_stop != 0) {
            long long now = zel_now_ms();
            give_up = give_up ? give_up : now + CH_STOP_GRACE_MS;
            struct pollfd pfd = { fd, POLLOUT, 0 };
            int ready = now < give_up ? poll(&pfd, 1, (int)(give_up - now)) : 0;
            if (ready == 0)
                return -1;
            if (ready < 0)
                continue;
            n = cap_iov(v, left, part, CH_STOP_CHUNK);
            out = part;
        }
        ssize_t w = writev(fd, out, n);
        /* an interrupted or partial write goes on where it stopped (a non-blocking stream waits) */
        if (w < 0 && (errno == EINTR || errno == EAGAIN)) {
            struct pollfd pfd = { fd, POLLOUT, 0 };
            if (errno == EAGAIN && (m_stop == NULL || *m_stop == 0))   /* stopping: the wait above is bounded */
                poll(&pfd, 1, -1);
            continue;
        }
        if (w <= 0)
            return -1;
        for (; left > 0 && (size_t)w >= v->iov_len; v++, left--)
            w -= (ssize_t)v->iov_len;
        if (left > 0) {
            v->iov_base = (char*)v->iov_base + w;
            v->iov_len -= (size_t)w;
        }
    }
    fflush(m_fout);
    return (int)len;
}

NetConn::NetConn()
{
    m_param.auth_type = 0;
}

/* Adds the authentication kinds in type and stores the non-null account
 * fields (cut to 1023 characters). */
void NetConn::set_auth(int type, const char* user, const char* pass)
{
    m_param.auth_type |= type;
    if (user)
        snprintf(m_param.username, sizeof(m_param.username), "%s", user);
    if (pass)
        snprintf(m_param.password, sizeof(m_param.password), "%s", pass);
}

/* Switches to key-file authentication (bit 2); empties the three key fields
 * first, then stores the non-null arguments (cut to 1023 characters). */
void NetConn::set_keyfile(const char* pubkey, const char* prikey, const char* prikey_passphrase)
{
    m_param.pubkey_path[0] = '\0';
    m_param.prikey_path[0] = '\0';
    m_param.prikey_passphrase[0] = '\0';
    m_param.auth_type |= 2;
    if (pubkey)
        snprintf(m_param.pubkey_path, sizeof(m_param.pubkey_path), "%s", pubkey);
    if (prikey)
        snprintf(m_param.prikey_path, sizeof(m_param.prikey_path), "%s", prikey);
    if (prikey_passphrase)
        snprintf(m_param.prikey_passphrase, sizeof(m_param.prikey_passphrase), "%s",
                 prikey_passphrase);
}

/* Seconds in, milliseconds held, seconds out. */
int NetConn::get_timeout()
{
    return m_param.timeout / 1000;
}

void NetConn::set_timeout(int tm)
{
    m_param.timeout = tm * 1000;
}
