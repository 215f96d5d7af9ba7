# Warnings are errors in our own code. Nothing here may change float results:
# no fast-math style flags: NaN checks and exact results depend on that.
add_library(qor_warnings INTERFACE)
target_compile_options(qor_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Werror)
