/// The least that a boot run in which everything is current can cost: makes the closed libraries' calls that the tool
/// makes, and writes the lines that a run of the tool has written, as they are: floor_run FILE.

#include <sys/mman.h>
#include <sys/stat.h>

#include <cstdint>
#include <vector>

#include "brd_platform_access.h"
#include "file_lines.h"
#include "fpd_description.h"
#include "fpd_upgrade_cookie.h"
#include "fpd_utility.h"

namespace {

/// The file's text, which stays mapped.
std::string_view text_of(const char *path) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    struct stat status {};
    if (fd < 0 || fstat(fd, &status) != 0) std::abort();
    const auto size = static_cast<std::size_t>(status.st_size);
    void *const text = mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
    if (text == MAP_FAILED) std::abort();
    close(fd);
    return {static_cast<const char *>(text), size};
}

std::uint32_t prepare_card() {
    char err_msg[512] = "";
    int stored = 0;
    brd_sb_attribute_flag_set(1);
    brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config(&stored, err_msg, sizeof err_msg);
    FruHwData data{};
    std::uint32_t handle = 0;
    brd_fru_hw_data_init(0, 0, &data, &handle);
    brd_fru_hw_init(handle);
    std::uint32_t group_id = 0;
    brd_local_card_group_id_get(&group_id);
    brd_group_led_init(group_id);
    std::uint32_t count = 0;
    brd_group_led_num_leds_get(group_id, &count);
    std::vector<std::uint32_t> leds(count);
    brd_group_led_obj_id_list_get(group_id, leds.data());
    std::uint32_t type = 0;
    brd_led_type_get(group_id, leds[0], &type);
    char name[64] = "";
    brd_led_name_get(group_id, leds[0], name, sizeof name);
    brd_intf_fpd_upgrade_cookie_get_upgrade_mode(&stored, err_msg, sizeof err_msg);
    return group_id;
}

void judge_region(std::uint32_t group_id, std::uint32_t obj_id, std::uint8_t region) {
    char err_msg[512] = "";
    std::uint8_t count = 0;
    brd_fpd_num_regions_get(group_id, obj_id, &count);
    std::vector<BrdFpdRegion> regions(count);
    brd_fpd_regions_get(group_id, obj_id, regions.data(), count);
    get_fpd_capability_info(regions[region].name, 0, {});
    BrdFpdInfo info{};
    brd_fpd_info_get(group_id, obj_id, region, &info, err_msg, sizeof err_msg);
    FpdDescRequest request{};
    FpdDesc desc{};
    check_and_get_upgrade_image(&request, &desc, err_msg, sizeof err_msg);
    brd_intf_fpd_image_md5_validate("/pkg/fpd/ucode", desc.image, desc.md5, err_msg, sizeof err_msg);
}

void judge_regions(std::uint32_t group_id) {
    std::uint32_t count = 0;
    brd_group_fpd_num_fpds_get(group_id, &count);
    std::vector<std::uint32_t> ids(count);
    brd_group_fpd_obj_id_list_get(group_id, ids.data());
    for (const std::uint32_t obj_id : ids) {
        std::uint8_t regions = 0;
        brd_fpd_num_regions_get(group_id, obj_id, &regions);
        for (std::uint8_t region = 0; region < regions; ++region) judge_region(group_id, obj_id, region);
    }
}

void write_lines(std::string_view text) {
    while (!text.empty()) {
        const std::size_t length = text.find('\n') + 1;
        write_line(text.substr(0, length));
        text.remove_prefix(length);
    }
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2) return 2;
    judge_regions(prepare_card());
    write_lines(text_of(argv[1]));
}
