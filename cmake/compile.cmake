# What every target of ours is compiled and linked with.
add_library(zop_options INTERFACE)
target_include_directories(zop_options INTERFACE "${PROJECT_SOURCE_DIR}")
target_compile_definitions(zop_options INTERFACE
  UNICODE _UNICODE STRICT NOMINMAX WIN32_LEAN_AND_MEAN _WIN32_WINNT=0x0A00 NTDDI_VERSION=0x0A000000 ZOP_BUILD)
target_link_libraries(zop_options INTERFACE netapi32 wtsapi32 advapi32 ole32 oleaut32 shell32 userenv shlwapi dbghelp version)

if(MSVC)
  target_compile_options(zop_options INTERFACE /W4 /WX /EHa /utf-8 /permissive-)
else()
  # -Wno-array-bounds, -Wno-stringop-overread: GCC 12 misreads MinGW's inline wmemcpy wherever a
  # short wide literal is copied or compared.
  # -fnon-call-exceptions: destructors run when a fault is turned into a C++ exception.
  target_compile_options(zop_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Werror -Wno-array-bounds -Wno-stringop-overread
    -fnon-call-exceptions)
  add_link_options(-static) # libgcc, libstdc++, winpthread: only system DLLs are imported
  if(CMAKE_BUILD_TYPE STREQUAL "Debug")
    add_compile_options(-gdwarf-4) # Wine's crash dumps cannot read version 5
  else()
    add_link_options(-s)
  endif()
endif()

if(ZOP_COVERAGE)
  target_compile_options(zop_options INTERFACE --coverage -fprofile-abs-path)
  target_link_options(zop_options INTERFACE --coverage)
elseif(ZOP_CCACHE)
  find_program(ccache ccache)
  if(ccache)
    set(CMAKE_CXX_COMPILER_LAUNCHER "${CMAKE_COMMAND}" -E env "CCACHE_BASEDIR=${PROJECT_SOURCE_DIR}" CCACHE_NOHASHDIR=1
      CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime "${ccache}")
    if(NOT MSVC)
      add_compile_options(-fpch-preprocess) # lets ccache cache sources that use a precompiled header
    endif()
  endif()
endif()
