/*
 * test_mount_agent.h - procedure 4 against the real agent, with the mount
 * tool stubs of tools/stubs first on its PATH.  The stubs make real bind
 * mounts; every mount below the harness's tree is removed at the end.
 */
#ifndef TEST_MOUNT_AGENT_H
#define TEST_MOUNT_AGENT_H

#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "agent_harness.h"
#include "ea_proto.h"
#include "test_mount_util.h"

struct MountReply {
    int rc;            /* result of the call itself */
    int ret;
    int len;
    std::string str;
};

static int remove_harness_entry(const char* path, const struct stat*, int, struct FTW*)
{
    return remove(path);
}

class MountAgent : public ::testing::Test {
protected:
    /* A harness whose agent never started is not destroyed: its clean-up
     * would signal process group -1 (every process); its tree is removed
     * here instead. */
    AgentHarness* m_h = new AgentHarness();
    AgentHarness& h = *m_h;
    bool m_started = false;
    std::string zelroot;   /* --zelrootdir: the default mount point */
    std::string src;       /* what the stubs bind-mount on success */
    std::string point;     /* a wanted mount point */

    void SetUp() override
    {
        static const char* const stubs[] = {"mount", "mount.cifs", "umount", "mountstub.sh"};
        for (const char* name : stubs) {
            std::string from = std::string(KVX_SOURCE_DIR) + "/tools/stubs/" + name;
            std::string to = h.client_dir + "/" + name;
            write_text(to, read_text(from));
            chmod(to.c_str(), 0755);
        }
        zelroot = h.root + "/zelroot";
        src = h.root + "/src";
        point = h.root + "/mnt";
        mkdir(src.c_str(), 0755);
    }

    void TearDown() override
    {
        /* End of input with nothing running: the agent exits 0 (and a
         * sanitizer build would change that on a leak). */
        if (m_started && !HasFailure()) {
            h.close_input();
            EXPECT_EQ(0, h.wait_exit(20));
        }
        if ((HasFailure() || getenv("KVX_MOUNT_TEST_SHOW_LOG")) && m_started)
            printf("---- agent log ----\n%s---- agent stderr ----\n%s\n", h.log().c_str(),
                   h.agent_stderr().c_str());
        unmount_all(point);
        unmount_all(zelroot);
        if (m_started) {
            delete m_h;
        } else {
            nftw(h.root.c_str(), remove_harness_entry, 16, FTW_DEPTH | FTW_PHYS | FTW_MOUNT);
        }
    }

    void start()
    {
        m_started = h.start({"--targetworkdir", h.work_dir, "--zelrootdir", zelroot}, false);
        ASSERT_TRUE(m_started) << "kvx_ea could not be started";
    }

    /* Control file of a stub, e.g. control("mount.cifs", "exit", "32\n0\n"). */
    void control(const std::string& stub, const std::string& kind, const std::string& text)
    {
        write_text(h.client_dir + "/" + stub + "." + kind, text);
    }

    std::string client_file(const std::string& name) const
    {
        return read_text(h.client_dir + "/" + name);
    }

    MountReply mount(const std::string& location, const std::string& user,
                     const std::string& pwd, const std::string& wanted,
                     int timeout_ms = 30000)
    {
        std::string l = location, u = user, p = pwd, w = wanted;
        Mountargs args = {&l[0], &u[0], &p[0], &w[0]};
        std::vector<char> buf(EA_MOUNT_POINT_SIZE + 1, '\0');
        Mountres res = {};
        res.ret = -100;
        res.mount_point_len = -1;
        res.mount_point = buf.data();

        MountReply out;
        out.rc = h.call(EA_PROC_MOUNT, JXDR_PROC(Mountargs, jxdr_Mountargs), (char*)&args,
                        JXDR_PROC(Mountres, jxdr_Mountres), (char*)&res, timeout_ms);
        out.ret = res.ret;
        out.len = res.mount_point_len;
        out.str.assign(buf.data());
        return out;
    }
};

#endif /* TEST_MOUNT_AGENT_H */
