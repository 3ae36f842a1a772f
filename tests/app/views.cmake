ferrovane_add_test(ferrovane_views_tests LABEL integration
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/ViewLogicTest.cpp
  LIBS ferrovane_app ferrovane_testserver)
