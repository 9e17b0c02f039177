# Activity log, job result and job status: the files and the monitor segment
# that the backup programs leave for the agent, and the simulated program.
kvx_add_test(test_activity_log SOURCES test_activity_log.cpp)
kvx_add_test(test_activity_parse SOURCES test_activity_parse.cpp)
kvx_add_test(test_activity_lock SOURCES test_activity_lock.cpp LABELS slow)
kvx_add_test(test_jobresult SOURCES test_jobresult.cpp)
kvx_add_test(test_jobstatus SOURCES test_jobstatus.cpp LOCKS machine)
kvx_add_test(test_jobstatus_agent SOURCES test_jobstatus_agent.cpp LOCKS machine)
kvx_add_test(test_jobstatus_wait SOURCES test_jobstatus_wait.cpp LOCKS machine LABELS slow)
