# cmake -DOUTPUT=FILE.cpp -DFOLDER=DIR -DFILES=A,B,C -P EmbedFiles.cmake: the files as a table of WebFiles.h.
set(types html "text/html; charset=utf-8" css "text/css; charset=utf-8" js "text/javascript; charset=utf-8"
  svg "image/svg+xml")
string(REPLACE "," ";" FILES "${FILES}")
set(arrays "")
set(rows "")
set(number 0)
foreach(file IN LISTS FILES)
  file(READ ${FOLDER}/${file} bytes HEX)
  string(REGEX REPLACE "(..)" "'\\\\x\\1'," bytes "${bytes}")
  get_filename_component(extension ${file} LAST_EXT)
  string(SUBSTRING ${extension} 1 -1 extension)
  list(FIND types ${extension} at)
  math(EXPR at "${at} + 1")
  list(GET types ${at} type)
  string(APPEND arrays "constexpr char kFile${number}[] = {${bytes}};\n")
  string(APPEND rows "    {\"/${file}\", \"${type}\", {kFile${number}, sizeof(kFile${number})}},\n")
  math(EXPR number "${number} + 1")
endforeach()
file(WRITE ${OUTPUT} "#include \"tools/tessel/inspect/WebFiles.h\"

namespace tessel::tool {

namespace {

${arrays}
constexpr WebFile kFiles[] = {
${rows}};

}  // namespace

std::span<const WebFile> WebFiles() {
    return kFiles;
}

}  // namespace tessel::tool
")
