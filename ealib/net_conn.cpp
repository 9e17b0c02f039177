/*
 * net_conn.cpp - the line channel over a pair of standard streams, and the
 * connection-settings base class.
 *
 * Inbound: one request per text line.  Outbound: the text, its NUL byte and
 * "\n\n", so a reader sees <json> 00 0A 0A.
 */
#include <stdio.h>
#include <string.h>
#include <unistd.h>
#include "net_conn.h"

STDIOChannel::STDIOChannel() : m_fin(stdin), m_fout(stdout)
{
}

STDIOChannel::STDIOChannel(FILE* fin, FILE* fout) : m_fin(fin), m_fout(fout)
{
}

STDIOChannel::~STDIOChannel()
{
}

/*
 * Reads one line (at most size-1 bytes, "\n" kept) into buffer, which the
 * caller zeroes.  Returns strlen(buffer); -2 once the input has reached end
 * of file, even when this call still delivered a last line without "\n"
 * (that line is dropped); 0 when the read failed (e.g. interrupted).
 */
int STDIOChannel::read_line(char* buffer, int size)
{
    if (!fgets(buffer, size, m_fin)) {
        /* result looked at only through feof below */
    }
    if (feof(m_fin))
        return -2;
    return (int)strlen(buffer);
}

/*
 * Writes the text with its NUL in one unbuffered write, then "\n\n".
 * Returns strlen(buffer) + 1 whatever the writes did: a short or failed
 * write is not reported (a closed pipe raises SIGPIPE instead).
 */
int STDIOChannel::write_line(char* buffer)
{
    size_t len = strlen(buffer) + 1;
    ssize_t w;

    w = write(fileno(m_fout), buffer, len);
    w = write(fileno(m_fout), "\n\n", 2);
    (void)w;
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
