# Declares libraries, tests and installed files of this project.

# Warnings and sanitizers of a target that is compiled here; installed targets do not inherit them.
function(kr_compile_options target)
    # Records and errors name files relative to the source tree, also where a compiler cache with a base folder passes
    # the compiler paths relative to the build folder.
    cmake_path(RELATIVE_PATH PROJECT_SOURCE_DIR BASE_DIRECTORY ${PROJECT_BINARY_DIR} OUTPUT_VARIABLE relative_source_dir)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion
                           -Wnon-virtual-dtor -Woverloaded-virtual -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=
                           -ffile-prefix-map=${relative_source_dir}/=)
    if(CMAKE_UNITY_BUILD AND CMAKE_CXX_COMPILER_ID STREQUAL GNU)
        # A class with a member of an unnamed namespace is fine in a source file, but not in a header: g++ treats
        # sources that are compiled together as headers.
        target_compile_options(${target} PRIVATE -Wno-subobject-linkage)
    endif()
    if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
        # g++ 12 takes text + std::string, inlined, for a copy within itself.
        target_compile_options(${target} PRIVATE $<$<CONFIG:Release>:-Wno-restrict>)
    endif()
    if(KR_WERROR)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
    if(KR_SANITIZE)
        target_compile_options(${target} PRIVATE -fsanitize=${KR_SANITIZE} -fno-omit-frame-pointer
                               -fno-sanitize-recover=undefined)
        target_link_options(${target} PRIVATE -fsanitize=${KR_SANITIZE})
        if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
            # g++ 12 reports false positives of these two once a sanitizer has rewritten the code.
            target_compile_options(${target} PRIVATE -Wno-maybe-uninitialized -Wno-tsan)
        endif()
    endif()
endfunction()

