/*
 * test_mount_util.h - temporary directories, files and mounts for the mount
 * tests.
 */
#ifndef TEST_MOUNT_UTIL_H
#define TEST_MOUNT_UTIL_H

#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

static inline void write_text(const std::string& path, const std::string& text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

static inline std::string read_text(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

/* How many mounts the kernel's mount table lists on point. */
static inline int mounts_on(const std::string& point)
{
    std::istringstream table(read_text("/proc/self/mounts"));
    std::string src, dir, rest;
    int n = 0;
    while (table >> src >> dir && std::getline(table, rest))
        n += dir == point;
    return n;
}

static inline bool is_mount_point(const std::string& point)
{
    return mounts_on(point) > 0;
}

/* Removes every mount stacked on point (each call removes the top one). */
static inline void unmount_all(const std::string& point)
{
    for (int i = 0; i < 8 && is_mount_point(point); i++)
        umount2(point.c_str(), MNT_DETACH);
}

static int remove_tree_entry(const char* path, const struct stat*, int, struct FTW*)
{
    return remove(path);
}

/* A private directory under /tmp, removed with its contents at scope end. */
struct TempDir {
    std::string path;
    TempDir()
    {
        char tmpl[] = "/tmp/kvxmount.XXXXXX";
        if (mkdtemp(tmpl) == nullptr)
            abort();
        path = tmpl;
    }
    ~TempDir() { nftw(path.c_str(), remove_tree_entry, 16, FTW_DEPTH | FTW_PHYS); }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
};

#endif /* TEST_MOUNT_UTIL_H */
