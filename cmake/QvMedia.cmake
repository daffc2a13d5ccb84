# qv_alsa, qv_v4l2 and qv_usb: ALSA, libv4l2 and libusb for the word size being built.
#
# A 64-bit build takes what the system has installed. A 32-bit build on a 64-bit system takes what
# cmake/i386-root has unpacked, or i386 packages where they are installed. Libraries are found by
# the file names that programs load, so that no link of a -dev package matters.

set(QV_I386_ROOT "${PROJECT_SOURCE_DIR}/build/i386-root" CACHE PATH
  "Where cmake/i386-root has unpacked the 32-bit libraries")

if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(qv_media_lib_dirs ${QV_I386_ROOT}/usr/lib/i386-linux-gnu /usr/lib/i386-linux-gnu)
  set(qv_media_include_dirs ${QV_I386_ROOT}/usr/include /usr/include)
  set(qv_media_search NO_DEFAULT_PATH)  # else a 64-bit library would be found
  set(qv_media_advice "run cmake/i386-root, then configure again")
else()
  set(qv_media_lib_dirs "")
  set(qv_media_include_dirs "")
  set(qv_media_search "")
  set(qv_media_advice "install libasound2-dev and libv4l-dev, then configure again")
endif()

function(qv_find_media target header file)
  string(MAKE_C_IDENTIFIER "QV_${target}_${CMAKE_SIZEOF_VOID_P}" name)
  find_path(${name}_INCLUDE ${header} PATHS ${qv_media_include_dirs} ${qv_media_search})
  find_library(${name}_FILE NAMES ${file} PATHS ${qv_media_lib_dirs} ${qv_media_search})
  mark_as_advanced(${name}_INCLUDE ${name}_FILE)
  if(NOT ${name}_INCLUDE OR NOT ${name}_FILE)
    if("OPTIONAL" IN_LIST ARGN)
      return()
    endif()
    math(EXPR bits "${CMAKE_SIZEOF_VOID_P} * 8")
    message(FATAL_ERROR "${bits}-bit ${file} with ${header} not found: ${qv_media_advice}.")
  endif()
  add_library(${target} SHARED IMPORTED GLOBAL)
  set_target_properties(${target} PROPERTIES IMPORTED_LOCATION ${${name}_FILE})
  # /usr/include needs no naming, and named it would be searched before the compiler's own headers.
  if(NOT ${name}_INCLUDE STREQUAL "/usr/include")
    target_include_directories(${target} SYSTEM INTERFACE ${${name}_INCLUDE})
  endif()
endfunction()

qv_find_media(qv_alsa alsa/asoundlib.h libasound.so.2)
qv_find_media(qv_v4l2 libv4l2.h libv4l2.so.0)
# Only for the example transport, which is left out without it; the library does not use it.
qv_find_media(qv_usb libusb-1.0/libusb.h libusb-1.0.so.0 OPTIONAL)

# The loader does not know unpacked libraries, and libv4l2 loads more: the old kind of run path
# also applies to those. It is for runs from the build tree; an installation drops it.
get_target_property(qv_v4l2_file qv_v4l2 IMPORTED_LOCATION)
if(qv_v4l2_file MATCHES "^${QV_I386_ROOT}/")
  get_filename_component(qv_unpacked_dir ${qv_v4l2_file} DIRECTORY)
  foreach(target IN ITEMS qv_v4l2 qv_usb)
    if(TARGET ${target})
      target_link_options(${target} INTERFACE
        -Wl,--disable-new-dtags -Wl,-rpath-link,${qv_unpacked_dir})
    endif()
  endforeach()
endif()
