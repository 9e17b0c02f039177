/*
 * test_jobdata_node.h - a scratch work directory for the activity log, job
 * result and job status tests.
 *
 * The work directory is read once per process (GetTargetWorkDir caches it),
 * so each test program gets one directory, made on first use and exported as
 * TARGET_WORK_DIR before anything reads it; tests clean logs/ between cases.
 */
#ifndef TEST_JOBDATA_NODE_H
#define TEST_JOBDATA_NODE_H

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "agent_harness.h"
#include "test_runtime_support.h"
#include "zelutil.h"

class JobDataNode {
public:
    /* The process-wide node. */
    static JobDataNode& get()
    {
        static JobDataNode node;
        return node;
    }

    std::string work, logs, activity, jobres, log_path;
    /* The activity log path as the handlers spell it: "<work>//logs/..." */
    std::string activity_as_logged() const
    {
        return std::string(GetTargetWorkDir()) + KVX_ACTIVITY_LOG_NAME;
    }

    /* Removes the files the programs leave, keeping the directory. */
    void clear() const
    {
        unlink(activity.c_str());
        unlink(jobres.c_str());
    }
    std::string log() const { return AgentHarness::read_file(log_path); }

private:
    JobDataNode()
    {
        char tmpl[] = "/tmp/kvxjobdata.XXXXXX";
        work = mkdtemp(tmpl) ? tmpl : "/tmp/kvxjobdata";
        logs = work + "/logs";
        mkdir(logs.c_str(), 0755);
        activity = logs + "/linuxkvxactivity.log";
        jobres = logs + "/linuxkvxjobres";
        log_path = work + "/test.log";
        setenv("TARGET_WORK_DIR", work.c_str(), 1);
        ZELInitLogger(log_path.c_str(), 3);
    }
    ~JobDataNode()
    {
        std::string cmd = "rm -rf '" + work + "'";
        if (system(cmd.c_str()) != 0) {
            /* best effort */
        }
    }
};

/* A test that starts and ends with no activity log or job result file. */
class JobDataTest : public ::testing::Test {
protected:
    JobDataNode& node = JobDataNode::get();
    void SetUp() override { node.clear(); }
    void TearDown() override { node.clear(); }
};

#endif /* TEST_JOBDATA_NODE_H */
