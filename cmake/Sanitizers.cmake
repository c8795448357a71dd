# EGW_SANITIZE=address,undefined (or thread) instruments every target; any report stops the run.
if(EGW_SANITIZE)
  add_compile_options(-fsanitize=${EGW_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer
                      -g)
  add_link_options(-fsanitize=${EGW_SANITIZE} -fno-sanitize-recover=all)
endif()
