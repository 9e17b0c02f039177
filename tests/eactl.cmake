# The operator client: its units and argument checks with stand-in agents
# (test_eactl), and deployments of the real agent on this machine, through a
# private sshd and from the Debian package (test_eactl_deploy).
if(TARGET kvx-eactl)
  kvx_add_test(test_eactl SOURCES test_eactl.cpp)
  kvx_add_test(test_eactl_deploy SOURCES test_eactl_deploy.cpp LOCKS machine)
  foreach(t test_eactl test_eactl_deploy)
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
