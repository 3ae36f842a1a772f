# View logic without widgets: the state of each view's controls, which src/ui (or the headless
# client) shows. MyViewBase, CDLoginView (sign-in), AccountView (quota).
target_sources(ferrovane_app PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/AccountView.cpp ${CMAKE_CURRENT_LIST_DIR}/AccountView.h
  ${CMAKE_CURRENT_LIST_DIR}/CDLoginView.cpp ${CMAKE_CURRENT_LIST_DIR}/CDLoginView.h
  ${CMAKE_CURRENT_LIST_DIR}/MyViewBase.cpp ${CMAKE_CURRENT_LIST_DIR}/MyViewBase.h
  ${CMAKE_CURRENT_LIST_DIR}/ViewControl.cpp ${CMAKE_CURRENT_LIST_DIR}/ViewControl.h
)
