# xrprocdetector_warnings(target): the project's warning set, as errors when
# XRPROCDETECTOR_WERROR is ON (as CI builds).
function(xrprocdetector_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic)
  if(XRPROCDETECTOR_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
