# Installs the already built library into WORK_DIR/prefix, then configures, builds and runs
# the consumer project against it with find_package(qzsse).
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

execute_process(COMMAND ${CMAKE_COMMAND} --install ${QZSSE_BINARY_DIR} --prefix ${prefix}
                RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "install failed: ${rc}")
endif()

set(flags "")
if(SANITIZE)
  set(flags "-fsanitize=address,undefined")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -S ${QZSSE_SOURCE_DIR} -B ${WORK_DIR}/build
                        -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=${BUILD_TYPE}
                        "-DCMAKE_CXX_FLAGS=${flags}" "-DCMAKE_EXE_LINKER_FLAGS=${flags}"
                RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "configuring the consumer failed: ${rc}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK_DIR}/build RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "building the consumer failed: ${rc}")
endif()
execute_process(COMMAND ${WORK_DIR}/build/consumer RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "the consumer program failed: ${rc}")
endif()

# The pkg-config file must be installed beside the CMake package.
if(NOT EXISTS ${prefix}/lib/pkgconfig/qzsse.pc AND NOT EXISTS ${prefix}/lib64/pkgconfig/qzsse.pc
   AND NOT EXISTS ${prefix}/lib/x86_64-linux-gnu/pkgconfig/qzsse.pc)
  message(FATAL_ERROR "qzsse.pc was not installed")
endif()
