/// Texts of simulated cards, put together from small pieces.
#ifndef CARD_TEXT_H
#define CARD_TEXT_H

#include <cstdint>
#include <string>
#include <vector>

namespace card_tests {

/// One region; the keys and tables are lines of a card description.
struct Region {
    std::string name;
    std::string running = "1.0.0";
    std::string packaged = "1.1.0";  ///< of the image for a regular upgrade; empty: nothing is packaged
    std::string keys = {};           ///< of the region
    std::string image_keys = {};     ///< of that image
    std::string tables = {};         ///< after it: faults, other images
};

/// The name of a region's packaged image.
std::string image_of(const std::string &region_name);

/// An FPD object with its regions.
std::string fpd(uint32_t id, const std::vector<Region> &regions);

/// The status LED, object 1, steady amber.
std::string status_led();

/// [card] of group 3 with `keys`, the status LED, `tables`, and the FPDs.
struct Card {
    std::string keys = {};
    std::string tables = {};
    std::string fpds = {};
    std::string leds = status_led();
};
std::string card_text(const Card &card);

/// A closed function that fails; `keys` narrow it down (nth, boot, text).
std::string call_fault(const std::string &function, int64_t code, const std::string &keys = {});

/// What goes wrong with the upgrade of the region it is put into.
std::string region_fault(const std::string &kind, const std::string &keys = {});

/// The key of a region that takes so many seconds to upgrade.
std::string duration(double seconds);

std::string depends_on(const std::string &name);

/// A region that is asked for at boot and needs a plain reset; takes one second of the card's time.
Region plain_region(const std::string &name);

}  // namespace card_tests

#endif
