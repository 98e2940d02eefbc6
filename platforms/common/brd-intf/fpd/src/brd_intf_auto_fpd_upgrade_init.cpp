/// The context of a run, and the interface that its commands work on.
#include "brd_intf_auto_fpd_upgrade_init.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "brd_intf_auto_fpd_bootstrap.h"
#include "brd_intf_auto_fpd_upgrade_brd.h"
#include "brd_intf_auto_fpd_upgrade_init_planning.h"
#include "brd_intf_auto_fpd_upgrade_led.h"
#include "brd_intf_auto_fpd_upgrade_msg_queue.h"
#include "brd_platform_access.h"
#include "os_owner.h"
#include "text_builder.h"
#include "worker_msg.h"

namespace {

constexpr LogModule here = planning_log;

bool interface_initialised{};

int format_mq_name(LocalCard &card, char *err_msg, std::size_t err_len) {
    const int length = std::snprintf(card.mq_name, sizeof card.mq_name, "%s_localcard", fpd_mq_base_name);
    if (fits(length, sizeof card.mq_name)) return 0;
    return fail({here, "InitLocalCardTruncatedName"}, -EACCES, err_msg, err_len,
                "Truncates Auto FPD Upgrade message queue name %s, error %s", fpd_mq_base_name, std::strerror(errno));
}

int read_hw_version(LocalCard &card, char *err_msg, std::size_t err_len) {
    std::uint32_t major = 0;
    std::uint32_t minor = 0;
    const int rc = bootstrap_hw_version_get(&major, &minor);
    if (rc != 0)
        return fail({here, "InitLocalCardPlatHwVerFail"}, -EACCES, err_msg, err_len,
                    "Local Card Platform card HW version get failed %d", rc);
    if (!fpd_version_make(major, minor, 0, &card.hw_version))
        return fail({here, "InitLocalCardHWVerMakeFail"}, -EACCES, err_msg, err_len,
                    "Local Card Failed to make fpd_version for HW major 0x%x minor ox%x", major, minor);
    return 0;
}

int prepare_card(LocalCard &card, char *err_msg, std::size_t err_len) {
    int rc = brd_card_init();
    if (rc != 0)
        return fail({here, "InitLocalCardBrdIntfInitFail"}, -EACCES, err_msg, err_len, "BRD init failed rc %d", rc);
    const int group_rc = brd_local_card_group_id_get(&card.group_id);
    if (group_rc != 0)
        return fail({here, "InitLocalCardGetBrdGrpIdFail"}, -EACCES, err_msg, err_len,
                    "Local Card BRD group get get failed %d", group_rc);
    rc = bootstrap_card_type_get(&card.board_type);
    if (rc != 0)
        return fail({here, "InitLocalCardPlatBoardTypeFail"}, -EACCES, err_msg, err_len,
                    "Local Card Platform HW board type get failed %d", rc);
    rc = read_hw_version(card, err_msg, err_len);
    if (rc != 0) return rc;
    // The text is that of the group id, and so is the number in it.
    if (upg_led_init(card.group_id, &card.led_obj_id, err_msg, err_len) != 0)
        return fail({here, "InitLocalCardGetLedBrdObjIdFail"}, -EACCES, err_msg, err_len,
                    "Local Card BRD group get get failed %d", group_rc);
    return 0;
}

}  // namespace

// Once per process, and before anything else of the platform is used.
int platform_interface_init() {
    interface_initialised = true;
    return 0;
}

int context_init(LocalCard **card, char *err_msg, std::size_t err_len) {
    Allocated<LocalCard> made(static_cast<LocalCard *>(std::calloc(1, sizeof(LocalCard))));
    if (!made)
        return fail({here, "InitLocalCardMallocFail"}, -ENOMEM, err_msg, err_len,
                    "Initialize local card calloc() failed %s", std::strerror(errno));
    made->mq = no_mq;
    int rc = format_mq_name(*made, err_msg, err_len);
    if (rc == 0) rc = prepare_card(*made, err_msg, err_len);
    if (rc == 0) *card = made.release();
    return rc;
}

int context_deinit(LocalCard **card, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    std::free(*card);
    *card = nullptr;
    return 0;
}

int free_queues(LocalCard &card) {
    if (card.queues.fpd_queue) free_fpd_queue(&card.queues.fpd_queue);
    for (FpdQueue &queue : card.queues.seq_queues)
        if (queue) free_fpd_queue(&queue);
    card.planned_count = 0;
    return 0;
}

int interface_init(RunLevel run_level, LocalCard &card, char *err_msg, std::size_t err_len) {
    const int rc = create_fpd_mq(card.mq_name, &card.mq, err_msg, err_len);
    if (rc != 0)
        return pass_on({here, "InitMQFail"}, rc, "Initializing Auto FPD Upgrade msg queue failed err_msg %s", err_msg);
    return plan_upgrade(run_level, card, err_msg, err_len);
}

int interface_deinit(LocalCard &card, char *err_msg, std::size_t err_len) {
    int rc = free_queues(card);
    if (rc != 0) return fail({here, "DeinitFpdFail"}, rc, err_msg, err_len, "Deinitializing FPDs failed");
    rc = delete_fpd_mq(card.mq_name, &card.mq, err_msg, err_len);
    if (rc != 0)
        return pass_on({here, "DeinitFpdMQFail"}, rc, "Deinitializing FPD msg queue failed err_msg %s", err_msg);
    return 0;
}
