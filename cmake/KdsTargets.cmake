# What every target of the project shares, and the helpers that make its kinds of targets.

# Language, warnings and sanitizers of one of our own targets; users of the library get none of it.
function(kds_target_defaults target)
    target_compile_features(${target} PUBLIC cxx_std_20)
    set_target_properties(${target} PROPERTIES
        CXX_EXTENSIONS OFF
        POSITION_INDEPENDENT_CODE ON)
    # Position-independent code serves the shared library and the archive alike; this flag lets the
    # compiler inline across it as if it served the archive alone.
    target_compile_options(${target} PRIVATE -fno-semantic-interposition)
    target_compile_options(${target} PRIVATE
        -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast
        -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align -Wcast-qual -Wdouble-promotion
        -Wformat=2 -Wextra-semi -Wundef)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        # Off, because g++ 12 is wrong with both when it optimises: it takes scope objects that link
        # themselves into a list, and unlink when they go, for dangling, and the overlap tests inside
        # std::basic_string for overlaps. The address sanitizer sees the real ones.
        target_compile_options(${target} PRIVATE
            -Wlogical-op -Wduplicated-cond -Wduplicated-branches -Wsuggest-override
            -Wno-dangling-pointer -Wno-restrict)
    endif()
    if(KDS_WARNINGS_ARE_ERRORS)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
    if(KDS_SANITIZE)
        target_compile_options(${target} PRIVATE
            -fsanitize=${KDS_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
        target_link_options(${target} PUBLIC -fsanitize=${KDS_SANITIZE})
    endif()
endfunction()

# Makes kds_<name> from kds/<name>/*.cpp: one layer of the library as an archive that lower layers
# know nothing of, so that a test of a layer links that layer and what is below it, nothing else.
#   kds_layer(<name> [<lower layer>...])
function(kds_layer name)
    # Globbed while the layers are being filled from several sides; CONFIGURE_DEPENDS looks again
    # at each build.
    file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${name}/*.cpp)
    list(TRANSFORM ARGN PREPEND kds_ OUTPUT_VARIABLE lower)
    if(sources)
        add_library(kds_${name} STATIC ${sources})
        kds_target_defaults(kds_${name})
        target_include_directories(kds_${name} PUBLIC ${PROJECT_SOURCE_DIR})
        target_link_libraries(kds_${name} PUBLIC ${lower})
    else()
        add_library(kds_${name} INTERFACE)
        target_compile_features(kds_${name} INTERFACE cxx_std_20)
        target_include_directories(kds_${name} INTERFACE ${PROJECT_SOURCE_DIR})
        target_link_libraries(kds_${name} INTERFACE ${lower})
    endif()
endfunction()

# Makes <folder>_tests from tests/<folder>/*.cpp and the test <folder> that runs it: one
# executable a folder, because linking and starting under the sanitizers cost more than the tests.
#   kds_test(<folder> [LAYER <layer>] [LABELS <label>...] [THREADS <filter>])
# LAYER    the layer under test when it is not named like the folder.
# THREADS  what starts threads, as a GoogleTest filter. It bears the label `threads`; a build with
#          the thread sanitizer has no other tests.
function(kds_test folder)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "LAYER;THREADS" "LABELS")
    file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${folder}/*.cpp)
    if(NOT sources OR (KDS_SANITIZE STREQUAL "thread" AND NOT arg_THREADS))
        return()
    endif()
    if(NOT arg_LAYER)
        set(arg_LAYER ${folder})
    endif()
    add_executable(${folder}_tests ${sources})
    kds_target_defaults(${folder}_tests)
    target_include_directories(${folder}_tests PRIVATE ${PROJECT_SOURCE_DIR})
    target_link_libraries(${folder}_tests PRIVATE
        kds_${arg_LAYER} kds_test_support GTest::gtest GTest::gtest_main)
    if(KDS_SANITIZE STREQUAL "thread")
        add_test(NAME ${folder} COMMAND ${folder}_tests --gtest_brief=1
            --gtest_filter=${arg_THREADS})
    else()
        add_test(NAME ${folder} COMMAND ${folder}_tests --gtest_brief=1)
    endif()
    set_tests_properties(${folder} PROPERTIES
        WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
        TIMEOUT 600
        LABELS "${arg_LABELS};$<$<BOOL:${arg_THREADS}>:threads>")
endfunction()

# Makes <name>_bench from bench/<name>_bench.cpp, linked with the layer of that name or, where there
# is none, with the whole library.
#   kds_bench(<name> [<library to compare with>...])
function(kds_bench name)
    if(NOT EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${name}_bench.cpp)
        return()
    endif()
    add_executable(${name}_bench ${name}_bench.cpp)
    kds_target_defaults(${name}_bench)
    target_include_directories(${name}_bench PRIVATE ${PROJECT_SOURCE_DIR})
    set(library kds_static)
    if(TARGET kds_${name})
        set(library kds_${name})
    endif()
    target_link_libraries(${name}_bench PRIVATE
        ${library} benchmark::benchmark benchmark::benchmark_main ${ARGN})
endfunction()
