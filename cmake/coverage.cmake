# The preset coverage includes this after project(): it links the flush of the counters into the library and all programs.
add_library(lumora-coverage OBJECT ${PROJECT_SOURCE_DIR}/tests/support/CoverageFlush.cpp)
set_target_properties(lumora-coverage PROPERTIES CXX_STANDARD 17 POSITION_INDEPENDENT_CODE ON)
link_libraries($<BUILD_INTERFACE:lumora-coverage>)
