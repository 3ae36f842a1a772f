# Catalogue benchmark (bench/run catalogue).
add_executable(ferrovane-bench-catalogue ${CMAKE_CURRENT_LIST_DIR}/catalogue/CatalogueBench.cpp)
target_link_libraries(ferrovane-bench-catalogue PRIVATE ferrovane_options ferrovane_catalogue)
# Shares the in-memory application services of the tests.
target_include_directories(ferrovane-bench-catalogue PRIVATE ${PROJECT_SOURCE_DIR}/tests)
