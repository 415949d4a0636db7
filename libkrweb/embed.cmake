# Writes OUT, a source file that embeds the files of the folder PAGE.
file(GLOB_RECURSE files RELATIVE ${PAGE} ${PAGE}/*)
list(SORT files)
set(arrays "")
set(table "")
set(number 0)
foreach(file IN LISTS files)
    file(READ ${PAGE}/${file} bytes HEX)
    string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${bytes}")
    string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,)" "\\1\n"
           bytes "${bytes}")
    get_filename_component(extension ${file} LAST_EXT)
    set(type application/octet-stream)
    if(extension STREQUAL .html)
        set(type "text/html; charset=utf-8")
    elseif(extension MATCHES "^\\.m?js$")
        set(type "text/javascript; charset=utf-8")
    elseif(extension STREQUAL .css)
        set(type "text/css; charset=utf-8")
    elseif(extension STREQUAL .svg)
        set(type image/svg+xml)
    elseif(extension STREQUAL .png)
        set(type image/png)
    elseif(extension STREQUAL .json)
        set(type application/json)
    endif()
    # The byte after the content keeps an empty file from being an empty array.
    string(APPEND arrays "constexpr unsigned char kFile${number}[] = {\n${bytes}0};\n")
    set(path /${file})
    if(file STREQUAL index.html)
        set(path /)
    endif()
    string(APPEND table "    {\"${path}\", \"${type}\", toText(kFile${number})},\n")
    math(EXPR number "${number} + 1")
endforeach()
file(WRITE ${OUT} "// Made by embed.cmake.
#include \"krwebassets.hpp\"

#include <cstddef>

namespace KR::web {

namespace {

template <std::size_t N>
std::string_view toText(const unsigned char (&bytes)[N]) {
    return {reinterpret_cast<const char*>(bytes), N - 1};
}

${arrays}
const Asset kAssets[] = {
${table}};

} // namespace

const Asset* findAsset(std::string_view path) noexcept {
    for (const Asset& asset : kAssets) {
        if (asset.path == path) {
            return &asset;
        }
    }
    return nullptr;
}

} // namespace KR::web
")
