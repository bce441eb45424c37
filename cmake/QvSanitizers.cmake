# QV_SANITIZE=address,undefined or thread instruments every target.
if(QV_SANITIZE)
  set(_qv_san -fsanitize=${QV_SANITIZE} -fno-omit-frame-pointer)
  if(QV_SANITIZE MATCHES "undefined")
    list(APPEND _qv_san -fno-sanitize-recover=undefined)
  endif()
  add_compile_options(${_qv_san})
  add_link_options(${_qv_san})
endif()

# Fuzz builds instrument every library for coverage, and check memory.
if(QV_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

# GCC's flow analysis gives false "may be used uninitialized" warnings in
# standard headers once sanitizer instrumentation is added.
if(QV_SANITIZE AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  add_compile_options(-Wno-maybe-uninitialized)
endif()
