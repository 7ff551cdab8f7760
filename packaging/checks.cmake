# Tests of the Prometheus alert rules (packaging/kandb-meta-alerts.yml).
if(NOT KANDB_BUILD_TESTS)
  return()
endif()

# The rule file loads in Prometheus, and its alerts fire and stay silent on
# synthetic series as kandb-meta-alerts_test.yml expects.
add_test(NAME alert_rules_check
         COMMAND ${KANDB_PROMTOOL} check rules ${CMAKE_CURRENT_LIST_DIR}/kandb-meta-alerts.yml)
add_test(NAME alert_rules_test
         COMMAND ${KANDB_PROMTOOL} test rules ${CMAKE_CURRENT_LIST_DIR}/kandb-meta-alerts_test.yml)
set_tests_properties(alert_rules_check alert_rules_test PROPERTIES TIMEOUT 120)
