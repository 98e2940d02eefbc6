#include "brd_intf_auto_fpd_upgrade_brd.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>

#include "brd_intf_auto_fpd_bootstrap.h"
#include "brd_platform_access.h"
#include "fpd_log.h"
#include BOOTUP_FPD_BOARD_TYPES

namespace {

constexpr LogModule here{"BRD", __FILE__};

static_assert(std::size(group3_board_types) == 100);
static_assert(std::size(group4_board_types) == 196);

/// Distinct within each table and between the two.
constexpr bool board_types_are_distinct() {
    std::array<std::uint32_t, std::size(group3_board_types) + std::size(group4_board_types)> all{};
    std::copy(std::begin(group4_board_types), std::end(group4_board_types),
              std::copy(std::begin(group3_board_types), std::end(group3_board_types), all.begin()));
    std::sort(all.begin(), all.end());
    return std::adjacent_find(all.begin(), all.end()) == all.end();
}
static_assert(board_types_are_distinct());

template <class Table>
int contains(const Table &table, std::uint32_t board_type) {
    return std::find(std::begin(table), std::end(table), board_type) != std::end(table) ? 1 : 0;
}

/// Logs a failed read of the card's identity and passes its code on.
int read_failed(const LogSite &site, const char *format, int rc) {
    log_error(site, format, rc);
    return rc;
}

int read_identity(FruHwData &data) {
    int rc = get_card_group_type(&data.group_type);
    if (rc != 0) return read_failed({here, "BrdInitGroupTypeGetFail"}, "Failed to get Card BRD Group Type rc %d", rc);
    rc = bootstrap_hw_version_get(&data.hw_major, &data.hw_minor);
    if (rc != 0) return read_failed({here, "BrdInitCardHWVersionGetFail"}, "Failed to get Card HW Version rc %d", rc);
    rc = bootstrap_slot_num_get(&data.pd_slot_num);
    if (rc != 0) return read_failed({here, "BrdInitPdSlotNumGetFail"}, "Failed to get PD slot num rc %d", rc);
    data.valid = 1;
    std::size_t pid_size = sizeof data.card_pid;
    rc = bootstrap_card_pid_get(data.card_pid, &pid_size);
    if (rc != 0) return read_failed({here, "BrdInitMyCardPIDGetFail"}, "Failed to get my Card PID rc %d", rc);
    rc = bootstrap_card_type_get(&data.board_type);
    if (rc != 0) log_error({here, "BrdInitHwBoardTyepGetFail"}, "Failed to get HW Board Type Type");
    return rc;
}

}  // namespace

int board_type_in_group3(std::uint32_t board_type) {
    return contains(group3_board_types, board_type);
}

int board_type_in_group4(std::uint32_t board_type) {
    return contains(group4_board_types, board_type);
}

int get_card_group_type(std::uint32_t *group_type) {
    std::uint32_t board_type = 0;
    const int rc = bootstrap_card_type_get(&board_type);
    if (rc != 0) {
        log_error({here, "BoardTypeGetFail"}, "Failed to get Card Board Type");
        return rc;
    }
    *group_type = board_type_in_group3(board_type) ? 3 : board_type_in_group4(board_type) ? 4 : 15;
    return 0;
}

int brd_card_init() {
    FruHwData data{};
    const int rc = read_identity(data);
    if (rc != 0) return rc;
    std::uint32_t handle = 0;
    const int registered = brd_fru_hw_data_init(0, 0, &data, &handle);
    if (registered != 0 && registered != BRD_FRU_HW_DATA_PRESENT) return -ENOSYS;
    return brd_fru_hw_init(handle) != 0 ? -ENOSYS : 0;
}
