/*
 * net_conn.h - line channel (source name "net_conn").
 *
 * Inbound records are text lines; outbound records are the text, its NUL and
 * "\n\n" (bytes <json> 00 0A 0A).
 */
#ifndef NET_CONN_H
#define NET_CONN_H

#include <signal.h>
#include <stdio.h>

class NetChannel {
public:
    virtual ~NetChannel() {}
    /* strlen of the line read, 0 on an empty/failed read, -2 at end of input. */
    virtual int read_line(char* buffer, int size) = 0;
    /* Writes text+NUL then "\n\n" whole; strlen(buffer)+1, or -1 on a broken stream. */
    virtual int write_line(char* buffer) = 0;
    /* A descriptor that becomes readable when the waiting read must give up
     * (a signal arrived); -1 for none.  Once *stop is non-zero (the agent is
     * stopping), a reply the reader does not take within a few seconds is
     * given up.  Channels without a wait ignore both. */
    virtual void set_wakeup(int fd, const volatile sig_atomic_t* stop = NULL) {}
};

class STDIOChannel : public NetChannel {
public:
    STDIOChannel();                       /* stdin / stdout */
    STDIOChannel(FILE* fin, FILE* fout);  /* any stream pair (client side, tests) */
    virtual ~STDIOChannel();
    virtual int read_line(char* buffer, int size);
    virtual int write_line(char* buffer);
    virtual void set_wakeup(int fd, const volatile sig_atomic_t* stop = NULL);

    FILE* m_fin;
    FILE* m_fout;

private:
    int read_pending_line(char* buffer, int size);

    int   m_wake;    /* wake-up descriptor, -1: a signal ends the wait */
    const volatile sig_atomic_t* m_stop;   /* non-zero: the agent is stopping; null: never */
    char* m_pend;    /* bytes received and not handed out yet; null: plain fgets() */
    int   m_plen;
    int   m_eof;     /* the input has ended (or failed for good) */
    int   m_skip;    /* the rest of an overlong line is being discarded */
};

class NetConn {
public:
    struct _PARAM_ {
        int  auth_type;
        char username[1024];
        char password[1024];
        char pubkey_path[1024];
        char prikey_path[1024];
        char prikey_passphrase[1024];
        int  timeout;   /* milliseconds */
    } m_param;

    NetConn();
    virtual ~NetConn() {}
    virtual void set_auth(int type, const char* user, const char* pass);
    virtual void set_keyfile(const char* pubkey, const char* prikey, const char* prikey_passphrase);
    virtual int  get_timeout();
    virtual void set_timeout(int tm);
    virtual int  open(const char* host, int port, const char* opt) = 0;
    virtual int  close() = 0;
};

#endif /* NET_CONN_H */
