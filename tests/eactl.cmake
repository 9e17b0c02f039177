# The operator client: its units and argument checks with stand-in agents
# (test_eactl), deployments of the real agent on this machine, through a
# private sshd and from the Debian package (test_eactl_deploy), and its
# time-outs, which wait out a grace period (test_eactl_slow, label slow).
if(TARGET kvx-eactl)
  kvx_add_test(test_eactl SOURCES test_eactl.cpp)
  kvx_add_test(test_eactl_deploy SOURCES test_eactl_deploy.cpp LOCKS machine)
  kvx_add_test(test_eactl_slow SOURCES test_eactl_slow.cpp LOCKS machine LABELS slow)
  foreach(t test_eactl test_eactl_deploy test_eactl_slow)
    if(TARGET ${t})
      target_link_libraries(${t} PRIVATE eactl_core sshd_sandbox)
      target_compile_definitions(${t} PRIVATE KVX_VERSION_TEXT="${PROJECT_VERSION}")
      add_dependencies(${t} kvx-eactl)
      if(TARGET kvx_ea-static)
        add_dependencies(${t} kvx_ea-static)
      endif()
    endif()
  endforeach()
endif()

# The Debian package as lintian sees it: no error, no warning.
if(TARGET kvx-eactl AND TARGET kvx_ea-static AND TARGET kvxbackupvol-sim)
  find_program(KVX_LINTIAN lintian)
  if(KVX_LINTIAN)
    add_test(NAME eactl_lintian
             COMMAND bash ${PROJECT_SOURCE_DIR}/scripts/package.sh --bin ${CMAKE_BINARY_DIR}/bin
                     --out ${CMAKE_CURRENT_BINARY_DIR}/eactl_lintian --lintian)
    set_tests_properties(eactl_lintian PROPERTIES TIMEOUT 300)
  else()
    message(STATUS "eactl_lintian: lintian missing (scripts/setup.sh installs it), not tested")
  endif()
endif()
