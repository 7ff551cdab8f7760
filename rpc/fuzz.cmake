# libFuzzer target of the frame reader. Each target writes its own seed
# corpus when run with --write-seeds=DIR.
kandb_fuzzer(frame_fuzz
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/frame_fuzz.cc
  LIBS kandb_rpc kandb_pdpb kandb_testutil)
