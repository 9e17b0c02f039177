/*
 * uuid.cpp - random GUIDs taken from the kernel's UUID source, in parts,
 * packed into 16 bytes and printed as 36 lower-case hexadecimal characters.
 *
 * The node group is kept as a 32-bit and a 16-bit number in the machine's
 * byte order, so packing and printing give back the kernel's text.
 */
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "kvxuuid.h"

#define KERNEL_UUID_PATH "/proc/sys/kernel/random/uuid"
#define UUID_TEXT_LEN    36
#define UUID_NODE_LEN    12

/*
 * A fresh random UUID from the kernel into *puuid.  0, or -1 with a message
 * on standard output when the source is missing or its text is malformed.
 */
int get_uuid(uuid* puuid)
{
    char text[UUID_TEXT_LEN + 1];
    char last[UUID_TEXT_LEN + 1];
    unsigned int time_low, node_hi;
    unsigned short node_lo;
    size_t n;
    FILE* fp;

    if (puuid == NULL)
        return -1;
    /* failures are told on standard error: standard output carries the agent's replies */
    fp = fopen(KERNEL_UUID_PATH, "r");
    if (fp == NULL) {
        fprintf(stderr, "Open UUID file failed (%s)!\n", strerror(errno));
        return -1;
    }
    n = fread(text, 1, UUID_TEXT_LEN, fp);
    fclose(fp);
    text[n] = '\0';
    if (n != UUID_TEXT_LEN) {
        fprintf(stderr, "Wrong UUID format (%s)!\n", text);
        return -1;
    }

    last[0] = '\0';
    if (sscanf(text, "%x-%hx-%hx-%hx-%36s", &time_low, &puuid->time_mid,
               &puuid->time_hi_and_version, &puuid->clock_seq, last) != 5) {
        fprintf(stderr, "Wrong UUID format (%s)!\n", strerror(errno));
        return -1;
    }
    if (strlen(last) != UUID_NODE_LEN) {
        fprintf(stderr, "Wrong UUID format: the last number should be 12 chars!\n");
        return -1;
    }
    puuid->time_low = time_low;
    node_hi = 0;
    node_lo = 0;
    sscanf(last, "%8x%4hx", &node_hi, &node_lo);
    UINT32 hi = node_hi;
    UINT16 lo = node_lo;
    memcpy(puuid->node, &hi, sizeof(hi));
    memcpy(puuid->node + sizeof(hi), &lo, sizeof(lo));
    return 0;
}

/* Packs *puuid into 16 bytes at ptr: the four numbers big-endian, then node. */
void uuid_pack(const uuid* puuid, unsigned char* ptr)
{
    UINT32 tl = puuid->time_low;

    ptr[0] = (unsigned char)(tl >> 24);
    ptr[1] = (unsigned char)(tl >> 16);
    ptr[2] = (unsigned char)(tl >> 8);
    ptr[3] = (unsigned char)tl;
    ptr[4] = (unsigned char)(puuid->time_mid >> 8);
    ptr[5] = (unsigned char)puuid->time_mid;
    ptr[6] = (unsigned char)(puuid->time_hi_and_version >> 8);
    ptr[7] = (unsigned char)puuid->time_hi_and_version;
    ptr[8] = (unsigned char)(puuid->clock_seq >> 8);
    ptr[9] = (unsigned char)puuid->clock_seq;
    memcpy(ptr + 10, puuid->node, 6);
}

/* Unpacks 16 bytes made by uuid_pack into *puuid. */
void uuid_unpack(const unsigned char* in, uuid* puuid)
{
    puuid->time_low = ((UINT32)in[0] << 24) | ((UINT32)in[1] << 16) |
                      ((UINT32)in[2] << 8) | (UINT32)in[3];
    puuid->time_mid = (UINT16)((in[4] << 8) | in[5]);
    puuid->time_hi_and_version = (UINT16)((in[6] << 8) | in[7]);
    puuid->clock_seq = (UINT16)((in[8] << 8) | in[9]);
    memcpy(puuid->node, in + 10, 6);
}

/* A random GUID into guid (16 bytes).  0 (also for a null guid), or -1. */
int genGUID(unsigned char guid[16])
{
    uuid u;

    if (guid == NULL)
        return 0;
    if (get_uuid(&u) != 0)
        return -1;
    uuid_pack(&u, guid);
    return 0;
}

/*
 * The 36-character text of a GUID made by genGUID into buf (size >= 37,
 * always terminated).  0, or -1 for a null pointer or a small buffer.
 */
int strGUID(const unsigned char guid[16], char* buf, int size)
{
    UINT32 node_hi;
    UINT16 node_lo;
    uuid u;

    if (guid == NULL || buf == NULL || size < UUID_TEXT_LEN + 1)
        return -1;
    uuid_unpack(guid, &u);
    memcpy(&node_hi, u.node, sizeof(node_hi));
    memcpy(&node_lo, u.node + sizeof(node_hi), sizeof(node_lo));
    snprintf(buf, (size_t)size, "%08x-%04hx-%04hx-%04hx-%08x%04hx",
             (unsigned)u.time_low, u.time_mid, u.time_hi_and_version, u.clock_seq,
             (unsigned)node_hi, node_lo);
    return 0;
}
