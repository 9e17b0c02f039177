/*
 * kvxuuid.h - GUIDs from the kernel's random UUID source (source name "uuid").
 */
#ifndef KVXUUID_H
#define KVXUUID_H

#include "zel_basic_types.h"

typedef struct uuid {
    UINT32 time_low;
    UINT16 time_mid;
    UINT16 time_hi_and_version;
    UINT16 clock_seq;
    UINT8  node[6];
} uuid;

int  get_uuid(uuid* puuid);
void uuid_pack(const uuid* puuid, unsigned char* ptr);
void uuid_unpack(const unsigned char* in, uuid* puuid);
int  genGUID(unsigned char guid[16]);
int  strGUID(const unsigned char guid[16], char* buf, int size);

#endif /* KVXUUID_H */
