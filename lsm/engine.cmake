# The storage engine on top of the file formats: memtables, the group-commit
# write path, reads, background flush and compaction, open and recovery.
add_library(kandb_lsm STATIC
  memtable.cc
  scan_iterator.cc
  db.cc
  db_write.cc
  db_read.cc
  db_background.cc)
target_link_libraries(kandb_lsm PUBLIC kandb_lsm_format Threads::Threads PRIVATE kandb_warnings)
