#include <sys/syscall.h>
#include <unistd.h>

#include "fpd_log.h"
#include "test_support.h"

namespace {

using testing::ElementsAre;
using testing::Field;
using testing::MatchesRegex;

constexpr LogModule here{"FPD", __FILE__};
constexpr Module module_here{"FPD", "test_log"};

struct DiagnosticLog : CardTest {};

TEST_F(DiagnosticLog, WritesEveryFieldOfALine) {
    log_error({here, "SomeTag"}, "it failed: %s, rc %d", "no card", -13);
    const auto lines = log_lines();
    ASSERT_THAT(lines, ElementsAre(log_line(module_here, "ERROR", "SomeTag", "it failed: no card, rc -13")));
    EXPECT_EQ(lines[0].pid, getpid());
    EXPECT_EQ(lines[0].tid, syscall(SYS_gettid));
}

}  // namespace
