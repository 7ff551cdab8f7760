# libFuzzer target of every message decoder. Each target writes its own seed
# corpus when run with --write-seeds=DIR.
kandb_fuzzer(messages_fuzz
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/messages_fuzz.cc
  LIBS kandb_pdpb kandb_testutil)
