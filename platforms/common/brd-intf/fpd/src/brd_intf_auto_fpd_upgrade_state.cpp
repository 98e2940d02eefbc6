#include "brd_intf_auto_fpd_upgrade_state.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "fpd_log.h"
#include "text_builder.h"

namespace {

constexpr LogModule here{"FPD", __FILE__};

struct StateName {
    FpdState state;
    const char *name;
};

constexpr auto state_names = std::to_array<StateName>({
    {FpdState::created, "'FPD Created'"},
    {FpdState::initialized, "'FPD INITIALIZED'"},
    {FpdState::capability_get_failed, "'FPD Capability get Failed'"},
    {FpdState::capability_received, "'FPD Capability Received'"},
    {FpdState::info_get_failed, "'FPD Info get Failed'"},
    {FpdState::info_received, "'FPD Info Received'"},
    {FpdState::description_failed, "'FPD Description Failed'"},
    {FpdState::description_received, "'FPD Description Received'"},
    {FpdState::cant_be_upgraded, "'FPD Can't be Upgraded'"},
    {FpdState::dependency_failed, "'FPD Dependency Failed'"},
    {FpdState::upgrade_available, "'FPD Upgrade Available'"},
    {FpdState::dependent_upgrade_required, "'FPD Dependent Upgrade required'"},
    {FpdState::upgrade_not_needed, "'FPD Upgrade not needed'"},
    {FpdState::queued_for_upgrade, "'FPD Queued for Upgrade'"},
    {FpdState::worker_created, "'FPD worker created for Upgrade'"},
    {FpdState::upgrade_started, "'FPD Upgrade Started'"},
    {FpdState::upgrade_progressing, "'FPD Upgrade Progressing'"},
    {FpdState::upgrade_failed, "'FPD Upgrade Failed'"},
    {FpdState::upgrade_done, "'FPD Upgrade Done'"},
});

struct StageRow {
    UpgradeStage stage;
    const char *name;
    std::uint32_t upgrade_type;  // requested of the description library
};

constexpr auto stages = std::to_array<StageRow>({
    {UpgradeStage::requires_golden_unlocked_primary, "'Required a Golden Unlocked Primary firmware'", 1},
    {UpgradeStage::can_unlock_golden, "'firmware can unlock Golden'", 2},
    {UpgradeStage::manufacturing, "'Manufacturing firmware'", 1},
    {UpgradeStage::regular, "'Regular firmware'", 0},
    {UpgradeStage::dummy_minor, "'Dummy Minor verion firmware'", 3},
    {UpgradeStage::dummy_major, "'Dummy Major verion firmware'", 4},
});

constexpr bool state_names_are_whole() {
    for (std::size_t i = 0; i < state_names.size(); ++i) {
        if (static_cast<std::size_t>(state_names[i].state) != i + 1) return false;
        for (std::size_t j = 0; j < i; ++j)
            if (std::string_view(state_names[i].name) == state_names[j].name) return false;
    }
    return state_names.size() == static_cast<std::size_t>(FpdState::upgrade_done);
}
static_assert(state_names_are_whole());

constexpr bool stages_are_whole() {
    for (std::size_t i = 0; i < stages.size(); ++i)
        if (static_cast<std::size_t>(stages[i].stage) != i) return false;
    return stages.size() == static_cast<std::size_t>(UpgradeStage::dummy_major) + 1;
}
static_assert(stages_are_whole());

}  // namespace

FpdVersion *fpd_version_make(std::uint32_t major, std::uint32_t minor, std::uint32_t debug, FpdVersion *out) {
    if (major > UINT8_MAX || minor > UINT16_MAX || debug > UINT8_MAX) return nullptr;
    out->major = static_cast<std::uint8_t>(major);
    out->minor = static_cast<std::uint16_t>(minor);
    out->debug = static_cast<std::uint8_t>(debug);
    return out;
}

char *fpd_version_to_text(const FpdVersion &version, char *buffer, std::size_t size) {
    constexpr std::size_t limit = 10;  // characters
    if (!buffer) return nullptr;
    if (size < fpd_version_text_size) {
        if (size > 0) buffer[0] = '\0';
        return buffer;
    }
    TextBuilder text;
    if (version.kind >= FPD_VERSION_UNKNOWN)
        text.add_text("Unknown");
    else if (version.kind == FPD_VERSION_NO_DEBUG)
        text.add("%d.%d", version.major, version.minor);
    else
        text.add("%d.%d.%d", version.major, version.minor, version.debug);
    buffer[text.view().copy(buffer, limit)] = '\0';
    return buffer;
}

std::uint32_t fpd_version_packed(const FpdVersion &version) {
    return std::uint32_t{version.major} << 24 | std::uint32_t{version.minor} << 8 | version.debug;
}

void fpd_desc_init(FpdDescRequest &request) {
    request = {};
    request.magic = FPD_DESC_MAGIC;
    request.version = FPD_DESC_VERSION;
}

void fpd_desc_init(FpdDesc &desc) {
    desc = {};
    desc.magic = FPD_DESC_MAGIC;
    desc.version = FPD_DESC_VERSION;
}

const char *state_name(FpdState state) {
    const std::size_t index = static_cast<std::size_t>(state) - 1;
    if (index < state_names.size()) return state_names[index].name;
    static char unknown[32];
    std::snprintf(unknown, sizeof unknown, "'Unknown state %d'", static_cast<int>(state));
    return unknown;
}

const char *stage_name(UpgradeStage stage) {
    const std::size_t index = static_cast<std::size_t>(stage);
    return index < stages.size() ? stages[index].name : "'Unknown stage'";
}

std::uint32_t stage_upgrade_type(UpgradeStage stage) {
    return stages[static_cast<std::size_t>(stage)].upgrade_type;
}

void transition(Fpd &fpd, FpdState new_state) {
    if (clock_gettime(CLOCK_MONOTONIC_RAW, &fpd.state_time) != 0)
        log_error({here, "UpdateFpdTransitionStateTimeFail"},
                  "Updating FPD %s state transition Clock get failed, error %s", fpd.info.name, std::strerror(errno));
    log_debug({here, "UpdateFpdTransitionState"}, "FPD %s transitioning state from %s to %s at %ld", fpd.info.name,
              state_name(fpd.state), state_name(new_state), static_cast<long>(fpd.state_time.tv_sec));
    fpd.state = new_state;
}
