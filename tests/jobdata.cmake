# Job data: the activity log, job result and job status, the simulated
# backup program through the agent, and the slow waits.
kvx_add_test(test_jobstatus SOURCES test_jobstatus.cpp LOCKS machine)
kvx_add_test(test_jobstatus_agent SOURCES test_jobstatus_agent.cpp LOCKS machine LABELS protocol)
kvx_add_test(test_jobstatus_wait SOURCES test_jobstatus_wait.cpp LOCKS machine LABELS slow)
