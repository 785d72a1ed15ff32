# Scenarios of the lab. Those with real packets need the right to make network namespaces and the routing daemons of
# `scripts/setup lab`; without them they are counted as skipped. One at a time: they share names, and they measure.
set(SCENARIOS ${PROJECT_SOURCE_DIR}/lab/scenarios)
foreach(name default-mdt story)
  add_test(NAME lab_${name} COMMAND mvpn-lab ${SCENARIOS}/${name}.json WORKING_DIRECTORY ${PROJECT_SOURCE_DIR})
  set_tests_properties(lab_${name} PROPERTIES LABELS programs ENVIRONMENT "${LEAKS_ON_PURPOSE}")
endforeach()
foreach(name wired switchover no-receiver kill-control vrf-removed hostile)
  add_test(NAME real_${name}
    COMMAND mvpn-lab --real --skip-without --work ${CMAKE_BINARY_DIR}/lab/${name} ${SCENARIOS}/real/${name}.json
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR})
  set_tests_properties(real_${name} PROPERTIES
    LABELS real SKIP_RETURN_CODE 77 RESOURCE_LOCK network_namespaces RUN_SERIAL TRUE)
endforeach()

# What a packet analyser says of a core that carried a switchover.
set(switchover ${CMAKE_BINARY_DIR}/lab/switchover)
set_tests_properties(real_switchover PROPERTIES FIXTURES_SETUP switchover_capture)
add_test(NAME real_core_capture
  COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/lab/core_capture.py ${switchover}/core.pcap)
set_tests_properties(real_core_capture PROPERTIES
  LABELS real SKIP_RETURN_CODE 77 FIXTURES_REQUIRED switchover_capture)

# The commands of docs/linux.md.
add_test(NAME real_walkthrough COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/lab/walkthrough.py
  ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})
set_tests_properties(real_walkthrough PROPERTIES
  LABELS real SKIP_RETURN_CODE 77 RESOURCE_LOCK network_namespaces RUN_SERIAL TRUE)
