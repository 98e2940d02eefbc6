#include "card_libraries.h"

#include <cstdarg>
#include <cstring>
#include <iterator>

#include "fpd_log.h"
#include "fpd_upgrade_cookie.h"
#include "fpd_utility.h"
#include "text_builder.h"

namespace {

/// A call that may give a reason in err_msg, or leave what an earlier one left there.
template <class Call>
int with_reason(char *err_msg, std::size_t err_len, Call call) {
    clear_error(err_msg, err_len);
    const int rc = call();
    terminate_error(err_msg, err_len);
    return rc;
}

template <std::size_t size>
void terminate(char (&text)[size]) {
    *std::prev(std::end(text)) = '\0';
}

/// Reads a value of the configuration store with `get`.
template <class Get>
int read_value(Get get, int &value, char *err_msg, std::size_t err_len) {
    value = 0;
    return with_reason(err_msg, err_len, [&] { return get(&value, err_msg, err_len); });
}

}  // namespace

int run_command(const char *command, CommandOutput &output, char *err_msg, std::size_t err_len) {
    std::memset(output, 0, sizeof output);
    std::size_t output_len = 0;
    const int rc = with_reason(err_msg, err_len, [&] {
        return exec_shell_command(output, sizeof output, &output_len, err_msg, err_len, "%s", command);
    });
    terminate(output);
    return rc;
}

int run_command(char *err_msg, std::size_t err_len, const char *format, ...) {
    TextBuilder command;
    std::va_list arguments;
    va_start(arguments, format);
    command.add_list(format, arguments);
    va_end(arguments);
    CommandOutput output;
    return run_command(command.text(), output, err_msg, err_len);
}

int card_fpd_regions_get(std::uint32_t group_id, std::uint32_t obj_id, BrdFpdRegion *regions, std::uint8_t count) {
    const int rc = brd_fpd_regions_get(group_id, obj_id, regions, count);
    for (BrdFpdRegion *region = regions; region != regions + count; ++region) terminate(region->name);
    return rc;
}

int card_fpd_info_get(std::uint32_t group_id, std::uint32_t obj_id, std::uint8_t region, BrdFpdInfo &info,
                      char *err_msg, std::size_t err_len) {
    BrdFpdInfo answer{};
    std::memcpy(answer.name, info.name, sizeof answer.name);
    const int rc = with_reason(err_msg, err_len,
                               [&] { return brd_fpd_info_get(group_id, obj_id, region, &answer, err_msg, err_len); });
    if (rc != 0) return rc;
    terminate(answer.name);
    info = answer;
    return 0;
}

int card_fpd_upgrade(std::uint32_t group_id, std::uint32_t obj_id, BrdFpdUpgradeRequest &request, char *err_msg,
                     std::size_t err_len) {
    return with_reason(err_msg, err_len, [&] { return brd_fpd_upgrade(group_id, obj_id, &request, err_msg, err_len); });
}

int card_fpd_description_get(FpdDescRequest &request, FpdDesc &description, char *err_msg, std::size_t err_len) {
    const int rc = with_reason(err_msg, err_len,
                               [&] { return check_and_get_upgrade_image(&request, &description, err_msg, err_len); });
    terminate(description.dependency);
    terminate(description.image);
    terminate(description.md5);
    return static_cast<std::uint8_t>(rc);
}

int card_fpd_image_validate(const char *directory, const FpdDesc &description, char *err_msg, std::size_t err_len) {
    return with_reason(err_msg, err_len, [&] {
        return brd_intf_fpd_image_md5_validate(directory, description.image, description.md5, err_msg, err_len);
    });
}

int card_led_name_get(std::uint32_t group_id, std::uint32_t obj_id, LedName &name) {
    std::memset(name, 0, sizeof name);
    const int rc = brd_led_name_get(group_id, obj_id, name, sizeof name);
    terminate(name);
    return rc;
}

int card_auto_upgrade_get(int &enabled, char *err_msg, std::size_t err_len) {
    return read_value(brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config, enabled, err_msg, err_len);
}

int card_auto_upgrade_set(int enabled, char *err_msg, std::size_t err_len) {
    return with_reason(err_msg, err_len,
                       [&] { return brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config(enabled, err_msg, err_len); });
}

int card_upgrade_mode_get(int &mode, char *err_msg, std::size_t err_len) {
    return read_value(brd_intf_fpd_upgrade_cookie_get_upgrade_mode, mode, err_msg, err_len);
}

int card_upgrade_mode_set(int mode, char *err_msg, std::size_t err_len) {
    return with_reason(err_msg, err_len,
                       [&] { return brd_intf_fpd_upgrade_cookie_set_upgrade_mode(mode, err_msg, err_len); });
}
