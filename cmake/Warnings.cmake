# Warnings are defined once here and applied per target, never globally, so that
# third-party code pulled into the build keeps its own settings.
add_library(as_warnings INTERFACE)
target_compile_options(as_warnings INTERFACE
  -Wall -Wextra -Wshadow -Wnon-virtual-dtor -Wcast-align -Wunused -Woverloaded-virtual
  -Wformat=2 -Wimplicit-fallthrough)
