#include "fake_platform.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "fpd_upgrade_cookie.h"
#include "fpd_utility.h"

namespace {

/// The library's code when it is asked for an object that it does not have.
constexpr int no_such_object = 0x501;

template <class... Part>
std::string join(const Part &...part) {
    std::string text;
    const auto add = [&text](const auto &one) {
        if (!text.empty()) text += ", ";
        if constexpr (std::is_arithmetic_v<std::decay_t<decltype(one)>>)
            text += std::to_string(one);
        else
            text += one;
    };
    (add(part), ...);
    return text;
}

/// As a careless library does: without a NUL where the text fills the buffer, not at all where there is no text.
void copy_text(char *to, std::size_t size, const std::string &text) {
    if (!to || text.empty()) return;
    text.copy(to, size);
    if (text.size() < size) to[text.size()] = '\0';
}

/// Puts the call on record and takes a copy of its hook, which may then run without the lock.
template <class Hook>
Hook record(Hook FakePlatform::*hook, const char *function, const std::string &arguments) {
    FakePlatform &fake = fake_platform();
    const std::lock_guard guard(fake.lock);
    fake.recorded.push_back({function, arguments});
    return fake.*hook;
}

/// Answers from the data, under the lock.
template <class Answer>
int answer(Answer from) {
    FakePlatform &fake = fake_platform();
    const std::lock_guard guard(fake.lock);
    return from(fake);
}

/// The same; what went well may have its text too.
template <class Answer>
int answer(char *err_msg, std::size_t err_len, Answer from) {
    return answer([=](FakePlatform &fake) {
        const int rc = from(fake);
        if (rc == 0) copy_text(err_msg, err_len, fake.chatter);
        return rc;
    });
}

int with_led(std::uint32_t obj_id, const std::function<void(FakeLed &)> &use) {
    return answer([&](FakePlatform &fake) {
        const auto led = std::find_if(fake.leds.begin(), fake.leds.end(),
                                      [obj_id](const FakeLed &each) { return each.obj_id == obj_id; });
        if (led == fake.leds.end()) return no_such_object;
        use(*led);
        return 0;
    });
}

FakeRegion *find_region(FakePlatform &fake, std::uint32_t obj_id, std::uint8_t region) {
    FakeFpd *const fpd = fake.find_fpd(obj_id);
    return fpd && region < fpd->regions.size() ? &fpd->regions[region] : nullptr;
}

/// What a finished upgrade leaves behind: the packaged version is in flash and runs.
void finish_upgrade(FakeRegion &region) {
    const FpdVersion &packaged = region.desc.packaged_version;
    BrdFpdInfo &info = region.info;
    info.running_major = info.programmed_major = packaged.major;
    info.running_minor = info.programmed_minor = packaged.minor;
    info.running_debug = info.programmed_debug = packaged.debug;
}

std::string region_name(const std::string &cut_name, FakePlatform &fake) {
    for (const FakeFpd &fpd : fake.fpds)
        for (const FakeRegion &region : fpd.regions)
            if (region.name.substr(0, cut_name.size()) == cut_name && region.name.substr(0, 16) == cut_name)
                return region.name;
    return cut_name;
}

FakeCommand find_command(const std::string &line, const FakeCommandBuffers &buffers) {
    FakePlatform &fake = fake_platform();
    const std::lock_guard guard(fake.lock);
    fake.recorded_commands.push_back(line);
    fake.recorded_buffers.push_back(buffers);
    for (auto each = fake.commands.rbegin(); each != fake.commands.rend(); ++each)
        if (line.starts_with(each->prefix)) return *each;
    return {};
}

std::string chatter() {
    FakePlatform &fake = fake_platform();
    const std::lock_guard guard(fake.lock);
    return fake.chatter;
}

}  // namespace

FakePlatform &fake_platform() {
    static FakePlatform *const fake = new FakePlatform;
    return *fake;
}

