# The application core: AppDelegate (settings, application-files folder, store stack, services).
target_sources(ferrovane_app PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/AppDelegate.cpp ${CMAKE_CURRENT_LIST_DIR}/AppDelegate.h
  ${CMAKE_CURRENT_LIST_DIR}/SettingsFile.cpp ${CMAKE_CURRENT_LIST_DIR}/SettingsFile.h
)
target_link_libraries(ferrovane_app PUBLIC PkgConfig::PLIST SQLite::SQLite3)
