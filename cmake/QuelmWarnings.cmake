# Warnings applied to every target of our own (not to third-party code).
function(quelm_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>)
endfunction()
