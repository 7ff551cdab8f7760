# The storage engine on top of the file formats: memtables, the group-commit
# write path, reads, background flush and compaction, open and recovery.
add_library(kandb_lsm STATIC
  memtable.cc
  scan_iterator.cc
  db.cc
  db_write.cc
  db_read.cc
  db_background.cc
  db_stats.cc)
target_link_libraries(kandb_lsm PUBLIC kandb_lsm_format Threads::Threads PRIVATE kandb_warnings)

kandb_test(lsm_engine_test
  SOURCES db_test.cc db_stress_test.cc
  LIBS kandb_lsm kandb_lsm_testutil kandb_testutil
  TIMEOUT 300)

# Prints its figures; never run by CTest.
kandb_benchmark(lsm_bench
  SOURCES lsm_bench.cc
  LIBS kandb_lsm)

kandb_test(lsm_fault_test
  SOURCES db_fault_test.cc
  LIBS kandb_lsm kandb_lsm_testutil kandb_testutil
  TIMEOUT 600)
