# FileDownload: one file fetched for the sync engine, written, recorded and announced.
target_sources(ferrovane_sync PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/FileDownload.cpp ${CMAKE_CURRENT_LIST_DIR}/FileDownload.h)
