# A vendor's platform libraries, found below ZEM_PLATFORM_PREFIX.
foreach(name vemocore vemocgi vemostorage vemoacl vemowindows vemoservices)
  find_library(ZEM_${name}_LIBRARY NAMES ${name} PATHS "${ZEM_PLATFORM_PREFIX}" PATH_SUFFIXES lib
               NO_DEFAULT_PATH REQUIRED)
  add_library(${name} SHARED IMPORTED GLOBAL)
  set_target_properties(${name} PROPERTIES IMPORTED_LOCATION "${ZEM_${name}_LIBRARY}")
  set_property(GLOBAL APPEND PROPERTY ZEM_PLATFORM_LIBRARIES ${name})
endforeach()
