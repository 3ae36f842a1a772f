ferrovane_add_test(ferrovane_app_core_tests LABEL unit
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/AppDelegateTest.cpp
  LIBS ferrovane_app)
