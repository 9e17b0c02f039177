/*
 * jxdr.cpp - the message envelope: header codec, creation and destruction,
 * the per-message arena and the text form of a message.
 *
 * The protocol debug log (dlog, dlog2) lives in jxdr_dlog.cpp.
 */
#include <malloc.h>
#include <stdlib.h>
#include <string.h>
#include "jxdr.h"

static int g_seq = 0;

/* Pre-increments the process-wide call sequence and returns the new value. */
int _jxdr_inc_seq(void)
{
    return ++g_seq;
}

int jxdr_get_seq(void)
{
    return g_seq;
}

/*
 * Header codec.  Encode: replaces x_hd with a fresh object holding the five
 * header keys and an empty "param"; always 0.  Decode: reads the five
 * integer keys from x_hd (extra keys allowed, "param" optional); -1 when a
 * key is missing, not an integer or out of int range (or x_hd is not an
 * object).
 */
int jxdr_header(JXDR* xdrs)
{
    JXDR_Header* h = &xdrs->x_hr;

    if (xdrs->x_op == JXDR_ENCODE) {
        if (xdrs->x_hd)
            json_decref(xdrs->x_hd);
        xdrs->x_hd = json_pack("{s:i, s:i, s:i, s:i, s:i, s:{}}",
                               "ver", 1, "type", h->type, "seq", h->seq,
                               "fn", h->fn, "status", h->st, "param");
        return 0;
    }
    json_int_t v[5];
    if (json_unpack(xdrs->x_hd, "{s:I, s:I, s:I, s:I, s:I}",
                    "ver", &v[0], "type", &v[1], "seq", &v[2], "fn", &v[3], "status", &v[4]) != 0)
        return -1;
    /* a number that does not fit its field is refused, not wrapped */
    if (!jxdr_int_fits(v[0], &h->ver) || !jxdr_int_fits(v[1], &h->type) || !jxdr_int_fits(v[2], &h->seq) ||
        !jxdr_int_fits(v[3], &h->fn) || !jxdr_int_fits(v[4], &h->st))
        return -1;
    return 0;
}

/*
 * New envelope.  With text: parsed (decode direction); null when the text is
 * not JSON or lacks the integer header keys.  Without text: an empty call
 * envelope (encode direction).  Free with jxdr_destroy().
 */
JXDR* jxdr_create(char* buffer)
{
    JXDR* x = (JXDR*)calloc(1, sizeof(JXDR));
    json_error_t error;

    if (!x)
        return NULL;
    if (buffer) {
        x->x_op = JXDR_DECODE;
        x->x_hd = json_loads(buffer, 0, &error);
        if (!x->x_hd) {
            free(x);
            return NULL;
        }
    } else {
        x->x_op = JXDR_ENCODE;
        x->x_hr.type = JXDR_TYPE_CALL;
    }
    if (jxdr_header(x) != 0) {
        jxdr_destroy(x);
        return NULL;
    }
    return x;
}

/* Encode envelope with a fresh header; null only when out of memory. */
static JXDR* jxdr_new_encode(int type, int seq, int fn)
{
    JXDR* x = (JXDR*)calloc(1, sizeof(JXDR));

    if (!x)
        return NULL;
    x->x_op = JXDR_ENCODE;
    x->x_hr.ver = 1;
    x->x_hr.type = type;
    x->x_hr.seq = seq;
    x->x_hr.fn = fn;
    x->x_hr.st = 0;
    jxdr_header(x);
    return x;
}

/* New call of procedure fn with the next sequence number (client side). */
JXDR* jxdr_create_call(int fn)
{
    return jxdr_new_encode(JXDR_TYPE_CALL, _jxdr_inc_seq(), fn);
}

/* New reply to jxdr: same seq and fn, type 2, status 0, "param" {}. */
JXDR* jxdr_create_reply(JXDR* jxdr)
{
    if (!jxdr)
        return NULL;
    return jxdr_new_encode(JXDR_TYPE_REPLY, jxdr->x_hr.seq, jxdr->x_hr.fn);
}

/*
 * Carves size bytes from the envelope's arena.  The 262144-byte block is
 * made (zeroed) on first use; pieces are packed back to back without
 * alignment.  Null when fewer than size bytes are left: the arena never
 * grows.  The pieces die with the envelope.
 */
