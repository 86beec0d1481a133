# tolvin_add_plugin(NAME sources...): an effect plug-in, NAME.so, of C or C++ sources that include <tolvin/plugin.h>. Names that
# are not marked with TOLVIN_PLUGIN stay inside, as do those of C++ templates. Its prefix-less file is what effects name.
function(tolvin_add_plugin name)
  add_library(${name} MODULE ${ARGN})
  target_link_libraries(${name} PRIVATE tolvin::tolvin)
  target_link_options(${name} PRIVATE -Wl,--version-script=${CMAKE_CURRENT_FUNCTION_LIST_DIR}/hide-mangled.map)
  set_target_properties(${name} PROPERTIES PREFIX "" C_VISIBILITY_PRESET hidden CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
  # Static variables of inline functions would keep the loader from ever closing it.
  target_compile_options(${name} PRIVATE $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-fno-gnu-unique>)
endfunction()
