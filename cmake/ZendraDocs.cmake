# The API reference from the headers: cmake --build DIRECTORY --target docs, then docs/html/index.html in DIRECTORY.
set(ZENDRA_DOCS_DIRECTORY ${PROJECT_BINARY_DIR}/docs)
configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${ZENDRA_DOCS_DIRECTORY}/Doxyfile @ONLY)
add_custom_target(
  docs
  COMMAND doxygen ${ZENDRA_DOCS_DIRECTORY}/Doxyfile
  COMMENT "API reference: ${ZENDRA_DOCS_DIRECTORY}/html/index.html"
  VERBATIM)
