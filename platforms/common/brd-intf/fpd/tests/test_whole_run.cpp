/// Everything that a card command does, from the context to its end, on a card where nothing fails.

#include "brd_intf_auto_fpd_obfl.h"
#include "brd_intf_auto_fpd_upgrade_handler.h"
#include "brd_intf_auto_fpd_upgrade_init.h"
#include "fake_platform.h"
#include "interpose.h"
#include "run_support.h"

namespace {

struct WholeRun : CardTest {
    WholeRun() {
        fake_platform().fpds = {make_fpd(1, {"IoFpga", "Cpu"}), make_fpd(2, {"Bios"})};
        fake_platform().find_region("IoFpga")->info.activation_kind = 1;
        const auto mount = [] {
            const std::lock_guard guard(fake_platform().lock);
            fake_platform().commands[0].rc = 0;
        };
        fake_platform().commands = {
            {.prefix = "mountpoint", .rc = 32, .output = "", .error = "not a mount point", .effect = nullptr},
            {.prefix = "timeout 5m", .rc = 0, .output = "", .error = "", .effect = mount}};
        interpose::hold_clock({1000, 0});
        interpose::on_sleep([this](std::uint64_t microseconds) {
            if (card) await_threads();
            interpose::advance_clock(static_cast<std::int64_t>(microseconds));
        });
    }

    void await_threads() const {
        for (Fpd *const queue : card->queues.seq_queues)
            for (const Fpd *fpd = queue; fpd; fpd = fpd->next)
                if (fpd->worker) await_thread(*fpd->worker);
        EXPECT_TRUE(eventually(obfl_mount_is_over));
    }

    void run() {
        EXPECT_EQ(platform_interface_init(), 0);
        EXPECT_EQ(context_init(&card, err_msg, sizeof err_msg), 0) << err_msg;
        ASSERT_NE(card, nullptr);
        EXPECT_STREQ(err_msg, "");
        EXPECT_EQ(card->mq, -1) << "none yet";
        EXPECT_EQ(interface_init(RunLevel::boot, *card, err_msg, sizeof err_msg), 0) << err_msg;
        EXPECT_EQ(card->planned_count, 3U);
        EXPECT_EQ(run_fpd_upgrade(*card, RunLevel::boot), 0);
        EXPECT_EQ(interface_deinit(*card, err_msg, sizeof err_msg), 0) << err_msg;
        release_retired_workers(*card);
        EXPECT_EQ(card->hanging_threads, 0U);
        EXPECT_EQ(context_deinit(&card, err_msg, sizeof err_msg), 0) << err_msg;
        EXPECT_EQ(card, nullptr);
        EXPECT_STREQ(err_msg, "");
    }

    LocalCard *card = nullptr;
};

TEST_F(WholeRun, LogsNoErrorWhereNothingFails) {
    run();
    EXPECT_TRUE(std::filesystem::exists(marker_path));
    for (const LogLine &line : log_lines()) EXPECT_NE(line.level, "ERROR") << line.tag << ": " << line.message;
}

TEST_F(WholeRun, HasRoomFor256BytesOfEachCommandsOutputAndError) {
    run();
    EXPECT_THAT(fake_platform().command_buffers(), testing::Each(FakeCommandBuffers{256, 256, true}));
}

TEST_F(WholeRun, LeavesNoDescriptorOpen) {
    const auto before = open_descriptors();
    run();
    EXPECT_EQ(open_descriptors(), before);
}

}  // namespace
