# Compiles the templates of security/hosting/templates into the library, which uses them where none
# are installed. Their texts lie there only.
set(templates "#include \"security/hosting/built_in_templates.h\"\n\nnamespace HostingSecurity {\n\n")
foreach(name domain webuser forwarding)
  set(file "${PROJECT_SOURCE_DIR}/security/hosting/templates/${name}.xml")
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${file}")
  file(READ "${file}" xml)
  string(APPEND templates "const BuiltInTemplate ${name}Template = {L\"${name}.xml\", R\"xml(${xml})xml\"};\n")
endforeach()
string(APPEND templates "\n} // namespace HostingSecurity\n")
file(CONFIGURE OUTPUT "${PROJECT_BINARY_DIR}/generated/built_in_templates.cpp" CONTENT "${templates}" @ONLY)
target_sources(zop_security PRIVATE "${PROJECT_BINARY_DIR}/generated/built_in_templates.cpp")
