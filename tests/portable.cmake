# Portable agents: the static x86-64 agent (not built under sanitizers) and,
# when scripts/portable.sh copied it into bin/, the static i386 agent.
if(TARGET kvx_ea-static)
  kvx_add_test(test_portable SOURCES test_portable.cpp LOCKS machine)
  add_dependencies(test_portable kvx_ea-static)
endif()