FakeRegion make_region(const std::string &name) {
    FakeRegion region;
    region.name = name;
    copy_text(region.info.name, sizeof region.info.name, name);
    region.info.running_major = region.info.programmed_major = 1;
    region.info.upgrade_type = 1;
    copy_text(region.desc.image, sizeof region.desc.image, name + ".bin");
    copy_text(region.desc.md5, sizeof region.desc.md5, "0123456789abcdef0123456789abcdef");
    region.desc.need_upgrade = 1;
    region.desc.packaged_version.major = 2;
    region.desc.status_msg = "upgrade needed";
    return region;
}

FakeFpd make_fpd(std::uint32_t obj_id, const std::vector<std::string> &names) {
    FakeFpd fpd{obj_id, {}};
    for (const std::string &name : names) fpd.regions.push_back(make_region(name));
    return fpd;
}

std::vector<FakeCall> FakePlatform::calls() {
    const std::lock_guard guard(lock);
    return recorded;
}

std::vector<FakeCall> FakePlatform::calls_of(const std::string &function) {
    std::vector<FakeCall> found = calls();
    std::erase_if(found, [&function](const FakeCall &call) { return call.function != function; });
    return found;
}

std::vector<std::string> FakePlatform::command_lines() {
    const std::lock_guard guard(lock);
    return recorded_commands;
}

std::vector<FakeCommandBuffers> FakePlatform::command_buffers() {
    const std::lock_guard guard(lock);
    return recorded_buffers;
}

std::vector<BrdFpdUpgradeRequest> FakePlatform::upgrade_requests() {
    const std::lock_guard guard(lock);
    return recorded_upgrades;
}

std::vector<FpdDescRequest> FakePlatform::description_requests() {
    const std::lock_guard guard(lock);
    return recorded_descriptions;
}

std::vector<FruHwData> FakePlatform::hardware_data() {
    const std::lock_guard guard(lock);
    return recorded_hardware;
}

void FakePlatform::forget_calls() {
    const std::lock_guard guard(lock);
    recorded.clear();
    recorded_commands.clear();
    recorded_buffers.clear();
    recorded_upgrades.clear();
    recorded_descriptions.clear();
    recorded_hardware.clear();
}

void FakePlatform::reset() {
    forget_calls();
    const std::lock_guard guard(lock);
    group_id = 3;
    fpds = {make_fpd(1, {"IoFpga"})};
    leds = {FakeLed{.obj_id = 1}};
    commands.clear();
    auto_upgrade = 1;
    upgrade_mode = 0;
    chatter.clear();
    brd_sb_attribute_flag_set = nullptr;
    brd_local_card_group_id_get = nullptr;
    brd_group_fpd_num_fpds_get = nullptr;
    brd_group_fpd_obj_id_list_get = nullptr;
    brd_fpd_num_regions_get = nullptr;
    brd_fpd_regions_get = nullptr;
    brd_fpd_info_get = nullptr;
    brd_fpd_upgrade = nullptr;
    brd_group_led_init = nullptr;
    brd_group_led_num_leds_get = nullptr;
    brd_group_led_obj_id_list_get = nullptr;
    brd_led_type_get = nullptr;
    brd_led_name_get = nullptr;
    brd_led_current_color_get = nullptr;
    brd_led_current_state_get = nullptr;
    brd_led_state_and_color_set = nullptr;
    brd_fru_hw_data_init = nullptr;
    brd_fru_hw_init = nullptr;
    get_fpd_capability_info = nullptr;
    check_and_get_upgrade_image = nullptr;
    image_md5_validate = nullptr;
    cookie_get_auto_upgrade_config = nullptr;
    cookie_set_auto_upgrade_config = nullptr;
    cookie_get_upgrade_mode = nullptr;
    cookie_set_upgrade_mode = nullptr;
}

FakeFpd *FakePlatform::find_fpd(std::uint32_t obj_id) {
    for (FakeFpd &fpd : fpds)
        if (fpd.obj_id == obj_id) return &fpd;
    return nullptr;
}

FakeRegion *FakePlatform::find_region(const std::string &name) {
    for (FakeFpd &fpd : fpds)
        for (FakeRegion &region : fpd.regions)
            if (region.name == name) return &region;
    return nullptr;
}

int brd_sb_attribute_flag_set(int value) {
    const auto hook = record(&FakePlatform::brd_sb_attribute_flag_set, "brd_sb_attribute_flag_set", join(value));
    return hook ? hook(value) : 0;
}

