/*
 * zelsvciobackend.h - file I/O redirection layer (source name
 * "zelsvciobackend").  Call sites read:
 *     if (zelsvc_enabled()) _zswrap_stat(__LINE__, __FILE__, __func__, p, &st);
 *     else                  stat(p, &st);
 * The agent never enables the layer, so every call site takes the local call;
 * the wrappers trace and return -1 (null for pointer results).
 */
#ifndef ZELSVCIOBACKEND_H
#define ZELSVCIOBACKEND_H

#include <stdio.h>
#include <sys/types.h>
#include <sys/stat.h>

bool zelsvc_enabled(void);
bool zelsvc_connected(void);
bool _rpctrace(int line, const char* file, const char* function, const char* call);

int     _zswrap__errno(int line, const char* file, const char* function);
int     _zswrap_open(int line, const char* file, const char* function, const char* path, int flags, mode_t mode);
int     _zswrap_close(int line, const char* file, const char* function, int fd);
ssize_t _zswrap_read(int line, const char* file, const char* function, int fd, void* buf, size_t count);
ssize_t _zswrap_write(int line, const char* file, const char* function, int fd, const void* buf, size_t count);
int     _zswrap_stat(int line, const char* file, const char* function, const char* path, struct stat* statbuf);
int     _zswrap_fstat(int line, const char* file, const char* function, int fd, struct stat* statbuf);
int     _zswrap_access(int line, const char* file, const char* function, const char* path, int mode);
int     _zswrap_unlink(int line, const char* file, const char* function, const char* path);
FILE*   _zswrap_fopen(int line, const char* file, const char* function, const char* path, const char* mode);
char*   _zswrap_getenv(int line, const char* file, const char* function, const char* name);
int     _zswrap_ExecuteCmd(int line, const char* file, const char* function, const char* cmd);

#endif /* ZELSVCIOBACKEND_H */
