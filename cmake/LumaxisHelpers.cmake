# lumaxis_add_library(NAME SOURCES... [LIBS ...]): one static library for one source folder.
function(lumaxis_add_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC lumaxis_settings ${ARG_LIBS})
endfunction()

# lumaxis_add_test(NAME SOURCES... LIBS ... [LABELS ...] [TIMEOUT s] [ENVIRONMENT ...]
#                  [RUNS run=function... ...]):
# one Qt Test executable registered with CTest, run headless. With RUNS, each "run=f1,f2" is a
# CTest entry NAME_run that runs only those test functions, so that ctest -j spreads a long
# executable over the cores.
function(lumaxis_add_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBS;LABELS;ENVIRONMENT;RUNS" ${ARGN})
  qt_add_executable(${name} ${ARG_SOURCES})
  set_target_properties(${name} PROPERTIES MACOSX_BUNDLE OFF WIN32_EXECUTABLE OFF)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE lumaxis_settings Qt6::Test ${ARG_LIBS})
  if(ARG_RUNS)
    set(tests)
    foreach(run IN LISTS ARG_RUNS)
      string(REPLACE "=" ";" parts "${run}")
      list(GET parts 0 run_name)
      list(GET parts 1 functions)
      string(REPLACE "," ";" functions "${functions}")
      add_test(NAME ${name}_${run_name} COMMAND ${name} ${functions})
      list(APPEND tests ${name}_${run_name})
    endforeach()
  else()
    add_test(NAME ${name} COMMAND ${name})
    set(tests ${name})
  endif()
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 300)
  endif()
  set_tests_properties(${tests} PROPERTIES
    TIMEOUT ${ARG_TIMEOUT}
    ENVIRONMENT "QT_QPA_PLATFORM=offscreen;LANGUAGE=en;${ARG_ENVIRONMENT}")
  if(ARG_LABELS)
    set_tests_properties(${tests} PROPERTIES LABELS "${ARG_LABELS}")
  endif()
endfunction()
