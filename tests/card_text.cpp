#include "card_text.h"

#include <algorithm>
#include <cctype>

namespace card_tests {

std::string image_of(const std::string &region_name) {
    std::string file = region_name;
    std::transform(file.begin(), file.end(), file.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return file + ".img";
}

namespace {

std::string region_text(const Region &region) {
    std::string text =
        "[[fpd.region]]\nname = \"" + region.name + "\"\nrunning = \"" + region.running + "\"\n" + region.keys + "\n";
    if (!region.packaged.empty()) {
        text += "[[fpd.region.image]]\ntype = 0\nversion = \"" + region.packaged + "\"\nsize = 4096\nfile = \"" +
                image_of(region.name) + "\"\n" + region.image_keys + "\n";
    }
    return text + region.tables + "\n";
}

}  // namespace

std::string fpd(uint32_t id, const std::vector<Region> &regions) {
    std::string text = "[[fpd]]\nid = " + std::to_string(id) + "\n";
    for (const Region &region : regions) text += region_text(region);
    return text;
}

std::string status_led() {
    return "[[led]]\nid = 1\ntype = 1\nname = \"Status\"\nstate = 2\ncolor = 4\n";
}

std::string card_text(const Card &card) {
    return "[card]\ngroup = 3\nboard_type = 0x3110\nhw_version = [1, 2]\nslot = 4\npid = \"SIM-TEST\"\n" + card.keys +
           "\n" + card.tables + "\n" + card.leds + "\n" + card.fpds;
}

std::string call_fault(const std::string &function, int64_t code, const std::string &keys) {
    return "[[fault]]\ncall = \"" + function + "\"\ncode = " + std::to_string(code) + "\n" + keys + "\n";
}

std::string region_fault(const std::string &kind, const std::string &keys) {
    return "[[fpd.region.fault]]\nkind = \"" + kind + "\"\n" + keys + "\n";
}

std::string duration(double seconds) {
    return "duration = " + std::to_string(seconds) + "\n";
}

std::string depends_on(const std::string &name) {
    return "depends_on = \"" + name + "\"\n";
}

Region plain_region(const std::string &name) {
    return {.name = name, .keys = "activation = 5\n" + duration(1)};
}

}  // namespace card_tests
