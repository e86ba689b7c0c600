# Options shared by every target of this tree, and the three functions that its folders use.

add_library(brenthaven_options INTERFACE)
target_compile_features(brenthaven_options INTERFACE cxx_std_20)
target_include_directories(brenthaven_options INTERFACE $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}>)
target_compile_options(
  brenthaven_options
  INTERFACE -Wall -Wextra -Wconversion $<$<BOOL:${BRENTHAVEN_WERROR}>:-Werror>
            $<$<CXX_COMPILER_ID:Clang>:-Wno-sign-conversion> $<$<COMPILE_LANG_AND_ID:C,GNU>:-fanalyzer>)
target_compile_definitions(brenthaven_options INTERFACE $<$<CONFIG:Debug>:_GLIBCXX_ASSERTIONS>)
# The C library's checks of buffers need an optimising build; some compilers come with another level of them.
target_compile_options(brenthaven_options INTERFACE $<$<CONFIG:Release>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>)
set(MAIL_TEST_TIMEOUT 120)  # seconds
if(BRENTHAVEN_SANITIZE)
  set(MAIL_TEST_TIMEOUT 600)
  target_compile_options(brenthaven_options INTERFACE -fsanitize=${BRENTHAVEN_SANITIZE} -fno-omit-frame-pointer
                                                      -fno-sanitize-recover=all)
  target_link_options(brenthaven_options INTERFACE -fsanitize=${BRENTHAVEN_SANITIZE})
endif()

# mail_folder(text SOURCES sstring.cpp ... [NEEDS platform ...] [LIBRARIES ${MD_LIBRARY} ...])
# One subsystem of the library: an object target that the whole library takes in, and a static archive with the
# folders that it needs, so that a test links its own subsystem and what lies below it, no more.
set_property(GLOBAL PROPERTY MAIL_FOLDERS "")
set_property(GLOBAL PROPERTY MAIL_LIBRARIES "")
function(mail_folder name)
  cmake_parse_arguments(FOLDER "" "" "SOURCES;NEEDS;LIBRARIES" ${ARGN})
  add_library(brenthaven_${name}_objects OBJECT ${FOLDER_SOURCES})
  target_link_libraries(brenthaven_${name}_objects PRIVATE brenthaven_options)
  add_library(brenthaven_${name} STATIC $<TARGET_OBJECTS:brenthaven_${name}_objects>)
  target_link_libraries(brenthaven_${name} PUBLIC brenthaven_options ${FOLDER_LIBRARIES})
  # Text, regex and platform need each other: two rounds through their archives may leave a symbol open, three do not.
  set_target_properties(brenthaven_${name} PROPERTIES LINK_INTERFACE_MULTIPLICITY 3)
  foreach(need ${FOLDER_NEEDS})
    target_link_libraries(brenthaven_${name} PUBLIC brenthaven_${need})
  endforeach()
  set_property(GLOBAL APPEND PROPERTY MAIL_FOLDERS ${name})
  set_property(GLOBAL APPEND PROPERTY MAIL_LIBRARIES ${FOLDER_LIBRARIES})
endfunction()

# mail_test(address NEEDS address SOURCES parser821_test.cpp ...) makes test_address and registers its cases.
# Every case runs in a process of its own, so cases may set the environment and run in parallel.
function(mail_test name)
  cmake_parse_arguments(TEST "" "" "SOURCES;NEEDS;LIBRARIES" ${ARGN})
  add_executable(test_${name} ${TEST_SOURCES})
  target_link_libraries(test_${name} PRIVATE brenthaven_options ${TEST_LIBRARIES} GTest::gmock GTest::gtest_main)
  foreach(need ${TEST_NEEDS})
    target_link_libraries(test_${name} PRIVATE brenthaven_${need})
  endforeach()
  gtest_discover_tests(test_${name} TEST_PREFIX ${name}. DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT ${MAIL_TEST_TIMEOUT})
endfunction()

# mail_bench(strings NEEDS text SOURCES strings_bench.cpp) makes bench_strings.
function(mail_bench name)
  cmake_parse_arguments(BENCH "" "" "SOURCES;NEEDS;LIBRARIES" ${ARGN})
  add_executable(bench_${name} ${BENCH_SOURCES})
  target_link_libraries(bench_${name} PRIVATE brenthaven_options ${BENCH_LIBRARIES} benchmark::benchmark_main)
  foreach(need ${BENCH_NEEDS})
    target_link_libraries(bench_${name} PRIVATE brenthaven_${need})
  endforeach()
endfunction()

# mail_program(SMTP-Router): what starts once per message must start fast, so it takes in the C++ run time, and needs no
# relocation of its own addresses.
function(mail_program name)
  if(NOT BRENTHAVEN_SANITIZE)
    target_link_options(${name} PRIVATE -static-libstdc++ -static-libgcc -no-pie -Wl,--gc-sections -Wl,-O1
                                        -Wl,--hash-style=gnu)
  endif()
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/libexec/brenthaven)
endfunction()
