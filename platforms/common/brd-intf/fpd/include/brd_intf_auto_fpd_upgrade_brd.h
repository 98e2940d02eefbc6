/// The card's identity, and the start of the platform's hardware layer with it. Main thread.
#ifndef BRD_INTF_AUTO_FPD_UPGRADE_BRD_H
#define BRD_INTF_AUTO_FPD_UPGRADE_BRD_H

#include <cstdint>

/// Starts the platform's FRU hardware layer. Returns 0, the code of a failed identity read, or -ENOSYS.
int brd_card_init();
/// Stores the card's group type, 3, 4 or 15. Returns 0 or the code of the failed board-type read.
int get_card_group_type(std::uint32_t *group_type);
/// 1 when the board type is of the family of group 3, or of group 4, else 0.
int board_type_in_group3(std::uint32_t board_type);
int board_type_in_group4(std::uint32_t board_type);

#endif
