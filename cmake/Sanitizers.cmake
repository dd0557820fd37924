# One switch builds everything under a sanitizer: -DAS_SANITIZE=address,undefined or thread.
if(AS_SANITIZE)
  set(_as_san_flags -fsanitize=${AS_SANITIZE} -fno-omit-frame-pointer -g)
  if(AS_SANITIZE MATCHES "undefined")
    list(APPEND _as_san_flags -fno-sanitize-recover=undefined)
  endif()
  add_compile_options(${_as_san_flags})
  add_link_options(-fsanitize=${AS_SANITIZE})
endif()
