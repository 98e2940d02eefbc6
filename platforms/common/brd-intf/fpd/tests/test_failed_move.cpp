/// A move between queues that fails. The queues report no failed move today; those who move are ready for it.

#include "brd_intf_auto_fpd_upgrade_handler.h"
#include "interpose.h"
#include "run_support.h"

namespace {

using interpose::Call;

/// An FPD that is to leave its queue, or to be moved into another.
struct FailedMove {
    const char *name;
    FpdState state;  // of the FPD before; a running worker's: it has one
    void (*act)(RunTest &run, Fpd &fpd);
    Module module;
    const char *tag;
    FpdState state_behind;
    unsigned planned_behind;
};
void PrintTo(const FailedMove &one, std::ostream *out) {
    *out << one.name;
}

template <FpdState reported>
void report_end(RunTest &run, Fpd &fpd) {
    run.report(fpd.worker, reported);
    drain_worker_messages(run.card);
}

void outlive_every_limit(RunTest &run, Fpd &) {
    interpose::advance_clock(1'000'000'000);
    supervise_fpd_upgrades(run.card);
}

void start_without_dependency(RunTest &run, Fpd &fpd) {
    fpd.dependency = &run.discover("Cpu", FpdState::upgrade_failed);
    start_fpd_upgrade_worker(run.card, fpd, run.err_msg, sizeof run.err_msg);
}

void build(RunTest &run, Fpd &) {
    EXPECT_EQ(build_upgrade_queue(UpgradeStage::regular, run.card, run.err_msg, sizeof run.err_msg), 0);
}

void build_behind_another(RunTest &run, Fpd &fpd) {
    std::snprintf(fpd.desc.dependency, sizeof fpd.desc.dependency, "Cpu");
    run.discover("Cpu", FpdState::description_received);
    build(run, fpd);
}

const FailedMove failed_moves[] = {
    {"OfAFailedFpd", FpdState::upgrade_progressing, report_end<FpdState::upgrade_failed>, handler_module,
     "FpdUpgResponseFailQMoveFail", FpdState::upgrade_failed, 0},
    {"OfAnUpgradedFpd", FpdState::upgrade_progressing, report_end<FpdState::upgrade_done>, handler_module,
     "FpdUpgResponseDoneQMoveFail", FpdState::upgrade_done, 0},
    {"OfAnFpdWhoseWorkerIsNotScheduled", FpdState::worker_created, outlive_every_limit, handler_module,
     "ChkFpdUpgScheduleMaxTransQMoveFail", FpdState::cant_be_upgraded, 0},
    {"OfAnFpdWhoseUpgradeDoesNotStart", FpdState::upgrade_started, outlive_every_limit, handler_module,
     "ChkFpdUpgStartedMaxTransQMoveFail", FpdState::cant_be_upgraded, 0},
    {"OfAnFpdWhoseUpgradeDoesNotGoOn", FpdState::upgrade_progressing, outlive_every_limit, handler_module,
     "ChkFpdUpgProgressingMaxTransQMoveFail", FpdState::cant_be_upgraded, 0},
    {"OfAnFpdWithoutItsDependency", FpdState::queued_for_upgrade, start_without_dependency, worker_module,
     "StartFpdUpgWorkerQMoveFail", FpdState::cant_be_upgraded, 0},
    {"IntoTheSequenceQueue", FpdState::description_received, build, init_module, "BuildFpdUpgQueueMoveSeqQFail",
     FpdState::cant_be_upgraded, 0},
    {"IntoTheSequenceQueueForAnother", FpdState::dependent_upgrade_required, build, init_module,
     "BuildFpdDepUpgQueueMoveSeqQFail", FpdState::cant_be_upgraded, 0},
    {"BehindItsDependency", FpdState::description_received, build_behind_another, init_module,
     "BuildFpdUpgQueueMoveFail", FpdState::dependency_failed, 1},
};

struct EachFailedMove : RunTest, testing::WithParamInterface<FailedMove> {
    Fpd &prepared() {
        const FpdState state = GetParam().state;
        if (state < FpdState::queued_for_upgrade) return discover("IoFpga", state);
        Fpd &fpd = plan("IoFpga");
        fpd.retries = 1;
        if (state != FpdState::queued_for_upgrade) attach_worker(fpd, state);
        return fpd;
    }
};

TEST_P(EachFailedMove, IsLoggedAndPassedOver) {
    interpose::hold_clock({1000, 0});
    Fpd &fpd = prepared();
    interpose::fail(Call::move_fpd_between_queue, EINVAL);
    GetParam().act(*this, fpd);
    EXPECT_EQ(interpose::calls(Call::move_fpd_between_queue), GetParam().planned_behind + 1);
    expect_log(GetParam().module, "ERROR", GetParam().tag, "FPD IoFpga failed Move queue error no move");
    EXPECT_EQ(fpd.state, GetParam().state_behind);
    EXPECT_EQ(card.planned_count, GetParam().planned_behind);
    expect_no_log("BuildQFpdCircularDepend");
}

INSTANTIATE_TEST_SUITE_P(All, EachFailedMove, testing::ValuesIn(failed_moves),
                         [](const auto &instance) { return std::string(instance.param.name); });

}  // namespace