int brd_local_card_group_id_get(std::uint32_t *group_id) {
    const auto hook = record(&FakePlatform::brd_local_card_group_id_get, "brd_local_card_group_id_get", "");
    if (hook) return hook(group_id);
    return answer([=](FakePlatform &fake) {
        *group_id = fake.group_id;
        return 0;
    });
}

int brd_group_fpd_num_fpds_get(std::uint32_t group_id, std::uint32_t *count) {
    const auto hook = record(&FakePlatform::brd_group_fpd_num_fpds_get, "brd_group_fpd_num_fpds_get", join(group_id));
    if (hook) return hook(group_id, count);
    return answer([=](FakePlatform &fake) {
        *count = static_cast<std::uint32_t>(fake.fpds.size());
        return 0;
    });
}

int brd_group_fpd_obj_id_list_get(std::uint32_t group_id, std::uint32_t *ids) {
    const auto hook =
        record(&FakePlatform::brd_group_fpd_obj_id_list_get, "brd_group_fpd_obj_id_list_get", join(group_id));
    if (hook) return hook(group_id, ids);
    return answer([=](FakePlatform &fake) {
        std::transform(fake.fpds.begin(), fake.fpds.end(), ids, [](const FakeFpd &fpd) { return fpd.obj_id; });
        return 0;
    });
}

int brd_fpd_num_regions_get(std::uint32_t group_id, std::uint32_t obj_id, std::uint8_t *num_regions) {
    const auto hook = record(&FakePlatform::brd_fpd_num_regions_get, "brd_fpd_num_regions_get", join(group_id, obj_id));
    if (hook) return hook(group_id, obj_id, num_regions);
    return answer([=](FakePlatform &fake) {
        const FakeFpd *const fpd = fake.find_fpd(obj_id);
        if (!fpd) return no_such_object;
        *num_regions = static_cast<std::uint8_t>(fpd->regions.size());
        return 0;
    });
}

int brd_fpd_regions_get(std::uint32_t group_id, std::uint32_t obj_id, BrdFpdRegion *regions, std::uint8_t num_regions) {
    const auto hook =
        record(&FakePlatform::brd_fpd_regions_get, "brd_fpd_regions_get", join(group_id, obj_id, num_regions));
    if (hook) return hook(group_id, obj_id, regions, num_regions);
    return answer([=](FakePlatform &fake) {
        const FakeFpd *const fpd = fake.find_fpd(obj_id);
        if (!fpd) return no_such_object;
        for (std::size_t i = 0; i < num_regions && i < fpd->regions.size(); ++i)
            copy_text(regions[i].name, sizeof regions[i].name, fpd->regions[i].name);
        return 0;
    });
}

int brd_fpd_info_get(std::uint32_t group_id, std::uint32_t obj_id, std::uint8_t region, BrdFpdInfo *info, char *err_msg,
                     std::size_t err_len) {
    const auto hook = record(&FakePlatform::brd_fpd_info_get, "brd_fpd_info_get", join(group_id, obj_id, region));
    if (hook) return hook(group_id, obj_id, region, info, err_msg, err_len);
    return answer(err_msg, err_len, [=](FakePlatform &fake) {
        const FakeRegion *const found = find_region(fake, obj_id, region);
        if (!found) return no_such_object;
        *info = found->info;
        return 0;
    });
}

int brd_fpd_upgrade(std::uint32_t group_id, std::uint32_t obj_id, BrdFpdUpgradeRequest *request, char *err_msg,
                    std::size_t err_len) {
    const auto hook =
        record(&FakePlatform::brd_fpd_upgrade, "brd_fpd_upgrade", join(group_id, obj_id, request->region));
    {
        FakePlatform &fake = fake_platform();
        const std::lock_guard guard(fake.lock);
        fake.recorded_upgrades.push_back(*request);
    }
    if (hook) return hook(group_id, obj_id, request, err_msg, err_len);
    request->progress(request->context, 50);
    return answer(err_msg, err_len, [=](FakePlatform &fake) {
        FakeRegion *const region = find_region(fake, obj_id, request->region);
        if (!region) return no_such_object;
        finish_upgrade(*region);
        return 0;
    });
}

