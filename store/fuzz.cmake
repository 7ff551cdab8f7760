# libFuzzer target of the decoders of etcd's answers. It writes its own
# seed corpus when run with --write-seeds=DIR.
kandb_fuzzer(etcd_json_fuzz
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/etcd_json_fuzz.cc
  LIBS kandb_etcd_json kandb_testutil)
