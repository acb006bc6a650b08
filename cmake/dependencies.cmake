# Header-only libraries of the host, taken by name: /usr/include itself would bring glibc's headers in.
file(MAKE_DIRECTORY "${PROJECT_BINARY_DIR}/host-headers")
foreach(folder CLI nlohmann)
  file(CREATE_LINK "/usr/include/${folder}" "${PROJECT_BINARY_DIR}/host-headers/${folder}" SYMBOLIC)
endforeach()
add_library(host_headers INTERFACE)
target_include_directories(host_headers SYSTEM INTERFACE "${PROJECT_BINARY_DIR}/host-headers")
