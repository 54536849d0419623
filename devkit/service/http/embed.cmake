# Writes a table of files as a source of the program: cmake -DOUT=... -DFILES="a;b" -P.

set(rows "")
set(arrays "")
set(count 0)
set(type_html "text/html; charset=utf-8")
set(type_css "text/css; charset=utf-8")
set(type_js "text/javascript; charset=utf-8")
set(type_svg "image/svg+xml")
set(type_png "image/png")
set(type_ico "image/x-icon")
foreach(file IN LISTS FILES)
  get_filename_component(name "${file}" NAME)
  get_filename_component(extension "${file}" LAST_EXT)
  string(SUBSTRING "${extension}" 1 -1 extension)
  file(READ "${file}" hex HEX)
  file(SIZE "${file}" size)
  file(SHA256 "${file}" sum)
  string(SUBSTRING "${sum}" 0 32 sum)
  string(REGEX REPLACE "(..)" "'\\\\x\\1'," bytes "${hex}")
  set(path "/${name}")
  if(name STREQUAL "index.html")
    set(path "/")
  endif()
  string(APPEND arrays "constexpr char file${count}[] = {${bytes}'\\0'};\n")
  string(APPEND rows "        {\"${path}\", \"${type_${extension}}\", \"\\\"${sum}\\\"\", {file${count}, ${size}}},\n")
  math(EXPR count "${count} + 1")
endforeach()

file(WRITE "${OUT}" "#include \"service/http/console_files.h\"

namespace {

${arrays}
}  // namespace

const std::vector<ConsoleFile>& consoleFiles()
{
    static const std::vector<ConsoleFile> files = {
${rows}    };
    return files;
}
")
