#include "fake_platform.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

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

/// Uses the fake under its lock.
template <class Use>
auto with_fake(Use use) {
    FakePlatform &fake = fake_platform();
    const std::lock_guard guard(fake.lock);
    return use(fake);
}

/// Puts the call on record and takes a copy of its hook, which may then run without the lock.
template <class Hook>
Hook record(Hook FakeAnswers::*hook, const char *function, const std::string &arguments) {
    return with_fake([&](FakePlatform &fake) {
        fake.record.calls.push_back({function, arguments});
        return fake.*hook;
    });
}

/// Puts what was handed over on record.
template <class Part, class Handed>
void record(std::vector<Part> FakeRecord::*part, const Handed &handed) {
    with_fake([&](FakePlatform &fake) { (fake.record.*part).push_back(handed); });
}

/// Uses the object that a search gave; without one the code for that.
template <class Object, class Use>
int use_found(Object *object, Use use) {
    if (!object) return no_such_object;
    use(*object);
    return 0;
}

template <class Use>
int with_led(std::uint32_t obj_id, Use use) {
    return with_fake([&](FakePlatform &fake) {
        const auto led = std::find_if(fake.leds.begin(), fake.leds.end(),
                                      [obj_id](const FakeLed &each) { return each.obj_id == obj_id; });
        return use_found(led == fake.leds.end() ? nullptr : &*led, use);
    });
}

template <class Use>
int with_fpd(std::uint32_t obj_id, Use use) {
    return with_fake([&](FakePlatform &fake) { return use_found(fake.find_fpd(obj_id), use); });
}

FakeRegion *find_region(FakePlatform &fake, std::uint32_t obj_id, std::uint8_t region) {
    FakeFpd *const fpd = fake.find_fpd(obj_id);
    return fpd && region < fpd->regions.size() ? &fpd->regions[region] : nullptr;
}

