# Whole-build sanitizer switch: every target, the library included, so that the
# tests exercise the shipped code under the sanitizer.
if(KZOL_SANITIZE)
  string(REPLACE ";" "," _kzol_san "${KZOL_SANITIZE}")
  add_compile_options(-fsanitize=${_kzol_san} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${_kzol_san})
endif()
