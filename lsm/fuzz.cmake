# libFuzzer targets of the storage file formats: batches and log replay,
# table files, the manifest. Each target writes its own seed corpus when run
# with --write-seeds=DIR.
kandb_fuzzer(log_fuzz
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/log_fuzz.cc
  LIBS kandb_lsm_format kandb_testutil)
kandb_fuzzer(table_fuzz
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/table_fuzz.cc
  LIBS kandb_lsm_format kandb_testutil)
kandb_fuzzer(manifest_fuzz
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/manifest_fuzz.cc
  LIBS kandb_lsm_format kandb_testutil)
