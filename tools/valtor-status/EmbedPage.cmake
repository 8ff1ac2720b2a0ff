# cmake -DOUTPUT=FILE -DFOLDER=FOLDER -P EmbedPage.cmake
# Makes a source file of the files of the page.
set(source "#include \"valtor-status/PageFiles.h\"\n\nnamespace valtor {\nnamespace {\n")
set(views "")
foreach(pair "Index;index.html" "Script;page.js" "Style;page.css")
  list(GET pair 0 name)
  list(GET pair 1 file)
  file(READ "${FOLDER}/${file}" bytes HEX)
  string(LENGTH "${bytes}" digits)
  math(EXPR size "${digits} / 2")
  string(REGEX REPLACE "(..)" "0x\\1," bytes "${bytes}")
  string(APPEND source "const unsigned char k${name}Bytes[] = {${bytes}0};\n")
  string(APPEND views
    "const std::string_view kPage${name}(reinterpret_cast<const char*>(k${name}Bytes), ${size});\n")
endforeach()
file(WRITE "${OUTPUT}" "${source}}  // namespace\n\n${views}\n}  // namespace valtor\n")
