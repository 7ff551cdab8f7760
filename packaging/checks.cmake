# Tests of the monitoring files that the package ships.
if(NOT KANDB_BUILD_TESTS)
  return()
endif()

# The rule file loads in Prometheus, and its alerts fire and stay silent on
# synthetic series as kandb-meta-alerts_test.yml expects.
add_test(NAME alert_rules_check
         COMMAND ${KANDB_PROMTOOL} check rules ${CMAKE_CURRENT_LIST_DIR}/kandb-meta-alerts.yml)
add_test(NAME alert_rules_test
         COMMAND ${KANDB_PROMTOOL} test rules ${CMAKE_CURRENT_LIST_DIR}/kandb-meta-alerts_test.yml)
# The name checker itself: what it takes for a metric name and for exported.
add_test(NAME check_metric_names_test
         COMMAND ${KANDB_PYTHON3} ${CMAKE_CURRENT_LIST_DIR}/check_metric_names_test.py)
set_tests_properties(alert_rules_check alert_rules_test check_metric_names_test PROPERTIES TIMEOUT 120)
# No __pycache__ in the source tree.
set_tests_properties(check_metric_names_test PROPERTIES
                     ENVIRONMENT "PROMTOOL=${KANDB_PROMTOOL};PYTHONDONTWRITEBYTECODE=1")
