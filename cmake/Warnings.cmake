# Warnings are errors with both GCC and Clang.
function(egw_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wcast-align -Wcast-qual
    -Wmissing-declarations -Wnull-dereference -Wformat=2 -Werror)
endfunction()
