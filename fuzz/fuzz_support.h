/*
 * fuzz_support.h - what every fuzz target shares: a private log directory
 * set up before the first input, and the check that ends a run when a
 * parser breaks its own contract.
 */
#ifndef FUZZ_SUPPORT_H
#define FUZZ_SUPPORT_H

#include <stddef.h>
#include <stdint.h>

/*
 * Stops the run with a report naming the broken property.  libFuzzer saves
 * the input as a crash artifact, like any sanitizer finding.
 */
#define FUZZ_CHECK(cond) \
    do { \
        if (!(cond)) \
            fuzz_fail(__FILE__, __LINE__, #cond); \
    } while (0)

[[noreturn]] void fuzz_fail(const char* file, int line, const char* what);

/* Heap copy of size bytes plus a terminating NUL; the caller frees it. */
char* fuzz_strndup(const uint8_t* data, size_t size);

#endif /* FUZZ_SUPPORT_H */
