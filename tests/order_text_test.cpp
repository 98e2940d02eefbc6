/// How the texts of order/ are read and written anew.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "files.h"
#include "order_text.h"

using namespace card_tests;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::ThrowsMessage;

namespace {

class OrderText : public testing::Test {
  protected:
    void file(const std::string &name, const std::string &text) { write_file(directory_.path() / name, text); }
    std::vector<OrderEntry> read(const std::string &name = "run.txt") const {
        return read_order(directory_.path() / name);
    }
    std::string compared() const { return compared_text(read()); }
    std::string updated(const std::string &text) const { return updated_order(read(), text); }
    auto refusal(const std::string &text) { return ThrowsMessage<std::runtime_error>(HasSubstr(text)); }

  private:
    const TemporaryDirectory directory_{"order-text"};
};

// ---- reading

TEST_F(OrderText, CommentsAndEmptyLinesAreNotCompared) {
    file("run.txt", "# a run\n\none\n# why\ntwo # three\n");
    EXPECT_EQ(compared(), "one\ntwo # three\n");
}

TEST_F(OrderText, AnIncludeStandsForTheLinesOfTheOtherFile) {
    file("run.txt", "one\ninclude outer.part\nlast\n");
    file("outer.part", "# shared\ntwo\ninclude inner.part\nfour\n");
    file("inner.part", "three\n");
    EXPECT_EQ(compared(), "one\ntwo\nthree\nfour\nlast\n");
}

TEST_F(OrderText, AnIncludeReplacesTextsAllAtOnce) {
    file("run.txt", "include a.part with B for A, C for B, <queue 2> for <queue 1>\ninclude a.part\n");
    file("a.part", "A B A <queue 1>\n");
    EXPECT_EQ(compared(), "B C B <queue 2>\nA B A <queue 1>\n");
}

TEST_F(OrderText, AnIncludeReplacesInWhatTheOtherFileIncludes) {
    file("run.txt", "include outer.part with Bios for IoFpga\n");
    file("outer.part", "include inner.part with IoFpga for Region\n");
    file("inner.part", "FPD Region\n");
    EXPECT_EQ(compared(), "FPD Bios\n");
}

TEST_F(OrderText, AReplacementOfWhatIsNotThereIsRefused) {
    file("run.txt", "include a.part with B for C\n");
    file("a.part", "A\n");
    EXPECT_THAT([&] { read(); }, refusal("nothing to replace: C"));
}

TEST_F(OrderText, AReplacementThatIsNoneIsRefused) {
    file("a.part", "A\n");
    for (const char *const replacement : {"B", "B for ", " for A", "B for A, C"}) {
        file("run.txt", std::string("include a.part with ") + replacement + "\n");
        EXPECT_THAT([&] { read(); }, refusal("not A for B")) << replacement;
    }
}

TEST_F(OrderText, AnIncludeOfAMissingFileIsRefused) {
    file("run.txt", "include lost.part\n");
    EXPECT_THAT([&] { read(); }, refusal("lost.part"));
}

TEST_F(OrderText, ACircleOfIncludesIsRefused) {
    file("run.txt", "include a.part\n");
    file("a.part", "include b.part\n");
    file("b.part", "include a.part\n");
    EXPECT_THAT([&] { read(); }, refusal("includes itself"));
    file("run.txt", "include run.txt\n");
    EXPECT_THAT([&] { read(); }, refusal("includes itself"));
}

TEST_F(OrderText, AFileTwiceIsNoCircle) {
    file("run.txt", "include a.part\ninclude a.part\n");
    file("a.part", "A\n");
    EXPECT_EQ(compared(), "A\nA\n");
}

TEST_F(OrderText, ARunWithoutAFileHasNoEntries) {
    EXPECT_THAT(read("lost.txt"), IsEmpty());
}

// ---- writing anew

TEST_F(OrderText, AnUpdateToWhatIsThereChangesNothing) {
    const std::string text = "# a run\n\n== main\none\ninclude a.part\n# two\ntwo\n\n== worker\none\n# the end\n";
    file("run.txt", text);
    file("a.part", "# shared\nthree\n# in it\nfour\n");
    EXPECT_EQ(updated(compared()), text);
}

TEST_F(OrderText, AnUpdateKeepsCommentsBesideLinesThatChange) {
    file("run.txt", "# a run\none\n# two\ntwo\n# gone\ngone\n# last\nlast\n");
    EXPECT_EQ(updated("one\nafter one\ntwo\nlast\n"), "# a run\none\nafter one\n# two\ntwo\n# gone\n# last\nlast\n");
    EXPECT_EQ(updated("one\nTWO\ngone\nlast\nmore\n"), "# a run\none\n# two\nTWO\n# gone\ngone\n# last\nlast\nmore\n");
}

TEST_F(OrderText, AnUpdateKeepsTheIncludesThatHold) {
    file("run.txt", "one\ninclude a.part\ninclude a.part with b for a\nlast\n");
    file("a.part", "# shared\na\nA\n");
    EXPECT_EQ(updated("ONE\na\nA\nnew\nb\nA\n"), "ONE\ninclude a.part\nnew\ninclude a.part with b for a\n");
}

TEST_F(OrderText, AnUpdateWritesOutTheLinesOfAnIncludeThatDoesNotHold) {
    file("run.txt", "include a.part with b for a\nlast\n");
    file("a.part", "# a of it\na\n# A of it\nA\n");
    EXPECT_EQ(updated("b\nnew\nA\nlast\n"), "# b of it\nb\nnew\n# A of it\nA\nlast\n");
    EXPECT_EQ(updated("b\nlast\n"), "# b of it\nb\n# A of it\nlast\n");
}

TEST_F(OrderText, AnUpdateWritesARunWithoutAFile) {
    EXPECT_EQ(updated("== main\none\n== worker\ntwo\n"), "== main\none\n\n== worker\ntwo\n");
}

}  // namespace