char* jxdr_param_alloc(JXDR* xdrs, int size)
{
    JXDR_Param* p;
    char* piece;

    /* a negative size would move the cursor backwards */
    if (!xdrs || size < 0)
        return NULL;
    p = &xdrs->x_param;
    if (!p->p_org) {
        /* Zeroed piece by piece below: every piece still reads as zero, and a
         * ping does not pay for clearing the whole 256 KiB block. */
        p->p_org = (char*)malloc(JXDR_ARENA_SIZE);
        if (!p->p_org)
            return NULL;
        p->p_cur = p->p_org;
        p->l_all = JXDR_ARENA_SIZE;
        p->l_rem = JXDR_ARENA_SIZE;
    }
    if (p->l_rem < size)
        return NULL;
    piece = p->p_cur;
    memset(piece, 0, (size_t)size);
    p->p_cur += size;
    p->l_rem -= size;
    return piece;
}

/* Arena copy of a string (strlen + 1 bytes); null when src is null or the
 * arena is full. */
char* jxdr_param_strdup(JXDR* xdrs, const char* src)
{
    size_t len;
    char* dst;

    if (!src)
        return NULL;
    len = strlen(src);
    if (len >= JXDR_ARENA_SIZE)
        return NULL;
    dst = jxdr_param_alloc(xdrs, (int)len + 1);
    if (dst)
        memcpy(dst, src, len + 1);
    return dst;
}

/* Installs param as the message's "param" (the envelope takes the
 * reference).  0, or -1 when param is null or x_hd is not an object. */
int jxdr_set_param(JXDR* xdrs, json_t* param)
{
    if (!param)
        return -1;
    return json_object_set_new(xdrs->x_hd, "param", param) == 0 ? 0 : -1;
}

/* Releases the tree, the arena and the envelope: 1, or 0 for null. */
bool_t jxdr_destroy(JXDR* xdrs)
{
    if (!xdrs)
        return 0;
    if (xdrs->x_hd)
        json_decref(xdrs->x_hd);
    /* a request's records may hold a password: they do not outlive it */
    if (xdrs->x_op == JXDR_DECODE && xdrs->x_param.p_org)
        explicit_bzero(xdrs->x_param.p_org, (size_t)(xdrs->x_param.l_all - xdrs->x_param.l_rem));
    free(xdrs->x_param.p_org);
    free(xdrs);
    return 1;
}

/* free() for the JSON library: a parsed request's text and values (a
 * password among them) are wiped before their memory is given back. */
static void jxdr_wiping_free(void* p)
{
    if (p) {
        explicit_bzero(p, malloc_usable_size(p));
        free(p);
    }
}

void jxdr_wipe_freed_json(void)
{
    json_set_alloc_funcs(malloc, jxdr_wiping_free);
}

int jxdr_proc_num(JXDR* xdrs)
{
    return xdrs->x_hr.fn;
}

/* One-line text of the message (", " and ": " separators, non-ASCII as
 * \uXXXX); malloc'ed, the caller frees.  Null on failure. */
char* jxdr_to_string(JXDR* xdrs)
{
    if (!xdrs || !xdrs->x_hd)
        return NULL;
    return json_dumps(xdrs->x_hd, JSON_ENSURE_ASCII);
}

/* Turns xdrs itself into a reply carrying result and returns its text
 * (caller frees). */
char* jxdr_reply(JXDR* xdrs, jxdrproc_t fun, char* result)
{
    char* rec = result;

    xdrs->x_op = JXDR_ENCODE;
    xdrs->x_hr.type = JXDR_TYPE_REPLY;
    jxdr_header(xdrs);
    if (fun)
        fun(xdrs, rec);
    return jxdr_to_string(xdrs);
}

int jxdr_call(void)
{
    return 0;
}

/* Bounded copy used by the decoders: min(max, strlen(src), cap - 1) bytes,
 * always terminated when cap >= 1.  Returns the count copied. */
int jxdr_copy_text(char* dst, int cap, const char* src, int max)
{
    size_t n;

    if (!dst || cap < 1)
        return 0;
    n = src ? strlen(src) : 0;
    if (max >= 0 && n > (size_t)max)
        n = (size_t)max;
    if (n > (size_t)cap - 1)
        n = (size_t)cap - 1;
    if (n)
        memcpy(dst, src, n);
    dst[n] = '\0';
    return (int)n;
}

/* Record plus its fixed buffer, as every result codec's allocation mode
 * carves them: the record first, then the buffer. */
char* jxdr_result_alloc(JXDR* xdrs, int rec_size, size_t buf_field, int buf_size)
{
    char* rec = jxdr_param_alloc(xdrs, rec_size);
    char* buf;

    if (!rec || buf_size <= 0)
        return rec;
    buf = jxdr_param_alloc(xdrs, buf_size);
    /* the field may sit unaligned in a packed record */
    memcpy(rec + buf_field, &buf, sizeof(buf));
    return rec;
}
