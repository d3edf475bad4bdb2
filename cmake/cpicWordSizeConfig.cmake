# find_package(cpic) through the architecture-independent directory
# share/cmake/cpic: hands over to the package files of the consumer's word
# size (lib/cmake/cpic, lib32/cmake/cpic, ...). Some distributions do not
# search lib32 for 32-bit consumers; they all search share/cmake.
math(EXPR _cpic_bits "${CMAKE_SIZEOF_VOID_P} * 8")
if(EXISTS "${CMAKE_CURRENT_LIST_DIR}/cpic-${_cpic_bits}.cmake")
  include("${CMAKE_CURRENT_LIST_DIR}/cpic-${_cpic_bits}.cmake")
  include("${_cpic_config_dir}/cpicConfig.cmake")
else()
  set(cpic_FOUND FALSE)
  set(cpic_NOT_FOUND_MESSAGE "cpic is not installed for ${_cpic_bits}-bit programs here")
endif()
unset(_cpic_bits)
