# Puts page.html together with its style and script, and writes it as a C++ source: embed.cmake in script mode, with
# PAGE_DIR, the directory of the three, and OUTPUT.
file(READ ${PAGE_DIR}/page.html page)
file(READ ${PAGE_DIR}/page.css style)
file(READ ${PAGE_DIR}/page.js script)

# What the Content-Security-Policy calls 'sha256-...': the digest of `text` in base64.
function(base64_digest text result)
  string(SHA256 hex "${text}")
  string(APPEND hex "00") # 33 bytes: 11 groups of 24 bits
  set(alphabet "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/")
  set(encoded "")
  foreach(group RANGE 10)
    math(EXPR at "${group} * 6")
    string(SUBSTRING ${hex} ${at} 6 digits)
    foreach(shift 18 12 6 0)
      math(EXPR value "(0x${digits} >> ${shift}) & 63")
      string(SUBSTRING ${alphabet} ${value} 1 letter)
      string(APPEND encoded ${letter})
    endforeach()
  endforeach()
  string(SUBSTRING ${encoded} 0 43 encoded)
  set(${result} "${encoded}=" PARENT_SCOPE)
endfunction()

base64_digest("${style}" style_hash)
base64_digest("${script}" script_hash)
foreach(part style_hash script_hash style script)
  string(REPLACE "@${part}@" "${${part}}" page "${page}")
endforeach()

string(FIND "${page}" "@document@" at)
string(SUBSTRING "${page}" 0 ${at} before)
string(LENGTH "@document@" length)
math(EXPR at "${at} + ${length}")
string(SUBSTRING "${page}" ${at} -1 after)
file(WRITE ${OUTPUT} "// Made from report/page.\n#include \"page_parts.h\"\n
const std::string_view fpd_report::page_before_document = R\"fpd_page(${before})fpd_page\";
const std::string_view fpd_report::page_after_document = R\"fpd_page(${after})fpd_page\";\n")