/// Answers with a code, or 0; what went well may have its text too.
template <class Use>
int with_chatter(char *err_msg, std::size_t err_len, Use use) {
    return with_fake([&](FakePlatform &fake) {
        int rc = 0;
        if constexpr (std::is_void_v<decltype(use(fake))>)
            use(fake);
        else
            rc = use(fake);
        if (rc == 0) copy_text(err_msg, err_len, fake.chatter);
        return rc;
    });
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

FakeCommand find_command(const std::string &line) {
    return with_fake([&](FakePlatform &fake) {
        const auto found = std::find_if(fake.commands.rbegin(), fake.commands.rend(),
                                        [&](const FakeCommand &each) { return line.starts_with(each.prefix); });
        return found == fake.commands.rend() ? FakeCommand{} : *found;
    });
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

std::vector<FakeCall> FakePlatform::calls_of(const std::string &function) {
    std::vector<FakeCall> found = calls();
    std::erase_if(found, [&function](const FakeCall &call) { return call.function != function; });
    return found;
}

void FakePlatform::forget_calls() {
    const std::lock_guard guard(lock);
    record = {};
}

void FakePlatform::reset() {
    const std::lock_guard guard(lock);
    record = {};
    static_cast<FakeAnswers &>(*this) = {};
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
    const auto hook = record(&FakePlatform::brd_sb_attribute_flag_set, __func__, join(value));
    return hook ? hook(value) : 0;
}

int brd_local_card_group_id_get(std::uint32_t *group_id) {
    if (const auto hook = record(&FakePlatform::brd_local_card_group_id_get, __func__, "")) return hook(group_id);
    *group_id = with_fake([](FakePlatform &fake) { return fake.group_id; });
    return 0;
}

int brd_group_fpd_num_fpds_get(std::uint32_t group_id, std::uint32_t *count) {
    if (const auto hook = record(&FakePlatform::brd_group_fpd_num_fpds_get, __func__, join(group_id)))
        return hook(group_id, count);
    *count = with_fake([](FakePlatform &fake) { return static_cast<std::uint32_t>(fake.fpds.size()); });
    return 0;
}

int brd_group_fpd_obj_id_list_get(std::uint32_t group_id, std::uint32_t *ids) {
    if (const auto hook = record(&FakePlatform::brd_group_fpd_obj_id_list_get, __func__, join(group_id)))
        return hook(group_id, ids);
    with_fake([=](FakePlatform &fake) {
        std::transform(fake.fpds.begin(), fake.fpds.end(), ids, [](const FakeFpd &fpd) { return fpd.obj_id; });
    });
    return 0;
}

int brd_fpd_num_regions_get(std::uint32_t group_id, std::uint32_t obj_id, std::uint8_t *num_regions) {
    if (const auto hook = record(&FakePlatform::brd_fpd_num_regions_get, __func__, join(group_id, obj_id)))
        return hook(group_id, obj_id, num_regions);
    return with_fpd(obj_id, [=](FakeFpd &fpd) { *num_regions = static_cast<std::uint8_t>(fpd.regions.size()); });
}

int brd_fpd_regions_get(std::uint32_t group_id, std::uint32_t obj_id, BrdFpdRegion *regions, std::uint8_t num_regions) {
    if (const auto hook = record(&FakePlatform::brd_fpd_regions_get, __func__, join(group_id, obj_id, num_regions)))
        return hook(group_id, obj_id, regions, num_regions);
    return with_fpd(obj_id, [=](FakeFpd &fpd) {
        for (std::size_t i = 0; i < num_regions && i < fpd.regions.size(); ++i)
            copy_text(regions[i].name, sizeof regions[i].name, fpd.regions[i].name);
    });
}

int brd_fpd_info_get(std::uint32_t group_id, std::uint32_t obj_id, std::uint8_t region, BrdFpdInfo *info, char *err_msg,
                     std::size_t err_len) {
    if (const auto hook = record(&FakePlatform::brd_fpd_info_get, __func__, join(group_id, obj_id, region)))
        return hook(group_id, obj_id, region, info, err_msg, err_len);
    return with_chatter(err_msg, err_len, [=](FakePlatform &fake) {
        return use_found(find_region(fake, obj_id, region), [=](FakeRegion &found) { *info = found.info; });
    });
}

int brd_fpd_upgrade(std::uint32_t group_id, std::uint32_t obj_id, BrdFpdUpgradeRequest *request, char *err_msg,
                    std::size_t err_len) {
    record(&FakeRecord::upgrade_requests, *request);
    if (const auto hook = record(&FakePlatform::brd_fpd_upgrade, __func__, join(group_id, obj_id, request->region)))
        return hook(group_id, obj_id, request, err_msg, err_len);
    request->progress(request->context, 50);
    return with_chatter(err_msg, err_len, [=](FakePlatform &fake) {
        return use_found(find_region(fake, obj_id, request->region), finish_upgrade);
    });
}

int brd_group_led_init(std::uint32_t group_id) {
    const auto hook = record(&FakePlatform::brd_group_led_init, __func__, join(group_id));
    return hook ? hook(group_id) : 0;
}

int brd_group_led_num_leds_get(std::uint32_t group_id, std::uint32_t *count) {
    if (const auto hook = record(&FakePlatform::brd_group_led_num_leds_get, __func__, join(group_id)))
        return hook(group_id, count);
    *count = with_fake([](FakePlatform &fake) { return static_cast<std::uint32_t>(fake.leds.size()); });
    return 0;
}

int brd_group_led_obj_id_list_get(std::uint32_t group_id, std::uint32_t *ids) {
    if (const auto hook = record(&FakePlatform::brd_group_led_obj_id_list_get, __func__, join(group_id)))
        return hook(group_id, ids);
    with_fake([=](FakePlatform &fake) {
        std::transform(fake.leds.begin(), fake.leds.end(), ids, [](const FakeLed &led) { return led.obj_id; });
    });
    return 0;
}

int brd_led_type_get(std::uint32_t group_id, std::uint32_t obj_id, std::uint32_t *type) {
    if (const auto hook = record(&FakePlatform::brd_led_type_get, __func__, join(group_id, obj_id)))
        return hook(group_id, obj_id, type);
    return with_led(obj_id, [=](FakeLed &led) { *type = led.type; });
}

int brd_led_name_get(std::uint32_t group_id, std::uint32_t obj_id, char *name, std::size_t size) {
    if (const auto hook = record(&FakePlatform::brd_led_name_get, __func__, join(group_id, obj_id, size)))
        return hook(group_id, obj_id, name, size);
    return with_led(obj_id, [=](FakeLed &led) { copy_text(name, size, led.name); });
}

int brd_led_current_color_get(std::uint32_t group_id, std::uint32_t obj_id, std::uint32_t *color) {
    if (const auto hook = record(&FakePlatform::brd_led_current_color_get, __func__, join(group_id, obj_id)))
        return hook(group_id, obj_id, color);
    return with_led(obj_id, [=](FakeLed &led) { *color = led.color; });
}

int brd_led_current_state_get(std::uint32_t group_id, std::uint32_t obj_id, std::uint32_t *state) {
    if (const auto hook = record(&FakePlatform::brd_led_current_state_get, __func__, join(group_id, obj_id)))
        return hook(group_id, obj_id, state);
    return with_led(obj_id, [=](FakeLed &led) { *state = led.state; });
}

int brd_led_state_and_color_set(std::uint32_t group_id, std::uint32_t obj_id, std::uint32_t state,
                                std::uint32_t color) {
    const std::string arguments = join(group_id, obj_id, state, color);
    if (const auto hook = record(&FakePlatform::brd_led_state_and_color_set, __func__, arguments))
        return hook(group_id, obj_id, state, color);
    return with_led(obj_id, [=](FakeLed &led) {
        led.state = state;
        led.color = color;
    });
}

int brd_fru_hw_data_init(std::uint32_t reserved1, std::uint32_t reserved2, FruHwData *data, std::uint32_t *handle) {
    record(&FakeRecord::hardware_data, *data);
    if (const auto hook = record(&FakePlatform::brd_fru_hw_data_init, __func__, join(reserved1, reserved2)))
        return hook(reserved1, reserved2, data, handle);
    *handle = 7;
    return 0;
}

int brd_fru_hw_init(std::uint32_t handle) {
    const auto hook = record(&FakePlatform::brd_fru_hw_init, __func__, join(handle));
    return hook ? hook(handle) : 0;
}

std::uint32_t get_fpd_capability_info(const char *name, std::uint32_t board_type, FpdVersion hw_version) {
    const auto &[kind, major, minor, debug, reserved] = hw_version;
    if (const auto hook =
            record(&FakePlatform::get_fpd_capability_info, __func__, join(name, board_type, kind, major, minor, debug)))
        return hook(name, board_type, hw_version);
    return with_fake([=](FakePlatform &fake) {
        const FakeRegion *const region = fake.find_region(name);
        return region ? region->capabilities : 0;
    });
}

int check_and_get_upgrade_image(FpdDescRequest *request, FpdDesc *result, char *err_msg, std::size_t err_len) {
    record(&FakeRecord::description_requests, *request);
    if (const auto hook = record(&FakePlatform::check_and_get_upgrade_image, __func__, join(request->name)))
        return hook(request, result, err_msg, err_len);
    return with_chatter(err_msg, err_len, [=](FakePlatform &fake) {
        return use_found(fake.find_region(region_name(request->name, fake)), [=](const FakeRegion &region) {
            const FpdDesc asked = *result;
            *result = region.desc;
            result->magic = asked.magic;
            result->version = asked.version;
        });
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
    record(&FakeRecord::command_lines, line);
    record(&FakeRecord::command_buffers, FakeCommandBuffers{output_size, err_len, zeroed});
    const FakeCommand command = find_command(line);
    if (command.effect) command.effect();
    copy_text(output, output_size, command.output);
    if (output && output_len) *output_len = std::min(command.output.size(), output_size);
    if (command.rc != 0) copy_text(err_msg, err_len, command.error);
    return command.rc != 0 ? command.rc : with_chatter(err_msg, err_len, [](FakePlatform &) {});
}

int brd_intf_fpd_image_md5_validate(const char *directory, const char *image, const char *md5, char *err_msg,
                                    std::size_t err_len) {
    if (const auto hook = record(&FakePlatform::image_md5_validate, __func__, join(directory, image, md5)))
        return hook(directory, image, md5, err_msg, err_len);
    return with_chatter(err_msg, err_len, [](FakePlatform &) {});
}

int brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config(int *value, char *err_msg, std::size_t err_len) {
    if (const auto hook = record(&FakePlatform::cookie_get_auto_upgrade_config, __func__, ""))
        return hook(value, err_msg, err_len);
    return with_chatter(err_msg, err_len, [=](FakePlatform &fake) { *value = fake.auto_upgrade; });
}

int brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config(int value, char *err_msg, std::size_t err_len) {
    if (const auto hook = record(&FakePlatform::cookie_set_auto_upgrade_config, __func__, join(value)))
        return hook(value, err_msg, err_len);
    return with_chatter(err_msg, err_len, [=](FakePlatform &fake) { fake.auto_upgrade = value; });
}

int brd_intf_fpd_upgrade_cookie_get_upgrade_mode(int *mode, char *err_msg, std::size_t err_len) {
    if (const auto hook = record(&FakePlatform::cookie_get_upgrade_mode, __func__, ""))
        return hook(mode, err_msg, err_len);
    return with_chatter(err_msg, err_len, [=](FakePlatform &fake) { *mode = fake.upgrade_mode; });
}

int brd_intf_fpd_upgrade_cookie_set_upgrade_mode(int mode, char *err_msg, std::size_t err_len) {
    if (const auto hook = record(&FakePlatform::cookie_set_upgrade_mode, __func__, join(mode)))
        return hook(mode, err_msg, err_len);
    return with_chatter(err_msg, err_len, [=](FakePlatform &fake) { fake.upgrade_mode = mode; });
}
