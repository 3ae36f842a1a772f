ferrovane_add_test(ferrovane_lang_tests LABEL unit
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/LanguageUtilTest.cpp
  LIBS ferrovane_app)