int brd_group_led_init(std::uint32_t group_id) {
    const auto hook = record(&FakePlatform::brd_group_led_init, "brd_group_led_init", join(group_id));
    return hook ? hook(group_id) : 0;
}

int brd_group_led_num_leds_get(std::uint32_t group_id, std::uint32_t *count) {
    const auto hook = record(&FakePlatform::brd_group_led_num_leds_get, "brd_group_led_num_leds_get", join(group_id));
    if (hook) return hook(group_id, count);
    return answer([=](FakePlatform &fake) {
        *count = static_cast<std::uint32_t>(fake.leds.size());
        return 0;
    });
}

int brd_group_led_obj_id_list_get(std::uint32_t group_id, std::uint32_t *ids) {
    const auto hook =
        record(&FakePlatform::brd_group_led_obj_id_list_get, "brd_group_led_obj_id_list_get", join(group_id));
    if (hook) return hook(group_id, ids);
    return answer([=](FakePlatform &fake) {
        std::transform(fake.leds.begin(), fake.leds.end(), ids, [](const FakeLed &led) { return led.obj_id; });
        return 0;
    });
}

int brd_led_type_get(std::uint32_t group_id, std::uint32_t obj_id, std::uint32_t *type) {
    const auto hook = record(&FakePlatform::brd_led_type_get, "brd_led_type_get", join(group_id, obj_id));
    if (hook) return hook(group_id, obj_id, type);
    return with_led(obj_id, [=](FakeLed &led) { *type = led.type; });
}

int brd_led_name_get(std::uint32_t group_id, std::uint32_t obj_id, char *name, std::size_t size) {
    const auto hook = record(&FakePlatform::brd_led_name_get, "brd_led_name_get", join(group_id, obj_id, size));
    if (hook) return hook(group_id, obj_id, name, size);
    return with_led(obj_id, [=](FakeLed &led) { copy_text(name, size, led.name); });
}

int brd_led_current_color_get(std::uint32_t group_id, std::uint32_t obj_id, std::uint32_t *color) {
    const auto hook =
        record(&FakePlatform::brd_led_current_color_get, "brd_led_current_color_get", join(group_id, obj_id));
    if (hook) return hook(group_id, obj_id, color);
    return with_led(obj_id, [=](FakeLed &led) { *color = led.color; });
}

int brd_led_current_state_get(std::uint32_t group_id, std::uint32_t obj_id, std::uint32_t *state) {
    const auto hook =
        record(&FakePlatform::brd_led_current_state_get, "brd_led_current_state_get", join(group_id, obj_id));
    if (hook) return hook(group_id, obj_id, state);
    return with_led(obj_id, [=](FakeLed &led) { *state = led.state; });
}

int brd_led_state_and_color_set(std::uint32_t group_id, std::uint32_t obj_id, std::uint32_t state,
                                std::uint32_t color) {
    const auto hook = record(&FakePlatform::brd_led_state_and_color_set, "brd_led_state_and_color_set",
                             join(group_id, obj_id, state, color));
    if (hook) return hook(group_id, obj_id, state, color);
    return with_led(obj_id, [=](FakeLed &led) {
        led.state = state;
        led.color = color;
    });
}

int brd_fru_hw_data_init(std::uint32_t reserved1, std::uint32_t reserved2, FruHwData *data, std::uint32_t *handle) {
    const auto hook = record(&FakePlatform::brd_fru_hw_data_init, "brd_fru_hw_data_init", join(reserved1, reserved2));
    {
        FakePlatform &fake = fake_platform();
        const std::lock_guard guard(fake.lock);
        fake.recorded_hardware.push_back(*data);
    }
    if (hook) return hook(reserved1, reserved2, data, handle);
    *handle = 7;
    return 0;
}

int brd_fru_hw_init(std::uint32_t handle) {
    const auto hook = record(&FakePlatform::brd_fru_hw_init, "brd_fru_hw_init", join(handle));
    return hook ? hook(handle) : 0;
}

