# Applies TARVEL_SANITIZE (a comma list such as "address,undefined") to every target.
if(TARVEL_SANITIZE)
  add_compile_options(-fsanitize=${TARVEL_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${TARVEL_SANITIZE})
endif()
