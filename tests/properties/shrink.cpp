#include "shrink.h"

#include <algorithm>
#include <set>
#include <string>
#include <vector>

namespace properties {
namespace {

using Edit = std::function<void(Card &)>;

std::size_t region_count(const Card &card) {
    std::size_t count = 0;
    for (const Fpd &fpd : card.fpds) count += fpd.regions.size();
    return count;
}

Region &region_at(Card &card, std::size_t place) {
    auto fpd = card.fpds.begin();
    for (; place >= fpd->regions.size(); ++fpd) place -= fpd->regions.size();
    return fpd->regions[place];
}

void drop_regions(Card &card, std::size_t first, std::size_t count) {
    std::size_t place = 0;
    for (Fpd &fpd : card.fpds) {
        std::erase_if(fpd.regions, [&](const Region &) {
            const std::size_t here = place++;
            return here >= first && here < first + count;
        });
    }
    std::erase_if(card.fpds, [](const Fpd &fpd) { return fpd.regions.empty(); });
}

/// Halves first, single ones last.
void add_drops(const Card &card, std::vector<Edit> &edits) {
    const std::size_t count = region_count(card);
    for (std::size_t size = (count + 1) / 2; size > 0; size /= 2) {
        for (std::size_t first = 0; first < count; first += size) {
            edits.emplace_back([=](Card &smaller) { drop_regions(smaller, first, size); });
        }
    }
    for (std::size_t at = 0; at < card.faults.size(); ++at) {
        edits.emplace_back(
            [=](Card &smaller) { smaller.faults.erase(smaller.faults.begin() + static_cast<long>(at)); });
    }
    for (std::size_t at = 0; at < card.leds.size(); ++at) {
        edits.emplace_back([=](Card &smaller) { smaller.leds.erase(smaller.leds.begin() + static_cast<long>(at)); });
    }
}

/// A setting back to what it is on a plain card.
template <typename Whole, typename T>
void add_default(std::vector<Edit> &edits, T Whole::*setting, const std::function<Whole &(Card &)> &whole) {
    edits.emplace_back([=](Card &smaller) { whole(smaller).*setting = Whole{}.*setting; });
}

template <typename Whole, typename... T>
void add_defaults(std::vector<Edit> &edits, const std::function<Whole &(Card &)> &whole, T Whole::*...settings) {
    (add_default(edits, settings, whole), ...);
}

void add_card_settings(std::vector<Edit> &edits) {
    const std::function<Card &(Card &)> whole = [](Card &card) -> Card & { return card; };
    add_defaults(edits, whole, &Card::lives, &Card::marker, &Card::backend, &Card::flash_mounted, &Card::mount_time,
                 &Card::mount_fails, &Card::unmount_fails, &Card::event_status, &Card::watchdog_status,
                 &Card::reset_status, &Card::grub_status, &Card::auto_upgrade, &Card::hw_major);
}

void add_region_settings(const Card &card, std::vector<Edit> &edits) {
    for (std::size_t place = 0; place < region_count(card); ++place) {
        const std::function<Region &(Card &)> region = [=](Card &smaller) -> Region & {
            return region_at(smaller, place);
        };
        add_defaults(edits, region, &Region::troubles, &Region::reports, &Region::duration, &Region::activation,
                     &Region::sequence, &Region::info_flag, &Region::upgrade_type, &Region::capabilities);
        Card copy = card;
        const std::size_t images = region(copy).images.size();
        for (std::size_t at = 0; at < images; ++at) {
            const std::function<Image &(Card &)> image = [=](Card &smaller) -> Image & {
                return region(smaller).images[at];
            };
            edits.emplace_back([=](Card &smaller) {
                std::vector<Image> &some = region(smaller).images;
                some.erase(some.begin() + static_cast<long>(at));
            });
            add_defaults(edits, image, &Image::depends_on, &Image::minimum, &Image::wrong_md5, &Image::need_upgrade);
        }
    }
}

std::vector<Edit> edits_of(const Card &card) {
    std::vector<Edit> edits;
    add_drops(card, edits);
    add_card_settings(edits);
    add_region_settings(card, edits);
    return edits;
}

}  // namespace

Card shrunk(Card card, const std::function<bool(const Card &)> &fails, unsigned most_tries) {
    std::set<std::string> tried = {card_toml(card, {})};
    const auto is_worth_a_try = [&](const Card &smaller) {
        // The text leaves out how the marker file comes about and how the card is run.
        const std::string key =
            card_toml(smaller, {}) + std::to_string(static_cast<int>(smaller.marker)) + (smaller.lives ? "lives" : "");
        return smaller != card && tried.insert(key).second;
    };
    for (bool is_smaller = true; is_smaller;) {
        is_smaller = false;
        for (const Edit &edit : edits_of(card)) {
            Card smaller = card;
            edit(smaller);
            if (!is_worth_a_try(smaller)) continue;
            if (most_tries-- == 0) return card;
            if (!fails(smaller)) continue;
            card = smaller;
            is_smaller = true;
            break;
        }
    }
    return card;
}

}  // namespace properties
