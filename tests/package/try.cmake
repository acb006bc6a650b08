# Installs the package, builds the outside project against it, and runs its programs and the tools:
# BUILD, TOOLCHAIN, RUN (a list: what runs Windows programs).
set(work "${BUILD}/package-test")
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "${ARGN}: ${status}\n${output}")
  endif()
endfunction()

file(REMOVE_RECURSE "${work}")
run("${CMAKE_COMMAND}" --install "${BUILD}" --prefix "${work}/installed")
run("${CMAKE_COMMAND}" -G Ninja -S "${CMAKE_CURRENT_LIST_DIR}" -B "${work}/build" "-DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN}"
  -DCMAKE_BUILD_TYPE=Release "-Dzopnative_DIR=${work}/installed/lib/cmake/zopnative")
run("${CMAKE_COMMAND}" --build "${work}/build")
foreach(program cpp_program.exe c_program.exe)
  file(COPY "${work}/build/${program}" DESTINATION "${work}/installed/bin")
  run(${RUN} "${work}/installed/bin/${program}")
endforeach()
run(${RUN} "${work}/installed/bin/zopctl.exe" --version)
run(${RUN} "${work}/installed/bin/zopconfigsvc.exe" --version)
