# libFuzzer target of the JSON reader that parses etcd's answers. It writes
# its own seed corpus when run with --write-seeds=DIR.
kandb_fuzzer(json_fuzz
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/json_fuzz.cc
  LIBS kandb_json kandb_testutil)
