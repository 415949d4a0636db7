# One test of CTest per file of pytest.

set(environment
    PYTHONPATH=${CMAKE_CURRENT_BINARY_DIR}
    PYTHONDONTWRITEBYTECODE=1
    PYTHONFAULTHANDLER=1)
if(KR_SANITIZE)
    # The interpreter is not built with it, so its runtime must be loaded first. What the interpreter does not free is
    # not a leak.
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libasan.so OUTPUT_VARIABLE runtime
                    OUTPUT_STRIP_TRAILING_WHITESPACE)
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libstdc++.so.6 OUTPUT_VARIABLE standard_library
                    OUTPUT_STRIP_TRAILING_WHITESPACE)
    list(APPEND environment "LD_PRELOAD=${runtime} ${standard_library}" KR_SANITIZED=1
         ASAN_OPTIONS=detect_leaks=0:detect_stack_use_after_return=1)
endif()

# kr_add_python_test(<file> [<variable>=<value>...]): runs test/test_<file>.py.
function(kr_add_python_test file)
    add_test(NAME Python.${file}
             COMMAND ${Python_EXECUTABLE} -m pytest -q -p no:cacheprovider ${CMAKE_CURRENT_SOURCE_DIR}/test/test_${file}.py)
    set_tests_properties(Python.${file} PROPERTIES ENVIRONMENT "${environment};${ARGN}" TIMEOUT 300 COST 20)
endfunction()

foreach(file exit image memory modules values vision)
    kr_add_python_test(${file})
endforeach()
if(NOT KR_SANITIZE)
    kr_add_python_test(types KR_PYTHON_SOURCE=${CMAKE_CURRENT_SOURCE_DIR})
endif()
if(KR_COMMAND AND KR_DDS AND TARGET krpythonhost)
    kr_add_python_test(kr KR_PROGRAM=$<TARGET_FILE_DIR:krvision_python>/../../kr/kr
                       KR_EXAMPLES=${PROJECT_SOURCE_DIR}/examples/python)
endif()
