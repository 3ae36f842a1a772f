# FileDownload against the local server (shares the catalogue tests' support code).
ferrovane_add_test(ferrovane_file_download_tests LABEL integration
  SOURCES FileDownloadTest.cpp ${CMAKE_CURRENT_SOURCE_DIR}/../catalogue/CatalogueTestSupport.cpp
  LIBS ferrovane_sync ferrovane_testserver SQLite::SQLite3)
target_include_directories(ferrovane_file_download_tests PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/../catalogue)
