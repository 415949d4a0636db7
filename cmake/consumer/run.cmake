# Installs the build into a separate folder, builds the consumer against it and runs that.
file(REMOVE_RECURSE ${WORK})
function(run)
    execute_process(COMMAND ${ARGV} RESULT_VARIABLE result)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "failed: ${ARGV}")
    endif()
endfunction()
set(prefix ${WORK}/prefix)
run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${prefix})
run(${CMAKE_COMMAND} -G Ninja -S ${CONSUMER} -B ${WORK}/build -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX}
    -DWITH_CAMERA=${CAMERA} -DWITH_DDS=${DDS} -DWITH_INTEROP=${INTEROP})
run(${CMAKE_COMMAND} --build ${WORK}/build)
run(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${prefix}/${LIBDIR} ${WORK}/build/consumer)

# The same through pkg-config.
execute_process(COMMAND ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${prefix}/${LIBDIR}/pkgconfig
                        pkg-config --cflags --libs krvision
                OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE result)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "pkg-config does not find krvision")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
run(${CXX} ${CONSUMER}/main.cpp -o ${WORK}/consumer ${flags})
run(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${prefix}/${LIBDIR} ${WORK}/consumer)
