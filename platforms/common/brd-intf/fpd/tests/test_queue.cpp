#include <cerrno>
#include <cstring>

#include "brd_intf_auto_fpd_upgrade_queue.h"
#include "interpose.h"
#include "run_support.h"

namespace {

using interpose::Call;
using testing::ElementsAre;
using testing::IsEmpty;

void name_record(Fpd &fpd, const char *name) {
    std::strcpy(fpd.info.name, name);
}

/// Records of these names, linked after one another without a word in the log.
struct Chain {
    explicit Chain(const std::vector<const char *> &names) : records(names.size()) {
        for (std::size_t i = 0; i < names.size(); ++i) {
            name_record(records[i], names[i]);
            if (i > 0) records[i - 1].next = &records[i];
        }
        if (!records.empty()) queue = records.data();
    }
    Fpd &operator[](std::size_t index) { return records[index]; }

    std::vector<Fpd> records;
    FpdQueue queue = nullptr;
};

std::vector<const Fpd *> members(const Fpd *first) {
    std::vector<const Fpd *> found;
    for (; first; first = first->next) found.push_back(first);
    return found;
}

struct QueueTest : CardTest {
    QueueTest() { name_record(fpd, "IoFpga"); }
    int add(FpdQueue &queue, Fpd &record) { return add_fpd_queue(&queue, &record, err_msg, sizeof err_msg); }
    int rm(FpdQueue &queue, Fpd &record) { return rm_fpd_queue(&queue, &record, err_msg, sizeof err_msg); }
    int move(FpdQueue &from, FpdQueue &to, Fpd &record) {
        return move_fpd_between_queue(&from, &to, &record, err_msg, sizeof err_msg);
    }
    /// "<text> <address of the queue>"
    static std::string at(const std::string &text, const FpdQueue &queue) { return text + " " + address_text(&queue); }

