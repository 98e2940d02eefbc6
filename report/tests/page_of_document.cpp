// The page of a document that is no log's: page_of_document <DOCUMENT.json >PAGE.html
#include <iostream>
#include <iterator>
#include <string>

#include "page.h"

int main() {
    const std::string document{std::istreambuf_iterator<char>(std::cin), {}};
    std::cout << fpd_report::html_page(document);
    return std::cout.flush() ? 0 : 1;
}
