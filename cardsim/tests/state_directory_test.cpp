#include "state_directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "file_text.h"
#include "library_test_support.h"

namespace cardsim {
namespace {

using card_tests::names_in;
using card_tests::read_file;
using card_tests::write_file;

namespace fs = std::filesystem;
using ::testing::ElementsAre;

/// A state directory with something in it, and a file outside that nothing may touch.
class StateDirectoryTest : public ::testing::Test {
  protected:
    StateDirectoryTest() {
        for (const char *name : {"outside", "state/pkg"}) fs::create_directories(root.path() / name);
        write_file(victim, "precious");
        state.emplace(path);
    }
    ~StateDirectoryTest() override { EXPECT_EQ(read_file(victim), "precious"); }

    /// The reason for which it is refused; empty: it is not.
    static std::string refusal(const std::function<void()> &call) {
        try {
            call();
        } catch (const Error &reason) {
            return reason.what();
        }
        return {};
    }

    card_tests::TemporaryDirectory root{"cardsim-test"};
    fs::path path = root.path() / "state";
    fs::path victim = root.path() / "outside/victim";
    std::optional<StateDirectory> state;
};

const auto write_new = [](const Descriptor &file) { write_all(file, "new", "new"); };
const std::string link_in_it = ": a symbolic link, which a card's state must not have";
const std::string no_plain_file = ": neither a plain file nor a directory";

TEST_F(StateDirectoryTest, ReadsAndWritesWhatLiesInIt) {
    state->append("log", "one\n");
    state->append("log", "two\n");
    EXPECT_EQ(read_file(path / "log"), "one\ntwo\n");
    EXPECT_EQ(state->size("log"), 8U);
    EXPECT_EQ(state->line("log", 4), "two");
    state->replace("pkg/image", 0755, write_new);
    EXPECT_EQ(read_file(path / "pkg/image"), "new");
    EXPECT_EQ(state->status("pkg/image")->st_mode & 07777, 0755U);
    EXPECT_THAT(names_in(path / "pkg"), ElementsAre("image"));
    state->remove("log");
    EXPECT_FALSE(state->has("log"));
    EXPECT_EQ(state->size("log"), 0U);
    EXPECT_EQ(state->line("log", 0), "");
}

struct Surprise {
    const char *what;
    void (*make)(const fs::path &name, const fs::path &victim);
    std::string reason;
};

class SurpriseTest : public StateDirectoryTest, public ::testing::WithParamInterface<Surprise> {};

TEST_P(SurpriseTest, IsRefusedHoweverItIsUsed) {
    GetParam().make(path / "name", victim);
    const std::string reason = (path / "name").string() + GetParam().reason;
    EXPECT_EQ(refusal([&] { state->open("name", O_RDONLY); }), reason);
    EXPECT_EQ(refusal([&] { state->open("name", O_RDWR | O_CREAT); }), reason);
    EXPECT_EQ(refusal([&] { state->append("name", "text"); }), reason);
    EXPECT_EQ(refusal([&] { state->line("name", 0); }), reason);
    EXPECT_EQ(refusal([&] { state->size("name"); }), reason);
    EXPECT_EQ(refusal([&] { state->has("name"); }), reason);
    EXPECT_EQ(refusal([&] { state->check(); }), reason);
}

TEST_P(SurpriseTest, IsRefusedDeeperDownAsWell) {
    fs::create_directories(path / "log/a/b");
    GetParam().make(path / "log/a/b/name", victim);
    EXPECT_EQ(refusal([&] { state->check(); }), (path / "log/a/b/name").string() + GetParam().reason);
}

TEST_P(SurpriseTest, IsReplacedNotWrittenThrough) {
    GetParam().make(path / "name", victim);
    GetParam().make(path / ".name.new", victim);
    state->replace("name", 0644, write_new);
    EXPECT_EQ(read_file(path / "name"), "new");
    EXPECT_EQ(refusal([&] { state->check(); }), "");
}

TEST_P(SurpriseTest, IsNoLeftoverOfOurs) {
    GetParam().make(path / ".name.new", victim);
    EXPECT_EQ(refusal([&] { state->remove_leftovers(); }), (path / ".name.new").string() + GetParam().reason);
}

INSTANTIATE_TEST_SUITE_P(
    , SurpriseTest,
    ::testing::Values(
        Surprise{"link", [](const fs::path &name, const fs::path &victim) { fs::create_symlink(victim, name); },
                 link_in_it},
        Surprise{"link_to_nothing",
                 [](const fs::path &name, const fs::path &victim) { fs::create_symlink(victim.string() + "2", name); },
                 link_in_it},
        Surprise{"fifo", [](const fs::path &name, const fs::path &) { ASSERT_EQ(mkfifo(name.c_str(), 0600), 0); },
                 no_plain_file}),
    [](const ::testing::TestParamInfo<Surprise> &surprise) { return surprise.param.what; });

TEST_F(StateDirectoryTest, ASecondNameIsRefusedWhereOthersMayHaveGivenIt) {
    fs::create_hard_link(victim, path / "name");
    EXPECT_EQ(refusal([&] { state->check(); }), "");
    ASSERT_EQ(chmod(path.c_str(), 0757), 0);
    state.emplace(path);
    const std::string reason = (path / "name").string() + ": has another name elsewhere (a hard link)";
    EXPECT_EQ(refusal([&] { state->append("name", "text"); }), reason);
    EXPECT_EQ(refusal([&] { state->check(); }), reason);
    if (geteuid() != 0) return;
    ASSERT_EQ(chmod(path.c_str(), 0755), 0);
    ASSERT_EQ(chown(path.c_str(), 65534, 65534), 0);
    state.emplace(path);
    EXPECT_EQ(refusal([&] { state->open("name", O_RDWR); }), reason);
}

TEST_F(StateDirectoryTest, NothingIsReachedThroughALinkOnTheWay) {
    fs::create_directory_symlink(root.path() / "outside", path / "etc");
    const std::string on_the_way = (path / "etc/victim").string() + link_in_it;
    const std::string itself = (path / "etc").string() + link_in_it;
    EXPECT_EQ(refusal([&] { state->open("etc/victim", O_RDONLY); }), on_the_way);
    EXPECT_EQ(refusal([&] { state->has("etc/victim"); }), on_the_way);
    EXPECT_EQ(refusal([&] { state->remove("etc/victim"); }), itself);
    EXPECT_EQ(refusal([&] { state->replace("etc/victim", 0644, write_new); }), itself);
    EXPECT_EQ(refusal([&] { state->make_directory("etc"); }), itself);
}

TEST_F(StateDirectoryTest, NothingIsReachedAbove) {
    EXPECT_ANY_THROW(state->open("../outside/victim", O_RDONLY));
    EXPECT_ANY_THROW(state->open(victim, O_RDONLY));
}

TEST_F(StateDirectoryTest, IsNoLinkItself) {
    fs::create_directory_symlink(path, root.path() / "link");
    EXPECT_EQ(refusal([&] { StateDirectory(root.path() / "link"); }), (root.path() / "link").string() + link_in_it);
    EXPECT_EQ(refusal([&] { StateDirectory(root.path() / "link/pkg"); }),
              (root.path() / "link/pkg").string() + link_in_it);
}

TEST_F(StateDirectoryTest, StaysTheSameWhateverStandsInItsPlace) {
    fs::rename(path, root.path() / "moved");
    fs::create_directory_symlink(root.path() / "outside", path);
    state->append("victim", "more");
    EXPECT_EQ(read_file(root.path() / "moved/victim"), "more");
}

TEST_F(StateDirectoryTest, AReplacementFollowsNoLinkThatAppearsInItsWay) {
    std::atomic<bool> is_done = false;
    std::thread linking([&] {
        while (!is_done) symlink(victim.c_str(), (path / ".name.new").c_str());
    });
    for (int attempt = 0; attempt < 5000; ++attempt) {
        try {
            state->replace("name", 0644, write_new);
        } catch (const Error &) {
            // The link was there first.
        }
    }
    is_done = true;
    linking.join();
}

TEST_F(StateDirectoryTest, AFileInThePlaceOfADirectoryIsRefusedAndTheOtherWayRound) {
    write_file(path / "log", "");
    EXPECT_EQ(refusal([&] { state->make_directory("log"); }), (path / "log").string() + ": Not a directory");
    const std::string reason = (path / "pkg").string() + ": Is a directory";
    EXPECT_EQ(refusal([&] { state->open("pkg", O_RDONLY); }), reason);
    EXPECT_EQ(refusal([&] { state->append("pkg", "x"); }), reason);
    EXPECT_EQ(refusal([&] { state->replace("pkg", 0644, write_new); }), reason);
}

TEST_F(StateDirectoryTest, AReplacementThatFailsLeavesWhatWasThere) {
    write_file(path / "name", "old");
    EXPECT_ANY_THROW(state->replace("name", 0644, [](const Descriptor &file) {
        write_all(file, "name", "half");
        throw std::runtime_error("full");
    }));
    EXPECT_EQ(read_file(path / "name"), "old");
    EXPECT_THAT(names_in(path), ElementsAre("name", "pkg"));
}

TEST_F(StateDirectoryTest, OnlyLeftoversAreRemoved) {
    fs::create_directory(path / "log");
    for (const char *name : {".state.toml.new", "pkg/.io.img.new", "state.toml", "pkg/io.img", "pkg/state.new",
                             ".hidden", "state.toml.backup", "log/.of-the-card.new"}) {
        write_file(path / name, "");
    }
    state->remove_leftovers();
    EXPECT_THAT(names_in(path), ElementsAre(".hidden", "log", "pkg", "state.toml", "state.toml.backup"));
    EXPECT_THAT(names_in(path / "pkg"), ElementsAre("io.img", "state.new"));
    EXPECT_THAT(names_in(path / "log"), ElementsAre(".of-the-card.new"));
}

}  // namespace
}  // namespace cardsim
