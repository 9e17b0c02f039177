/*
 * test_mount_agent.h - the agent with the tools/stubs mount tools first on its
 * PATH; they make real bind mounts, which the harness removes.
 */
#ifndef TEST_MOUNT_AGENT_H
#define TEST_MOUNT_AGENT_H

#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "agent_harness.h"
#include "ea_proto.h"

typedef std::vector<std::string> Lines;

class MountAgent : public ::testing::Test {
protected:
    AgentHarness h;
    std::string zelroot = h.root + "/zelroot", src = h.root + "/src", point = h.root + "/mnt";

    void SetUp() override
    {
        std::string cp = "cp " KVX_SOURCE_DIR "/tools/stubs/* " + h.client_dir;
        ASSERT_EQ(system(cp.c_str()), 0);
        mkdir(src.c_str(), 0755);
        AgentHarness::write_file(src + "/marker", "x");
    }
    /* At end of input with nothing running the agent exits 0 (not 23 for a leak). */
    void TearDown() override
    {
        if (!HasFailure() && h.agent_pid() > 0) {
            h.close_input();
            EXPECT_EQ(h.wait_exit(20), 0);
        }
    }
    void start()
    {
        ASSERT_TRUE(h.start({ "--targetworkdir", h.work_dir, "--zelrootdir", zelroot }, false));
    }
    /* Control file of a stub, e.g. control("mount.cifs", "exit", "32\n0\n"). */
    void control(const std::string& stub, const std::string& kind, const std::string& text)
    {
        AgentHarness::write_file(h.client_dir + "/" + stub + "." + kind, text);
    }
    /* Calls made by a stub since the last look. */
    Lines calls(const std::string& stub)
    {
        Lines c = h.stub_calls(stub);
        unlink((h.client_dir + "/" + stub + ".calls").c_str());
        return c;
    }
    /* Procedure 4 (location, user, password, wanted point): checks ret and reply. */
    void expect_mount(std::string l, std::string u, std::string p, std::string w, int ret,
                      const std::string& reply)
    {
        Mountargs args = { &l[0], &u[0], &p[0], &w[0] };
        std::vector<char> buf(EA_MOUNT_POINT_SIZE + 1, '\0');
        Mountres res = { -100, -1, buf.data() };
        ASSERT_EQ(h.call(EA_PROC_MOUNT, JXDR_PROC(Mountargs, jxdr_Mountargs), (char*)&args,
                         JXDR_PROC(Mountres, jxdr_Mountres), (char*)&res, 60000), 0);
        EXPECT_EQ(res.ret, ret);
        EXPECT_EQ(res.mount_point_len, (int)reply.size());
        EXPECT_EQ(std::string(buf.data()), reply);
    }
    /* An existing mount at path, made where the agent sees it. */
    bool mount_here(const std::string& path)
    {
        return h.in_agent_namespaces([&] { return mount("nfshost:/exp", path.c_str(), "tmpfs", 0, "size=1m") == 0; });
    }
    /* src is bound at path, as the agent sees it. */
    bool bound(const std::string& path)
    {
        return h.in_agent_namespaces([&] { return AgentHarness::exists(path + "/marker"); });
    }
    bool logged(const std::string& text) { return h.log().find(text) != std::string::npos; }
};

#endif /* TEST_MOUNT_AGENT_H */
