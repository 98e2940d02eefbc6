#include "page.h"

#include <string_view>

#include "page_parts.h"

namespace fpd_report {
namespace {

/// JSON that nothing in it can end the script element: "<" stands in strings only, where it may be written so.
std::string inside_script(std::string_view json) {
    constexpr std::string_view escaped = "\\u003c";
    std::string text;
    text.reserve(json.size() + json.size() / 64);
    for (const char c : json) {
        if (c == '<')
            text += escaped;
        else
            text += c;
    }
    return text;
}

}  // namespace

std::string html_page(const std::string &json) {
    std::string page;
    page.reserve(page_before_document.size() + json.size() + page_after_document.size());
    page += page_before_document;
    page += inside_script(json);
    page += page_after_document;
    return page;
}

}  // namespace fpd_report
