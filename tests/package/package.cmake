# The package as users meet it: exported names, headers on their own, an installed copy that other projects build against.

set(folders_of_tolvin kernel geometry vuDB)
set(folders_of_pf performer)
set(folders_of_pfutil performer/pfutil)
foreach(library tolvin pf pfutil)
  list(TRANSFORM folders_of_${library} PREPEND ${PROJECT_SOURCE_DIR}/ OUTPUT_VARIABLE folders)
  add_test(NAME package/exports_${library}
    COMMAND ${PROJECT_SOURCE_DIR}/tests/package/check_exports $<TARGET_FILE:${library}> ${folders})
endforeach()

# Every public header compiles alone, as C11 and as C++20; building this library is the test.
file(GLOB public_headers RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/kernel/*.h ${PROJECT_SOURCE_DIR}/geometry/*.h ${PROJECT_SOURCE_DIR}/vuDB/*.h
  ${PROJECT_SOURCE_DIR}/performer/*.h ${PROJECT_SOURCE_DIR}/performer/pfutil/*.h)
list(APPEND public_headers plugin.h)
set(header_sources)
foreach(header ${public_headers})
  string(MAKE_C_IDENTIFIER ${header} name)
  foreach(language c cpp)
    set(source ${PROJECT_BINARY_DIR}/header_checks/${name}.${language})
    file(CONFIGURE OUTPUT ${source} CONTENT "#include <tolvin/${header}>\n")
    list(APPEND header_sources ${source})
  endforeach()
endforeach()
add_library(header_checks OBJECT ${header_sources})
set_target_properties(header_checks PROPERTIES C_STANDARD 11 C_EXTENSIONS OFF CXX_STANDARD 20 CXX_EXTENSIONS OFF)
target_compile_options(header_checks PRIVATE -Wall -Wextra -pedantic -Werror)
target_link_libraries(header_checks PRIVATE pf)

add_test(NAME package/install
  COMMAND ${PROJECT_SOURCE_DIR}/tests/package/check_install ${CMAKE_COMMAND} ${PROJECT_BINARY_DIR}
    ${CMAKE_C_COMPILER} ${CMAKE_CXX_COMPILER} ${CMAKE_C_FLAGS})
