# Localised strings: LanguageUtil and the language files, compiled in as ":/lang/<code>.xml".
target_sources(ferrovane_app PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/LanguageUtil.cpp
  ${CMAKE_CURRENT_LIST_DIR}/LanguageUtil.h)

set(_ferrovane_lang_dir ${PROJECT_SOURCE_DIR}/resources/lang)
qt_add_resources(ferrovane_app "ferrovane_lang"
  PREFIX "/lang"
  BASE ${_ferrovane_lang_dir}
  FILES
    ${_ferrovane_lang_dir}/en.xml
    ${_ferrovane_lang_dir}/de.xml)
