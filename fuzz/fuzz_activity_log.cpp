/*
 * fuzz_activity_log.cpp - activity log text through read_activity_log the
 * way the log reader uses it: a counting pass sizes the array, a second
 * pass collects the events.  A third pass with one slot too few must fail.
 */
#include <stdlib.h>
#include <string.h>

#include "agentactivitylog.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const char* text = (const char*)data;
    int length = size > 1 << 20 ? 1 << 20 : (int)size;
    AgentActivityLogStruc* entries;
    int count = 0, found, collected;

    found = read_activity_log(text, length, NULL, &count);
    FUZZ_CHECK(found >= 0 && found == count);
    if (found == 0)
        return 0;

    /* exactly the counted size, so a write past it is caught */
    entries = (AgentActivityLogStruc*)malloc(sizeof(*entries) * (size_t)found);
    FUZZ_CHECK(entries != NULL);
    collected = found;
    FUZZ_CHECK(read_activity_log(text, length, entries, &collected) == found);
    FUZZ_CHECK(collected == found);
    for (int i = 0; i < found; i++) {
        FUZZ_CHECK(entries[i].type != 0);
        FUZZ_CHECK(memchr(entries[i].message, '\0', sizeof(entries[i].message)) != NULL);
        FUZZ_CHECK(entries[i].message[0] != '\0');
    }

    collected = found - 1;
    FUZZ_CHECK(read_activity_log(text, length, entries, &collected) == -1);
    free(entries);
    return 0;
}