std::uint32_t get_fpd_capability_info(const char *name, std::uint32_t board_type, FpdVersion hw_version) {
    const auto hook =
        record(&FakePlatform::get_fpd_capability_info, "get_fpd_capability_info",
               join(name, board_type, hw_version.kind, hw_version.major, hw_version.minor, hw_version.debug));
    if (hook) return hook(name, board_type, hw_version);
    FakePlatform &fake = fake_platform();
    const std::lock_guard guard(fake.lock);
    const FakeRegion *const region = fake.find_region(name);
    return region ? region->capabilities : 0;
}

int check_and_get_upgrade_image(FpdDescRequest *request, FpdDesc *result, char *err_msg, std::size_t err_len) {
    const auto hook =
        record(&FakePlatform::check_and_get_upgrade_image, "check_and_get_upgrade_image", join(request->name));
    {
        FakePlatform &fake = fake_platform();
        const std::lock_guard guard(fake.lock);
        fake.recorded_descriptions.push_back(*request);
    }
    if (hook) return hook(request, result, err_msg, err_len);
    return answer(err_msg, err_len, [=](FakePlatform &fake) {
        const FakeRegion *const region = fake.find_region(region_name(request->name, fake));
        if (!region) return no_such_object;
        const FpdDesc asked = *result;
        *result = region->desc;
        result->magic = asked.magic;
        result->version = asked.version;
        return 0;
    });
}

int exec_shell_command(char *output, std::size_t output_size, std::size_t *output_len, char *err_msg,
                       std::size_t err_len, const char *format, ...) {
    char line[4096];
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    const bool zeroed = std::all_of(output, output + output_size, [](char byte) { return byte == '\0'; });
    const FakeCommand command = find_command(line, {output_size, err_len, zeroed});
    if (command.effect) command.effect();
    copy_text(output, output_size, command.output);
    if (output && output_len) *output_len = std::min(command.output.size(), output_size);
    copy_text(err_msg, err_len, command.rc != 0 ? command.error : chatter());
    return command.rc;
}

int brd_intf_fpd_image_md5_validate(const char *directory, const char *image, const char *md5, char *err_msg,
                                    std::size_t err_len) {
    const auto hook =
        record(&FakePlatform::image_md5_validate, "brd_intf_fpd_image_md5_validate", join(directory, image, md5));
    return hook ? hook(directory, image, md5, err_msg, err_len)
                : answer(err_msg, err_len, [](FakePlatform &) { return 0; });
}

int brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config(int *value, char *err_msg, std::size_t err_len) {
    const auto hook = record(&FakePlatform::cookie_get_auto_upgrade_config,
                             "brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config", "");
    if (hook) return hook(value, err_msg, err_len);
    return answer(err_msg, err_len, [=](FakePlatform &fake) {
        *value = fake.auto_upgrade;
        return 0;
    });
}

int brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config(int value, char *err_msg, std::size_t err_len) {
    const auto hook = record(&FakePlatform::cookie_set_auto_upgrade_config,
                             "brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config", join(value));
    if (hook) return hook(value, err_msg, err_len);
    return answer(err_msg, err_len, [=](FakePlatform &fake) {
        fake.auto_upgrade = value;
        return 0;
    });
}

int brd_intf_fpd_upgrade_cookie_get_upgrade_mode(int *mode, char *err_msg, std::size_t err_len) {
    const auto hook =
        record(&FakePlatform::cookie_get_upgrade_mode, "brd_intf_fpd_upgrade_cookie_get_upgrade_mode", "");
    if (hook) return hook(mode, err_msg, err_len);
    return answer(err_msg, err_len, [=](FakePlatform &fake) {
        *mode = fake.upgrade_mode;
        return 0;
    });
}

int brd_intf_fpd_upgrade_cookie_set_upgrade_mode(int mode, char *err_msg, std::size_t err_len) {
    const auto hook =
        record(&FakePlatform::cookie_set_upgrade_mode, "brd_intf_fpd_upgrade_cookie_set_upgrade_mode", join(mode));
    if (hook) return hook(mode, err_msg, err_len);
    return answer(err_msg, err_len, [=](FakePlatform &fake) {
        fake.upgrade_mode = mode;
        return 0;
    });
}