    Fpd fpd{};
};

struct FpdRecord : QueueTest {};

TEST_F(FpdRecord, IsZeroedAndCreated) {
    interpose::hold_clock({4711, 5});
    Fpd *const record = alloc_fpd(err_msg, sizeof err_msg);
    ASSERT_NE(record, nullptr);
    Fpd expected{};
    expected.state = FpdState::created;
    expected.state_time = {4711, 5};
    EXPECT_EQ(bytes_of(*record), bytes_of(expected));
    expect_only_log({"FPD", "brd_intf_auto_fpd_upgrade_state"}, "DEBUG", "UpdateFpdTransitionState",
                    "FPD  transitioning state from 'Unknown state 0' to 'FPD Created' at 4711");
    free_fpd(record);
}

TEST_F(FpdRecord, CannotBeMadeWithoutMemoryAndMayBeNullWhenItIsFreed) {
    interpose::fail(Call::calloc, ENOMEM, 1, 2);
    EXPECT_EQ(alloc_fpd(err_msg, sizeof err_msg), nullptr);
    EXPECT_STREQ(err_msg, "Memory allocation failed err_msg Cannot allocate memory");
    EXPECT_EQ(alloc_fpd(nullptr, 0), nullptr);
    EXPECT_THAT(log_lines(), IsEmpty());
    free_fpd(nullptr);
}

struct AddToQueue : QueueTest {};

TEST_F(AddToQueue, MakesTheRecordTheHeadOfAnEmptyOne) {
    FpdQueue queue = nullptr;
    expect_result(add(queue, fpd), 0);
    EXPECT_THAT(members(queue), ElementsAre(&fpd));
    expect_only_log(queue_module, "INFO", "AddFpdQueueHead", at("FPD IoFpga added into upgrade queue head", queue));
}

TEST_F(AddToQueue, AppendsInTheOrderOfAdding) {
    Chain chain({"A", "B"});
    expect_result(add(chain.queue, fpd), 0);
    EXPECT_THAT(members(chain.queue), ElementsAre(&chain[0], &chain[1], &fpd));
    expect_only_log(queue_module, "INFO", "AddFpdQueueTail", at("FPD IoFpga added into a queue tail", chain.queue));
}

TEST_F(AddToQueue, RefusesARecordThatIsLinked) {
    Chain linked({"IoFpga", "Bios"});
    for (FpdQueue queue : {FpdQueue{nullptr}, &fpd}) {
        clear_log();
        const FpdQueue before = queue;
        expect_logged(add(queue, linked[0]), 22, queue_module, "AddFpdQueueInvldParam",
                      "FPD Upgrade msg already linked in a queue");
        EXPECT_EQ(queue, before);
        EXPECT_EQ(linked[0].next, &linked[1]);
        EXPECT_EQ(fpd.next, nullptr);
    }
}

TEST_F(AddToQueue, TakesTheTailOfAnotherQueueIntoTwoQueues) {
    Chain other({"A", "B"}), chain({"C"});
    EXPECT_EQ(add(chain.queue, other[1]), 0);
    EXPECT_THAT(members(chain.queue), ElementsAre(&chain[0], &other[1]));
    EXPECT_THAT(members(other.queue), ElementsAre(&other[0], &other[1]));
}

TEST_F(AddToQueue, RefusesANameThatIsThereAtAnyPlace) {
    for (const auto &names :
         {std::vector<const char *>{"IoFpga", "B", "C"}, {"A", "IoFpga", "C"}, {"A", "B", "IoFpga"}, {"IoFpga"}}) {
        clear_log();
        Chain chain(names);
        const auto before = members(chain.queue);
        expect_result(add(chain.queue, fpd), 17, "Duplicate FPD IoFpga found");
        EXPECT_EQ(members(chain.queue), before);
        expect_only_log(queue_module, "ERROR", "AddFpdQueueDupEntry", "adding a Duplicate FPD IoFpga found");
    }
}

TEST_F(AddToQueue, ComparesWholeNamesAndTheirCase) {
    Chain chain({"iofpga", "IoFpg", "IoFpga1", ""});
    EXPECT_EQ(add(chain.queue, fpd), 0);
    EXPECT_THAT(names(chain.queue), ElementsAre("iofpga", "IoFpg", "IoFpga1", "", "IoFpga"));
}

struct RemoveFromQueue : QueueTest {};

TEST_F(RemoveFromQueue, FailsWhenItIsEmpty) {
    FpdQueue queue = nullptr;
    expect_logged(rm(queue, fpd), 22, queue_module, "RmFpdQueueEmpty", "queue is empty");
}

TEST_F(RemoveFromQueue, UnlinksTheHead) {
    Chain chain({"A", "B"});
    EXPECT_EQ(rm(chain.queue, chain[0]), 0);
    EXPECT_THAT(members(chain.queue), ElementsAre(&chain[1]));
    EXPECT_EQ(chain[0].next, nullptr);
    expect_only_log(queue_module, "INFO", "RmFpdQueueHead", at("FPD A removed from head", chain.queue));
    EXPECT_EQ(rm(chain.queue, chain[1]), 0);
    EXPECT_EQ(chain.queue, nullptr);
}

TEST_F(RemoveFromQueue, UnlinksARecordFurtherDown) {
    Chain chain({"A", "B", "C"});
    EXPECT_EQ(rm(chain.queue, chain[1]), 0);
    EXPECT_THAT(members(chain.queue), ElementsAre(&chain[0], &chain[2]));
    EXPECT_EQ(chain[1].next, nullptr);
    expect_only_log(queue_module, "INFO", "RmFpdQueue", at("FPD B removed from queue head", chain.queue));
    EXPECT_EQ(rm(chain.queue, chain[2]), 0);
    EXPECT_THAT(members(chain.queue), ElementsAre(&chain[0]));
}

TEST_F(RemoveFromQueue, LeavesErrorTextAloneWhenTheNameIsNotThere) {
    Chain chain({"A", "B"});
    expect_result(rm(chain.queue, fpd), 2, untouched_text);
    EXPECT_THAT(members(chain.queue), ElementsAre(&chain[0], &chain[1]));
    expect_only_log(queue_module, "ERROR", "RmFpdQueueNotFound",
                    at("Couldn't find FPD IoFpga in the queue head", chain.queue));
}

TEST_F(RemoveFromQueue, RemovesTheFirstOfTheRecordsNameBehindTheHead) {
    Chain chain({"A", "Same", "B", "Same"});
    EXPECT_EQ(rm(chain.queue, chain[3]), 0);
    EXPECT_THAT(members(chain.queue), ElementsAre(&chain[0], &chain[2], &chain[3]));
    EXPECT_EQ(chain[1].next, nullptr);
}

TEST_F(RemoveFromQueue, KnowsTheHeadByIdentityNotByName) {
    Chain chain({"IoFpga", "A", "IoFpga"});
    EXPECT_EQ(rm(chain.queue, fpd), 0);
    EXPECT_THAT(members(chain.queue), ElementsAre(&chain[0], &chain[1]));
    EXPECT_EQ(rm(chain.queue, fpd), 2);
    EXPECT_THAT(members(chain.queue), ElementsAre(&chain[0], &chain[1]));
}

TEST_F(RemoveFromQueue, RemovesTheHeadItselfBeforeItsNamesakes) {
    Chain chain({"Same", "Same"});
    EXPECT_EQ(rm(chain.queue, chain[0]), 0);
    EXPECT_THAT(members(chain.queue), ElementsAre(&chain[1]));
}

struct MoveBetweenQueues : QueueTest {
    FpdQueue to = nullptr;
};

TEST_F(MoveBetweenQueues, TakesTheRecordToTheEndOfTheOther) {
    Chain from({"A", "B", "C"});
    to = &fpd;
    expect_result(move(from.queue, to, from[1]), 0);
    EXPECT_THAT(members(from.queue), ElementsAre(&from[0], &from[2]));
    EXPECT_THAT(members(to), ElementsAre(&fpd, &from[1]));
    EXPECT_EQ(log_lines().size(), 2U);
    expect_log(queue_module, "INFO", "RmFpdQueue", at("FPD B removed from queue head", from.queue));
    expect_log(queue_module, "INFO", "AddFpdQueueTail", at("FPD B added into a queue tail", to));
}

TEST_F(MoveBetweenQueues, AddsTheRecordAlsoWhenItIsNotThereAndShowsNoEarlierText) {
    Chain none({}), others({"A"});
    for (Chain *const from : {&others, &none}) {
        clear_log();
        to = nullptr;
        EXPECT_EQ(move(from->queue, to, fpd), 0);
        EXPECT_THAT(members(to), ElementsAre(&fpd));
        EXPECT_EQ(members(from->queue).size(), from->records.size());
        expect_log(queue_module, "ERROR", "MoveFpdBetweenQueueRm",
                   at("FPD IoFpga failed remove from queue", from->queue) + " error " +
                       (from == &none ? "queue is empty" : ""));
        expect_no_log("MoveFpdBetweenQueueAdd");
    }
}

TEST_F(MoveBetweenQueues, TellsOfADuplicateWithTheAddressOfTheQueueItLeft) {
    Chain from({"IoFpga"}), other({"IoFpga"});
    expect_result(move(from.queue, other.queue, from[0]), 0, "Duplicate FPD IoFpga found");
    EXPECT_EQ(from.queue, nullptr);
    EXPECT_THAT(members(other.queue), ElementsAre(&other[0]));
    expect_no_log("MoveFpdBetweenQueueRm");
    expect_log(queue_module, "ERROR", "AddFpdQueueDupEntry", "adding a Duplicate FPD IoFpga found");
    expect_log(queue_module, "ERROR", "MoveFpdBetweenQueueAdd",
               at("FPD IoFpga failed add into queue", from.queue) + " error Duplicate FPD IoFpga found");
}

TEST_F(QueueTest, FailuresNeedNoErrorText) {
    FpdQueue queue = nullptr, to = nullptr;
    EXPECT_EQ(rm_fpd_queue(&queue, &fpd, nullptr, 0), 22);
    EXPECT_EQ(add_fpd_queue(&queue, &fpd, nullptr, 0), 0);
    Chain twins({"IoFpga", "Bios"});
    EXPECT_EQ(add_fpd_queue(&queue, &twins[1], nullptr, 0), 0);
    EXPECT_EQ(add_fpd_queue(&queue, &twins[0], nullptr, 0), 22);
    EXPECT_EQ(rm_fpd_queue(&queue, &twins[0], nullptr, 0), 2);
    twins[0].next = nullptr;
    EXPECT_EQ(add_fpd_queue(&queue, &twins[0], nullptr, 0), 17);
    Chain other({"IoFpga"});
    EXPECT_EQ(move_fpd_between_queue(&to, &queue, &other[0], nullptr, 0), 0);
    for (const auto &[tag, action] :
         {std::pair{"MoveFpdBetweenQueueRm", "remove from"}, {"MoveFpdBetweenQueueAdd", "add into"}})
        expect_log(queue_module, "ERROR", tag,
                   at(std::string("FPD IoFpga failed ") + action + " queue", to) + " error ");
    EXPECT_EQ(get_fpd_by_name_queue(&fpd, nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(get_fpd_by_name({}, nullptr, nullptr, 0), nullptr);
}

struct FindByName : QueueTest {
    Fpd *in(Fpd *first, const char *name) { return get_fpd_by_name_queue(first, name, err_msg, sizeof err_msg); }
    Fpd *find(const char *name) { return get_fpd_by_name(queues, name, err_msg, sizeof err_msg); }

    FpdCardQueues queues{};
};

TEST_F(FindByName, GivesTheFirstOfThatNameInAQueueAndLeavesNoEarlierText) {
    Chain chain({"A", "Same", "Same"});
    EXPECT_EQ(in(chain.queue, "A"), &chain[0]);
    EXPECT_STREQ(err_msg, "");
    EXPECT_EQ(in(chain.queue, "Same"), &chain[1]);
    EXPECT_EQ(in(&chain[2], "Same"), &chain[2]);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(FindByName, MissesWithoutAWord) {
    Chain chain({"A", "B"});
    for (const char *name : {"a", "", "AB"}) EXPECT_EQ(in(chain.queue, name), nullptr);
    EXPECT_EQ(in(nullptr, "A"), nullptr);
    EXPECT_EQ(find("A"), nullptr);
    EXPECT_STREQ(err_msg, "");
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(FindByName, RefusesNoName) {
    queues.fpd_queue = &fpd;
    expect_logged(in(&fpd, nullptr) != nullptr, false, queue_module, "GetFpdByNameQueueInvldParam",
                  "Invalid argument name (nil)");
    clear_log();
    expect_logged(find(nullptr) != nullptr, false, queue_module, "GetFpdByNameInvldParam",
                  "Invalid argument name (nil)");
}

TEST_F(FindByName, LooksIntoEveryQueue) {
    for (FpdQueue &queue : queues.seq_queues) {
        queue = &fpd;
        EXPECT_EQ(find("IoFpga"), &fpd);
        queue = nullptr;
    }
    queues.fpd_queue = &fpd;
    EXPECT_EQ(find("IoFpga"), &fpd);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(FindByName, PrefersTheUnplannedThenTheLowerSequence) {
    Chain unplanned({"A", "IoFpga"}), first({"B", "IoFpga"}), last({"IoFpga"});
    queues.seq_queues[0] = first.queue;
    queues.seq_queues[15] = last.queue;
    queues.fpd_queue = unplanned.queue;
    EXPECT_EQ(find("IoFpga"), &unplanned[1]);
    queues.fpd_queue = nullptr;
    EXPECT_EQ(find("IoFpga"), &first[1]);
    queues.seq_queues[0] = nullptr;
    EXPECT_EQ(find("IoFpga"), &last[0]);
}

TEST_F(QueueTest, IsNullWhenItsRecordsAreReleasedWithoutAWord) {
    FpdQueue queue = nullptr;
    free_fpd_queue(&queue);
    EXPECT_EQ(queue, nullptr);
    for (const char *name : {"A", "B", "C"}) {
        Fpd *const record = alloc_fpd(err_msg, sizeof err_msg);
        ASSERT_NE(record, nullptr);
        name_record(*record, name);
        ASSERT_EQ(add(queue, *record), 0);
    }
    clear_log();
    free_fpd_queue(&queue);
    EXPECT_EQ(queue, nullptr);
    EXPECT_THAT(log_lines(), IsEmpty());
}

}  // namespace