# kr_add_library(<name> SOURCES ... [PUBLIC <libs>] [PRIVATE <libs>] [PC_REQUIRES <modules>])
# Declares the shared library KRVision::<name> from this folder: public headers in include/<name>/.
function(kr_add_library name)
    cmake_parse_arguments(arg "" "" "SOURCES;PUBLIC;PRIVATE;PC_REQUIRES" ${ARGN})
    add_library(${name} SHARED ${arg_SOURCES})
    add_library(KRVision::${name} ALIAS ${name})
    target_compile_features(${name} PUBLIC cxx_std_20)
    target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
                                              $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    target_link_libraries(${name} PUBLIC ${arg_PUBLIC} PRIVATE ${arg_PRIVATE})
    set_target_properties(${name} PROPERTIES
        CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON
        VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
        INSTALL_RPATH "$ORIGIN" # libraries find each other, wherever they are installed
        CXX_EXTENSIONS OFF)
    kr_compile_options(${name})

    install(TARGETS ${name} EXPORT KRVisionTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
    install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
    # Relative to the file's location, so that the installation can be anywhere.
    file(RELATIVE_PATH KR_PC_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
    set(KR_PC_NAME ${name})
    list(JOIN arg_PC_REQUIRES " " KR_PC_REQUIRES)
    configure_file(${PROJECT_SOURCE_DIR}/cmake/library.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()

# For code that is mostly templates and computes little, such as test macros, JSON and HTTP: a test file took 29 s to
# compile with everything. Switches off the optimiser under sanitizers, and UndefinedBehaviorSanitizer's checks of every
# pointer. AddressSanitizer still reports access through null and outside of an object. Libraries that read untrusted
# bytes are compiled with all checks, except libkrweb, whose parsers have them in their fuzz target.
function(kr_compile_quickly target)
    if(KR_SANITIZE)
        target_compile_options(${target} PRIVATE -O0)
    endif()
    if(KR_SANITIZE MATCHES "undefined")
        target_compile_options(${target} PRIVATE -fno-sanitize=null,alignment,vptr,object-size)
    endif()
endfunction()

function(kr_test_compile_options target)
    kr_compile_options(${target})
    kr_compile_quickly(${target})
endfunction()

# The headers that nearly every test includes, parsed once for all. kr_test_pch is made by the first test.
function(kr_add_test_headers)
    file(WRITE ${PROJECT_BINARY_DIR}/kr_test_pch.cpp "// Only to have the headers compiled.\n")
    add_library(kr_test_pch OBJECT ${PROJECT_BINARY_DIR}/kr_test_pch.cpp)
    target_compile_features(kr_test_pch PRIVATE cxx_std_20)
    target_link_libraries(kr_test_pch PRIVATE krplatform GTest::gmock)
    target_precompile_headers(kr_test_pch PRIVATE
        <gmock/gmock.h> <gtest/gtest.h>
        <algorithm> <array> <atomic> <chrono> <condition_variable> <filesystem> <fstream> <functional> <future> <map>
        <memory> <mutex> <optional> <random> <set> <sstream> <stdexcept> <string> <thread> <vector>
        <krplatform/krbroker.hpp> <krplatform/krmemoryproxy.hpp> <krplatform/krmodulehandle.hpp>
        <krplatform/krproxy.hpp>)
    kr_test_compile_options(kr_test_pch)
endfunction()

# kr_add_test(<name> [SINGLE_THREADED] [COST <seconds>] SOURCES ... LINK ...): one GoogleTest program; each of its tests is
# a CTest test. SINGLE_THREADED: neither its tests nor the programs that they run start a thread, so it is left out under
# ThreadSanitizer. COST: duration of its longest test; those with the highest cost start first.
function(kr_add_test name)
    cmake_parse_arguments(arg "SINGLE_THREADED" "COST" "SOURCES;LINK" ${ARGN})
    if(NOT KR_TESTS OR (arg_SINGLE_THREADED AND KR_SANITIZE MATCHES "thread"))
        return()
    endif()
    if(NOT TARGET kr_test_pch)
        kr_add_test_headers()
    endif()
    add_executable(${name} ${arg_SOURCES})
    target_compile_features(${name} PRIVATE cxx_std_20)
    target_link_libraries(${name} PRIVATE ${arg_LINK} GTest::gmock GTest::gtest_main)
    kr_test_compile_options(${name})
    target_precompile_headers(${name} REUSE_FROM kr_test_pch)
    # Sources of the library have their own options, and must compile without the headers of the tests.
    foreach(source IN LISTS arg_SOURCES)
        if(source MATCHES "^src/")
            set_source_files_properties(${source} PROPERTIES SKIP_PRECOMPILE_HEADERS ON)
        endif()
    endforeach()
    if(arg_COST)
        set(cost PROPERTIES COST ${arg_COST})
    endif()
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 ${cost})
endfunction()

function(kr_install_package)
    include(CMakePackageConfigHelpers)
    configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/KRVisionConfig.cmake.in
        ${PROJECT_BINARY_DIR}/KRVisionConfig.cmake INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/KRVision)
    write_basic_package_version_file(${PROJECT_BINARY_DIR}/KRVisionConfigVersion.cmake
        COMPATIBILITY SameMinorVersion)
    install(FILES ${PROJECT_BINARY_DIR}/KRVisionConfig.cmake ${PROJECT_BINARY_DIR}/KRVisionConfigVersion.cmake
            DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/KRVision)
    install(EXPORT KRVisionTargets NAMESPACE KRVision:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/KRVision)
endfunction()

# A program outside the tree that uses the installed package and all its headers.
function(kr_add_install_test)
    if(KR_SANITIZE)
        return() # the consumer would have to be built with the same sanitizer
    endif()
    add_test(NAME InstalledPackageServesAnotherProject
        COMMAND ${CMAKE_COMMAND} -DBUILD=${PROJECT_BINARY_DIR} -DCONSUMER=${PROJECT_SOURCE_DIR}/cmake/consumer
                -DWORK=${PROJECT_BINARY_DIR}/consumer -DCAMERA=${KR_CAMERA} -DDDS=${KR_DDS} -DINTEROP=${KR_INTEROP} -DCXX=${CMAKE_CXX_COMPILER}
                -DLIBDIR=${CMAKE_INSTALL_LIBDIR}
                -P ${PROJECT_SOURCE_DIR}/cmake/consumer/run.cmake)
    set_tests_properties(InstalledPackageServesAnotherProject PROPERTIES COST 40)
endfunction()

# Each library must export what its list in abi/ says. Types are read from debug information, which takes seconds.
function(kr_add_interface_tests)
    find_program(KR_ABIDW abidw)
    find_program(KR_PYTHON3 python3)
    if(NOT CMAKE_BUILD_TYPE STREQUAL Debug OR KR_SANITIZE OR NOT CMAKE_CXX_COMPILER_ID STREQUAL GNU OR NOT KR_ABIDW OR
       NOT KR_PYTHON3)
        return()
    endif()
    file(GLOB lists RELATIVE ${PROJECT_SOURCE_DIR}/abi ${PROJECT_SOURCE_DIR}/abi/*.txt)
    foreach(list IN LISTS lists)
        cmake_path(GET list STEM library)
        string(REGEX REPLACE "^lib" "" target ${library})
        if(TARGET ${target})
            add_test(NAME InterfaceMatchesItsList.${library}
                COMMAND ${KR_PYTHON3} ${PROJECT_SOURCE_DIR}/scripts/abi --build ${PROJECT_BINARY_DIR} ${library})
            set_tests_properties(InterfaceMatchesItsList.${library} PROPERTIES COST 10)
        endif()
    endforeach()
endfunction()
