/// The names of all functions of the closed libraries.
#ifndef CARDSIM_CLOSED_FUNCTIONS_H
#define CARDSIM_CLOSED_FUNCTIONS_H

#include <array>

namespace cardsim {

inline constexpr std::array closed_functions = {
    "brd_sb_attribute_flag_set",
    "brd_local_card_group_id_get",
    "brd_group_fpd_num_fpds_get",
    "brd_group_fpd_obj_id_list_get",
    "brd_fpd_num_regions_get",
    "brd_fpd_regions_get",
    "brd_fpd_info_get",
    "brd_fpd_upgrade",
    "brd_group_led_init",
    "brd_group_led_num_leds_get",
    "brd_group_led_obj_id_list_get",
    "brd_led_type_get",
    "brd_led_name_get",
    "brd_led_current_color_get",
    "brd_led_current_state_get",
    "brd_led_state_and_color_set",
    "brd_fru_hw_data_init",
    "brd_fru_hw_init",
    "get_fpd_capability_info",
    "check_and_get_upgrade_image",
    "exec_shell_command",
    "brd_intf_fpd_image_md5_validate",
    "brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config",
    "brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config",
    "brd_intf_fpd_upgrade_cookie_get_upgrade_mode",
    "brd_intf_fpd_upgrade_cookie_set_upgrade_mode",
};

}  // namespace cardsim

#endif
