# Header-only libraries of the host, taken by name: /usr/include itself would bring glibc's headers in.
file(MAKE_DIRECTORY "${PROJECT_BINARY_DIR}/host-headers")
foreach(folder CLI nlohmann)
  file(CREATE_LINK "/usr/include/${folder}" "${PROJECT_BINARY_DIR}/host-headers/${folder}" SYMBOLIC)
endforeach()
add_library(host_headers INTERFACE)
target_include_directories(host_headers SYSTEM INTERFACE "${PROJECT_BINARY_DIR}/host-headers")

# MariaDB Connector/C, which scripts/setup.sh builds. It is linked in, so that nothing has to lie
# beside the programs; with ZOP_MARIADB_DLL it is the DLL, which can be replaced without building.
option(ZOP_MARIADB_DLL "Use the database client as libmariadb.dll" OFF)
if(DEFINED ENV{ZOP_CACHE})
  set(cache "$ENV{ZOP_CACHE}")
elseif(DEFINED ENV{XDG_CACHE_HOME})
  set(cache "$ENV{XDG_CACHE_HOME}/zop")
else()
  set(cache "$ENV{HOME}/.cache/zop")
endif()
set(ZOP_CONNECTOR "${cache}/connector" CACHE PATH "Where MariaDB Connector/C is: bin, include/mariadb, lib")
if(NOT EXISTS "${ZOP_CONNECTOR}/include/mariadb/mysql.h")
  message(FATAL_ERROR "There is no database client in ${ZOP_CONNECTOR}: run scripts/setup.sh")
endif()
if(NOT ZOP_MARIADB_DLL)
  add_library(mariadb STATIC IMPORTED)
  set_target_properties(mariadb PROPERTIES
    IMPORTED_LOCATION "${ZOP_CONNECTOR}/lib/libmariadbclient.a"
    INTERFACE_LINK_LIBRARIES "ws2_32;advapi32;shlwapi;crypt32;secur32;bcrypt")
else()
  add_library(mariadb SHARED IMPORTED)
  set_target_properties(mariadb PROPERTIES
    IMPORTED_LOCATION "${ZOP_CONNECTOR}/bin/libmariadb.dll"
    IMPORTED_IMPLIB "${ZOP_CONNECTOR}/lib/libmariadb.dll.a")
  add_custom_command(OUTPUT "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/libmariadb.dll"
    DEPENDS "${ZOP_CONNECTOR}/bin/libmariadb.dll"
    COMMAND "${CMAKE_COMMAND}" -E copy "${ZOP_CONNECTOR}/bin/libmariadb.dll" "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/"
    VERBATIM)
  add_custom_target(mariadb_dll DEPENDS "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/libmariadb.dll")
  add_dependencies(mariadb mariadb_dll)
endif()
target_include_directories(mariadb SYSTEM INTERFACE "${ZOP_CONNECTOR}/include/mariadb")
