# Settings that every target of the project shares.

add_library(tolvin_settings INTERFACE)
target_compile_features(tolvin_settings INTERFACE cxx_std_20 c_std_11)
# Without this, files above 2 GiB and inode numbers above 2^32 are out of reach on the 32-bit target.
target_compile_definitions(tolvin_settings INTERFACE _FILE_OFFSET_BITS=64)
target_compile_options(tolvin_settings INTERFACE
  -Wall -Wextra -Wshadow
  # Results must not depend on whether the compiler fuses a product with a sum.
  -ffp-contract=off
  $<$<BOOL:${TOLVIN_WERROR}>:-Werror>)

# tolvin_library(NAME OUTPUT sources...): a shared library that exports only what is marked, under its own SONAME.
function(tolvin_library name)
  add_library(${name} SHARED ${ARGN})
  target_link_libraries(${name} PRIVATE $<BUILD_INTERFACE:tolvin_settings>)
  set_target_properties(${name} PROPERTIES
    C_VISIBILITY_PRESET hidden
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR})
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  # Instances of standard templates are visible whatever the compiler is told; the linker hides them.
  # The runtime of clang's sanitizers is in the executable, so libraries built for fuzzing have open names.
  target_link_options(${name} PRIVATE -Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/hide-mangled.map
    $<$<NOT:$<BOOL:${TOLVIN_FUZZ}>>:-Wl,-z,defs>)
  set_property(TARGET ${name} APPEND PROPERTY LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/hide-mangled.map)
endfunction()
