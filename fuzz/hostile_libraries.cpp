#include "hostile_libraries.h"

#include <algorithm>
#include <array>
#include <map>
#include <utility>

#include "fake_platform.h"

namespace {

constexpr unsigned pool_size = 24;  // names that FPDs have, and depend on
constexpr unsigned most_fpds = 8;
constexpr std::size_t most_progress_reports = 4;

Input *input;
std::map<std::pair<std::uint32_t, std::uint8_t>, FakeRegion> regions;

/// One in sixteen, and never after the input's end.
bool rarely() {
    return input->byte() >= 0xf0;
}

int result() {
    constexpr std::array codes = {-1, 1, 17, 22, 0x501, 0x100, -13, 0x10000408};
    return rarely() ? codes[input->below(codes.size())] : 0;
}

/// As a careless library does: its end only where there is room for it.
void put_text(char *to, std::size_t size, std::string_view text) {
    const std::size_t count = text.copy(to, size);
    if (count < size) to[count] = '\0';
}

/// A failure's text: none, one, or one that fills the buffer to the last byte.
int with_text(int rc, char *err_msg, std::size_t err_len) {
    if (rc == 0 || !err_msg) return rc;
    const unsigned kind = input->below(4);
    if (kind == 1) put_text(err_msg, err_len, "the library's reason");
    if (kind > 1) put_text(err_msg, err_len, std::string(err_len, kind == 2 ? 'E' : '%'));
    return rc;
}

std::string pool_name(unsigned number) {
    return "Fpd" + std::to_string(number % pool_size);
}

std::string some_name() {
    const unsigned kind = input->byte();
    if (kind < 0xe0) return pool_name(kind);
    if (kind < 0xf0) return std::string(input->text(120));
    return std::string(input->byte(), 'N');
}

std::uint16_t some_part() {
    return rarely() ? input->word() : static_cast<std::uint16_t>(input->below(4));
}

std::string some_dependency() {
    const unsigned kind = input->byte();
    if (kind < 0x60) return "";
    return kind < 0xf0 ? pool_name(kind) : some_name();
}

/// Low, around the highest there is, or any.
std::uint8_t some_sequence_number() {
    const unsigned kind = input->byte();
    if (kind < 0xc0) return static_cast<std::uint8_t>(kind % 4);
    return kind < 0xe0 ? static_cast<std::uint8_t>(13 + kind % 5) : input->byte();
}

BrdFpdInfo some_info(const std::string &name) {
    constexpr std::array<std::uint8_t, 8> types = {1, 1, 1, 1, 1, 5, 0, 255};
    BrdFpdInfo info{};
    put_text(info.name, sizeof info.name, name);
    info.running_major = some_part();
    info.running_minor = some_part();
    info.running_debug = some_part();
    info.programmed_major = some_part();
    info.programmed_minor = some_part();
    info.programmed_debug = some_part();
    info.upgrade_type = types[input->below(types.size())];
    info.activation_kind = static_cast<std::uint8_t>(input->below(8));
    info.initial_seq = some_sequence_number();
    info.info_flag = input->byte();
    return info;
}

FpdVersion some_packaged_version() {
    constexpr std::array<std::uint8_t, 4> kinds = {FPD_VERSION_NORMAL, FPD_VERSION_NORMAL, FPD_VERSION_NO_DEBUG,
                                                   FPD_VERSION_UNKNOWN};
    FpdVersion version{};
    version.kind = rarely() ? input->byte() : kinds[input->below(kinds.size())];
    version.major = static_cast<std::uint8_t>(some_part());
    version.minor = some_part();
    version.debug = static_cast<std::uint8_t>(some_part());
    return version;
}

FpdDesc some_description() {
    constexpr std::array<const char *, 4> verdicts = {"upgrade needed", nullptr, "", "%s%n"};
    FpdDesc desc{};
    put_text(desc.dependency, sizeof desc.dependency, some_dependency());
    put_text(desc.image, sizeof desc.image, rarely() ? std::string(300, 'I') : "image.bin");
    put_text(desc.md5, sizeof desc.md5, rarely() ? std::string(300, '0') : "0123");
    desc.need_upgrade = input->byte() < 0xd0 ? 1 : 0;
    desc.packaged_version = some_packaged_version();
    desc.minimum_version = some_packaged_version();
    desc.status_msg = verdicts[input->below(verdicts.size())];
    desc.status = rarely() ? FPD_DESC_STATUS_REV_NOT_SUPPORTED : input->below(4);
    return desc;
}

std::uint32_t some_capabilities() {
    if (rarely()) return input->number();
    const unsigned bits = input->byte();
    return FPD_CAPABILITY_BOOTUP_AUTO_UPGRADE | (bits & 1 ? FPD_CAPABILITY_CAN_UNLOCK_GOLDEN : 0) |
           (bits & 2 ? FPD_CAPABILITY_REQUIRES_GOLDEN_UNLOCKED_PRIMARY : 0);
}

FakeRegion some_region(unsigned number) {
    FakeRegion region;
    region.name = rarely() ? some_name() : pool_name(number);
    region.info = some_info(rarely() ? some_name() : region.name);
    region.capabilities = some_capabilities();
    region.desc = some_description();
    return region;
}

FakeRegion &region_of(std::uint32_t obj_id, std::uint8_t index) {
    const auto [place, is_new] = regions.try_emplace({obj_id, index});
    if (is_new) place->second = some_region(obj_id * 3 + index);
    return place->second;
}

FakeRegion *region_named(std::string_view name) {
    const auto found = std::find_if(regions.begin(), regions.end(),
                                    [&](const auto &each) { return each.second.name.substr(0, name.size()) == name; });
    return found == regions.end() ? nullptr : &found->second;
}

int list_ids(std::uint32_t count, std::uint32_t *ids) {
    for (std::uint32_t i = 0; i < count; ++i) ids[i] = rarely() ? input->number() : i + 1;
    return result();
}

int upgrade(BrdFpdUpgradeRequest *request, char *err_msg, std::size_t err_len) {
    for (std::size_t left = input->below(most_progress_reports); left > 0; --left)
        request->progress(request->context, rarely() ? static_cast<int>(input->number()) : 50);
    return with_text(result(), err_msg, err_len);
}

/// The answer to the next command; it makes up the one after it.
FakeCommand next_command() {
    FakeCommand command;
    command.rc = result();
    if (rarely()) command.output = std::string(2 * input->byte(), 'O');
    if (rarely()) command.error = std::string(2 * input->byte(), 'E');
    command.effect = [] { fake_platform().commands = {next_command()}; };
    return command;
}

void answer_of_fpds(FakePlatform &fake, std::uint32_t count) {
    fake.brd_group_fpd_num_fpds_get = [count](std::uint32_t, std::uint32_t *out) {
        *out = count;
        return result();
    };
    fake.brd_group_fpd_obj_id_list_get = [count](std::uint32_t, std::uint32_t *ids) { return list_ids(count, ids); };
    fake.brd_fpd_num_regions_get = [](std::uint32_t, std::uint32_t obj_id, std::uint8_t *out) {
        *out = static_cast<std::uint8_t>(rarely() ? input->byte() : 1 + obj_id % 3);
        return result();
    };
    fake.brd_fpd_regions_get = [](std::uint32_t, std::uint32_t obj_id, BrdFpdRegion *out, std::uint8_t room) {
        for (std::uint8_t i = 0; i < room; ++i) put_text(out[i].name, sizeof out[i].name, region_of(obj_id, i).name);
        if (rarely()) put_text(out[input->byte() % room].name, sizeof out->name, some_name());
        return result();
    };
    fake.brd_fpd_info_get = [](std::uint32_t, std::uint32_t obj_id, std::uint8_t index, BrdFpdInfo *out, char *err_msg,
                               std::size_t err_len) {
        *out = rarely() ? some_info(some_name()) : region_of(obj_id, index).info;
        return with_text(result(), err_msg, err_len);
    };
    fake.brd_fpd_upgrade = [](std::uint32_t, std::uint32_t, BrdFpdUpgradeRequest *request, char *err_msg,
                              std::size_t err_len) { return upgrade(request, err_msg, err_len); };
}

void answer_of_packages(FakePlatform &fake) {
    fake.get_fpd_capability_info = [](const char *name, std::uint32_t, FpdVersion) {
        const FakeRegion *const region = region_named(name);
        return region && !rarely() ? region->capabilities : input->number();
    };
    fake.check_and_get_upgrade_image = [](FpdDescRequest *request, FpdDesc *out, char *err_msg, std::size_t err_len) {
        const FakeRegion *const region = region_named(request->name);
        *out = region && !rarely() ? region->desc : some_description();
        return with_text(result(), err_msg, err_len);
    };
    fake.image_md5_validate = [](const char *, const char *, const char *, char *err_msg, std::size_t err_len) {
        return with_text(result(), err_msg, err_len);
    };
}

void answer_of_leds(FakePlatform &fake) {
    fake.brd_group_led_num_leds_get = [](std::uint32_t, std::uint32_t *out) {
        *out = rarely() ? input->byte() : 1;
        return result();
    };
    fake.brd_group_led_obj_id_list_get = [](std::uint32_t, std::uint32_t *ids) {
        ids[0] = rarely() ? input->number() : 1;
        return result();
    };
    fake.brd_led_name_get = [](std::uint32_t, std::uint32_t, char *name, std::size_t size) {
        put_text(name, size, rarely() ? some_name() : "status");
        return result();
    };
    fake.brd_led_current_state_get = [](std::uint32_t, std::uint32_t, std::uint32_t *out) {
        *out = input->byte();
        return result();
    };
    fake.brd_led_current_color_get = fake.brd_led_current_state_get;
    fake.brd_led_state_and_color_set = [](std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t) {
        return result();
    };
}

}  // namespace

void answer_from(Input &source, int mode) {
    input = &source;
    regions.clear();
    FakePlatform &fake = fake_platform();
    fake.reset();
    answer_of_leds(fake);
    answer_of_fpds(fake, 1 + input->below(most_fpds));
    answer_of_packages(fake);
    fake.brd_local_card_group_id_get = [](std::uint32_t *out) {
        *out = rarely() ? input->number() : 3;
        return result();
    };
    fake.cookie_get_upgrade_mode = [mode](int *out, char *err_msg, std::size_t err_len) {
        *out = mode;
        return with_text(result(), err_msg, err_len);
    };
    fake.commands = {next_command()};
}

void answer_in_good_faith() {
    input = nullptr;
    regions.clear();
    fake_platform().reset();
}
