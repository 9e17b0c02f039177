/*
 * jxdr.h - the message envelope (source name "jxdr").
 *
 * One JXDR is one request or reply: header, JSON tree and a 256 KiB arena
 * from which decoded records and result buffers are carved.  Everything
 * carved from the arena dies with the envelope in jxdr_destroy().
 */
#ifndef JXDR_H
#define JXDR_H

#include <jansson.h>
#include "zel_basic_types.h"

#define JXDR_ENCODE      1
#define JXDR_DECODE      2
#define JXDR_TYPE_CALL   1
#define JXDR_TYPE_REPLY  2
#define JXDR_ARENA_SIZE  262144

typedef struct JXDR_Header {
    int ver;
    int type;
    int seq;
    int st;
    int fn;
} JXDR_Header;

/* v as an int in *out; 0 when it does not fit (nothing stored). */
static inline int jxdr_int_fits(json_int_t v, int* out)
{
    if (v < -2147483647 - 1 || v > 2147483647)
        return 0;
    *out = (int)v;
    return 1;
}

typedef struct JXDR_Param {
    char* p_org;   /* start of the block, null until first use */
    char* p_cur;   /* next free byte */
    int   l_all;   /* block size */
    int   l_rem;   /* bytes left */
} JXDR_Param;

typedef struct JXDR {
    int         x_op;
    JXDR_Header x_hr;
    json_t*     x_hd;
    JXDR_Param  x_param;
} JXDR;

/*
 * Every procedure codec: decode (x_op 2) fills rec from "param"; called with
 * rec == null on a reply it allocates an empty result; encode (x_op 1) with
 * rec set builds "param".  0 on success, -1 on mismatch.
 */
typedef int (*jxdrproc_t)(JXDR* xdrs, char*& record);

/* Adapts a codec written for a typed record to the generic jxdrproc_t. */
template <typename T, int (*F)(JXDR*, T*&)>
int jxdr_typed_proc(JXDR* xdrs, char*& record)
{
    T* typed = (T*)record;
    int rc = F(xdrs, typed);
    record = (char*)typed;
    return rc;
}
#define JXDR_PROC(T, f) (&jxdr_typed_proc<T, f>)

int    _jxdr_inc_seq(void);
int    jxdr_get_seq(void);
int    jxdr_header(JXDR* xdrs);
JXDR*  jxdr_create(char* buffer);
JXDR*  jxdr_create_call(int fn);
JXDR*  jxdr_create_reply(JXDR* jxdr);
char*  jxdr_param_alloc(JXDR* xdrs, int size);
/* Arena copy of src (strlen + 1 bytes); null for a null src or a full arena. */
char*  jxdr_param_strdup(JXDR* xdrs, const char* src);
/*
 * Result record of rec_size bytes with a buf_size-byte buffer (0: none)
 * whose address is stored in the record's char* field at buf_field.  Both
 * zeroed, from the arena.  Returns the record (null when even that does
 * not fit); the buffer field stays null when the buffer does not fit.
 */
char*  jxdr_result_alloc(JXDR* xdrs, int rec_size, size_t buf_field, int buf_size);
/* Copies min(max, strlen(src), cap - 1) bytes of src into dst (max < 0:
 * no limit of its own) and terminates; returns the count copied. */
int    jxdr_copy_text(char* dst, int cap, const char* src, int max);
/*
 * JSON string of a reply's text that always packs.  The text is s up to its
 * NUL or max bytes (null s: "").  max is the most the text's buffer or field
 * holds: a character cut off at the end of a text that fills it was cut by
 * that limit and is dropped whole; max < 0 sets no limit and says the text
 * may have been cut anywhere, so a character cut off at its end is always
 * dropped.  Every other byte that is not UTF-8 becomes "?"; valid UTF-8 is
 * taken as it is.  *len (may be null), a length sent with the text, is
 * lowered by the bytes the text lost (not below 0) and otherwise left alone.
 * New reference for "s:o" of json_pack; null only when out of memory.
 */
json_t* jxdr_text(const char* s, int max, int* len);
/* Makes param (reference taken over) the message's "param"; 0 or -1. */
int    jxdr_set_param(JXDR* xdrs, json_t* param);
bool_t jxdr_destroy(JXDR* xdrs);
/* From now on memory the JSON library frees is wiped first (the agent's
 * requests carry passwords).  Call before the first envelope exists. */
void   jxdr_wipe_freed_json(void);
int    jxdr_proc_num(JXDR* xdrs);
char*  jxdr_to_string(JXDR* xdrs);
char*  jxdr_reply(JXDR* xdrs, jxdrproc_t fun, char* result);
int    jxdr_call(void);

/* Protocol debug log: writes only when KVXEALIB_DEBUG and KVXSVR_HOME are set. */
int    dlog2(const char* filename, int line, const char* format, ...);
int    dlog(const char* format);

#endif /* JXDR_H */
