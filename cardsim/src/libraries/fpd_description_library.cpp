#include "fpd_description.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "card.h"
#include "md5.h"

using namespace cardsim;

namespace {

constexpr uint32_t max_upgrade_type = 4;

/// The first region of which `is_it` holds; null: none.
template <typename Is>
const RegionDescription *find_region_if(const Call &call, Is is_it) {
    for (const FpdDescription &fpd : call.card.description.fpds) {
        const auto found = std::find_if(fpd.regions.begin(), fpd.regions.end(), is_it);
        if (found != fpd.regions.end()) {
            return &*found;
        }
    }
    return nullptr;
}

/// A region by its name as the card reports it, cut to `length` characters.
const RegionDescription &region_named(const Call &call, const std::string &name, size_t length) {
    const RegionDescription *region = find_region_if(
        call, [&](const RegionDescription &candidate) { return candidate.name.substr(0, length) == name; });
    require(call, region != nullptr, "unknown FPD '" + name + "'");
    return *region;
}

void require_board(const Call &call, uint32_t board_type, const FpdVersion &hw_version) {
    const CardDescription &card = call.card.description;
    require(call, board_type == card.board_type, formatted("board type %u is not the card's", board_type));
    const bool is_the_cards =
        hw_version.major == card.hw_major && hw_version.minor == card.hw_minor && hw_version.debug == 0;
    require(call, hw_version.kind == FPD_VERSION_NORMAL && is_the_cards,
            "hardware version " + version_text(hw_version) + " is not the card's");
}

/// A version as the caller makes it: a plain triple, its last byte zero.
void require_clean_version(const Call &call, const char *field, const FpdVersion &version) {
    require(call, version.kind == FPD_VERSION_NORMAL, formatted("%s is of kind %d", field, version.kind));
    require_zero(call, field, &version.reserved5, sizeof version.reserved5);
}

void require_request(const Call &call, const FpdDescRequest &request) {
    require(call, request.magic == FPD_DESC_MAGIC, formatted("request: wrong magic 0x%x", request.magic));
    require(call, request.version == FPD_DESC_VERSION, formatted("request: wrong version %d", request.version));
    require_clean_version(call, "request: hw_version", request.hw_version);
    require_clean_version(call, "request: programmed_version", request.programmed_version);
    require_clean_version(call, "request: running_version", request.running_version);
    require_clean_text(call, "request: name", request.name, sizeof request.name);
    require_zero(call, "request: reserved40", &request.reserved40, sizeof request.reserved40);
    require_zero(call, "request: reserved41", request.reserved41, sizeof request.reserved41);
    require_zero(call, "request: reserved49", request.reserved49, sizeof request.reserved49);
    require(call, request.upgrade_type <= max_upgrade_type,
            formatted("request: unknown upgrade type %u", request.upgrade_type));
    require_board(call, request.board_type, request.hw_version);
}

/// All zero but the magic and the version, which the caller sets.
void require_result(const Call &call, const FpdDesc &result) {
    require(call, result.magic == FPD_DESC_MAGIC, formatted("result: wrong magic 0x%x", result.magic));
    require(call, result.version == FPD_DESC_VERSION, formatted("result: wrong version %d", result.version));
    FpdDesc rest;
    std::memcpy(&rest, &result, sizeof rest);
    rest.magic = 0;
    rest.version = 0;
    require_zero(call, "result", &rest, sizeof rest);
}

std::string verdict_text(const FpdDescRequest &request, const ImageDescription &image, const FpdDesc &result) {
    if (image.status_msg) {
        return *image.status_msg;
    }
    if (result.status == FPD_DESC_STATUS_REV_NOT_SUPPORTED) {
        return "running version " + version_text(request.running_version) + " is older than " +
               version_text(image.minimum) + ", the oldest that can be upgraded";
    }
    const std::string versions =
        version_text(request.programmed_version) + " is programmed, " + version_text(image.version) + " is packaged";
    return (result.need_upgrade != 0 ? "upgrade needed: " : "no upgrade needed: ") + versions;
}

/// The sum that the package states; of the file as it lies there when the description leaves it to that. Empty when
/// there is no such file, which nothing that is validated against it will pass.
std::string packaged_md5(const Call &call, const ImageDescription &image) {
    if (image.md5) {
        return *image.md5;
    }
    try {
        return md5_of_file(call.card.state_directory.path() / package_directory / image.file);
    } catch (const Error &) {
        return {};
    }
}

void fill_result(const Call &call, const FpdDescRequest &request, const ImageDescription &image, FpdDesc &result) {
    const FirmwareVersion packaged = firmware_version(image.version);
    const bool is_too_old = firmware_version(request.running_version) < firmware_version(image.minimum);
    write_text(result.dependency, sizeof result.dependency, image.depends_on);
    write_text(result.image, sizeof result.image, image.file);
    write_text(result.md5, sizeof result.md5, packaged_md5(call, image));
    result.need_upgrade = image.need_upgrade.value_or(firmware_version(request.programmed_version) != packaged);
    result.packaged_version = image.version;
    result.minimum_version = image.minimum;
    result.status = is_too_old ? FPD_DESC_STATUS_REV_NOT_SUPPORTED : 0;
    result.status_msg = lasting_text(call, verdict_text(request, image, result));
}

}  // namespace

CARDSIM_EXPORT uint32_t get_fpd_capability_info(const char *name, uint32_t board_type, FpdVersion hw_version) {
    Call call("get_fpd_capability_info", Callers::OneThread);
    require(call, name != nullptr, "no name");
    call.arguments = formatted("name=%s board_type=%u hw_version=%s", quoted(name).c_str(), board_type,
                               version_text(hw_version).c_str());
    require_board(call, board_type, hw_version);
    const RegionDescription &region = region_named(call, name, sizeof(char[64]) - 1);
    const CallFault *fault = fault_of(call);
    return call.end_with_bits(fault != nullptr ? static_cast<uint32_t>(fault->code) : region.capabilities);
}

CARDSIM_EXPORT int check_and_get_upgrade_image(FpdDescRequest *request, FpdDesc *result, char *err_msg,
                                               size_t err_len) {
    Call call("check_and_get_upgrade_image", Callers::OneThread);
    require(call, request != nullptr && result != nullptr, "a record is null");
    require_error_buffer(call, err_msg, err_len);
    require_request(call, *request);
    require_result(call, *result);
    call.arguments = formatted("name=%s upgrade_type=%u programmed=%s running=%s", quoted(request->name).c_str(),
                               request->upgrade_type, version_text(request->programmed_version).c_str(),
                               version_text(request->running_version).c_str());
    const RegionDescription &region = region_named(call, request->name, sizeof request->name - 1);
    require(call, request->info_flag == region.info_flag,
            formatted("request: info flag %d is not the one that the card reports", request->info_flag));
    const auto find = [&] {
        const ImageDescription *image = find_image(region, request->upgrade_type);
        if (image == nullptr) {
            throw Error(formatted("no image packaged for upgrade type %u", request->upgrade_type), ENOENT);
        }
        fill_result(call, *request, *image, *result);
    };
    return call.answer(find, err_msg, err_len);
}
