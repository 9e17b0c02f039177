/*
 * fuzz_trim_slash.cpp - trim_slash on a NUL-terminated copy of the input.
 * The result is the same buffer, never longer, holds "//" only at its
 * start, and a second pass leaves it as it is.
 */
#include <stdlib.h>
#include <string.h>

#include "fuzz_support.h"
#include "zelmountentry.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    char* path = strndup((const char*)data, size);   /* exact size: a read past it is caught */
    size_t before = strlen(path);
    char* once = trim_slash(path);

    FUZZ_CHECK(once == path);
    FUZZ_CHECK(strlen(once) <= before);
    FUZZ_CHECK(before == 0 || strstr(once + 1, "//") == NULL);
    char* copy = strdup(once);
    FUZZ_CHECK(strcmp(trim_slash(copy), once) == 0);
    free(copy);
    free(path);
    return 0;
}
