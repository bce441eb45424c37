# Warnings for everything we build; -Werror when QV_WERROR is on (CI).
add_compile_options(-Wall -Wextra)
if(QV_WERROR)
  add_compile_options(-Werror)
endif()
# Cancellation unwinds C++ frames: keep unwind tables everywhere, modules included.
add_compile_options(-fexceptions -funwind-tables -fasynchronous-unwind-tables)
