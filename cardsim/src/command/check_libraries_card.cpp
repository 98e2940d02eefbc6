#include "check_libraries_card.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <string_view>

#include "card_description.h"
#include "error.h"
#include BOOTUP_FPD_BOARD_TYPES

namespace cardsim {
namespace {

constexpr const char *key_file = "/dev/kd_bootstrap";

std::map<std::string, std::string> read_keys() {
    std::ifstream file(key_file);
    if (!file) throw Error(std::string(key_file) + ": cannot be read: this is no card, or not a powered one");
    std::map<std::string, std::string> keys;
    for (std::string line; std::getline(file, line);) {
        line.erase(std::remove(line.begin(), line.end(), ' '), line.end());
        const std::size_t equals = line.find('=');
        if (equals != std::string::npos) keys.emplace(line.substr(0, equals), line.substr(equals + 1));
    }
    return keys;
}

std::string value_of(const std::map<std::string, std::string> &keys, const char *key) {
    const auto found = keys.find(key);
    if (found == keys.end()) throw Error(std::string(key_file) + ": no key " + key);
    return found->second;
}

uint32_t number_of(const std::map<std::string, std::string> &keys, const char *key) {
    return static_cast<uint32_t>(std::strtoul(value_of(keys, key).c_str(), nullptr, 10));
}

template <class Table>
bool has(const Table &table, uint32_t board_type) {
    return std::find(std::begin(table), std::end(table), board_type) != std::end(table);
}

FpdVersion version_of(uint16_t major, uint16_t minor, uint16_t debug) {
    return {FPD_VERSION_NORMAL, static_cast<uint8_t>(major), minor, static_cast<uint8_t>(debug), 0};
}

}  // namespace

bool Card::has_region(const std::string &name) const {
    for (const FpdObject &fpd : fpds) {
        for (const Region &region : fpd.regions) {
            if (region.name == name) return true;
        }
    }
    return false;
}

FruHwData read_identity() {
    const std::map<std::string, std::string> keys = read_keys();
    FruHwData data{};
    data.board_type = number_of(keys, "PD_CARD_TYPE");
    data.group_type = has(group3_board_types, data.board_type) ? 3 : has(group4_board_types, data.board_type) ? 4 : 15;
    data.hw_major = number_of(keys, "HW_MAJOR_VERSION");
    data.hw_minor = number_of(keys, "HW_MINOR_VERSION");
    data.pd_slot_num = number_of(keys, "PD_SLOT_NUM");
    value_of(keys, "MY_CARD_PID").copy(data.card_pid, sizeof data.card_pid - 1);
    data.valid = 1;
    return data;
}

uint32_t asked_type(const Card &card) {
    return requested_type(static_cast<int>(card.mode)).value_or(0);
}

void prepare(FpdDesc &description) {
    description = {};
    description.magic = FPD_DESC_MAGIC;
    description.version = FPD_DESC_VERSION;
}

FpdDescRequest description_request(const Card &card, const Region &region) {
    const BrdFpdInfo &info = region.info;
    FpdDescRequest request{};
    request.board_type = card.board_type;
    request.hw_version = card.hw_version;
    request.programmed_version = version_of(info.programmed_major, info.programmed_minor, info.programmed_debug);
    request.running_version = version_of(info.running_major, info.running_minor, info.running_debug);
    std::string_view(region.name).copy(request.name, sizeof request.name - 1);
    request.info_flag = info.info_flag;
    request.magic = FPD_DESC_MAGIC;
    request.version = FPD_DESC_VERSION;
    request.upgrade_type = asked_type(card);
    return request;
}

}  // namespace cardsim
