# The file formats of the storage engine: file names, the file I/O seam,
# write batches and the write-ahead log, table files, the manifest.
add_library(kandb_lsm_format STATIC
  file_io.cc
  filename.cc
  log.cc
  table.cc
  table_builder.cc
  manifest.cc
  state_dir.cc)
target_link_libraries(kandb_lsm_format PUBLIC kandb_common kandb_crypto PRIVATE kandb_warnings)

# A FileIo that fails chosen calls and counts them; for the tests of the
# formats and of the engine.
add_library(kandb_lsm_testutil STATIC fault_injection.cc)
target_link_libraries(kandb_lsm_testutil PUBLIC kandb_lsm_format PRIVATE kandb_warnings)

kandb_test(lsm_format_test
  SOURCES format_test.cc
  LIBS kandb_lsm_format kandb_lsm_testutil kandb_testutil)
