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

/// Records of these names, linked behind one another without a word in the log.
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

// Records -------------------------------------------------------------------------------------------------------------

struct FpdRecord : QueueTest {};

TEST_F(FpdRecord, IsZeroedAndCreated) {
    interpose::hold_clock({4711, 5});
    Fpd *const record = alloc_fpd(err_msg, sizeof err_msg);
    ASSERT_NE(record, nullptr);
    Fpd expected{};
    expected.state = FpdState::created;
    expected.state_time = {4711, 5};
    EXPECT_EQ(bytes_of(*record), bytes_of(expected));
    EXPECT_THAT(log_lines(),
                ElementsAre(log_line({"FPD", "brd_intf_auto_fpd_upgrade_state"}, "DEBUG", "UpdateFpdTransitionState",
                                     "FPD  transitioning state from 'Unknown state 0' to 'FPD Created' "
                                     "at 4711")));
    free_fpd(record);
}

TEST_F(FpdRecord, CannotBeMadeWithoutMemory) {
    interpose::fail(Call::calloc, ENOMEM);
    EXPECT_EQ(alloc_fpd(err_msg, sizeof err_msg), nullptr);
    EXPECT_STREQ(err_msg, "Memory allocation failed err_msg Cannot allocate memory");
    interpose::fail(Call::calloc, ENOMEM);
    EXPECT_EQ(alloc_fpd(nullptr, 0), nullptr);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(FpdRecord, MayBeNullWhenItIsFreed) {
    free_fpd(nullptr);
}

// Adding --------------------------------------------------------------------------------------------------------------

struct AddToQueue : QueueTest {};

TEST_F(AddToQueue, MakesTheRecordTheHeadOfAnEmptyOne) {
    FpdQueue queue = nullptr;
    EXPECT_EQ(add(queue, fpd), 0);
    EXPECT_THAT(members(queue), ElementsAre(&fpd));
    EXPECT_STREQ(err_msg, "");
    EXPECT_THAT(log_lines(), ElementsAre(log_line(queue_module, "INFO", "AddFpdQueueHead",
                                                  at("FPD IoFpga added into upgrade queue head", queue))));
}

TEST_F(AddToQueue, AppendsInTheOrderOfAdding) {
    Chain chain({"A", "B"});
    EXPECT_EQ(add(chain.queue, fpd), 0);
    EXPECT_STREQ(err_msg, "");
    EXPECT_THAT(members(chain.queue), ElementsAre(&chain[0], &chain[1], &fpd));
    EXPECT_THAT(log_lines(), ElementsAre(log_line(queue_module, "INFO", "AddFpdQueueTail",
                                                  at("FPD IoFpga added into a queue tail", chain.queue))));
}

TEST_F(AddToQueue, RefusesARecordThatIsLinked) {
    Chain linked({"IoFpga", "Bios"});
    for (FpdQueue queue : {FpdQueue{nullptr}, &fpd}) {
        clear_log();
        const FpdQueue before = queue;
        EXPECT_EQ(add(queue, linked[0]), 22);
        EXPECT_STREQ(err_msg, "FPD Upgrade msg already linked in a queue");
        EXPECT_THAT(log_lines(), ElementsAre(log_line(queue_module, "ERROR", "AddFpdQueueInvldParam",
                                                      "FPD Upgrade msg already linked in a queue")));
        EXPECT_EQ(queue, before);
        EXPECT_EQ(linked[0].next, &linked[1]);
        EXPECT_EQ(fpd.next, nullptr);
    }
}

TEST_F(AddToQueue, TakesTheTailOfAnotherQueueIntoTwoQueues) {
    Chain other({"A", "B"});
    Chain chain({"C"});
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
        EXPECT_EQ(add(chain.queue, fpd), 17);
        EXPECT_STREQ(err_msg, "Duplicate FPD IoFpga found");
        EXPECT_EQ(members(chain.queue), before);
        EXPECT_THAT(log_lines(), ElementsAre(log_line(queue_module, "ERROR", "AddFpdQueueDupEntry",
                                                      "adding a Duplicate FPD IoFpga found")));
    }
}

TEST_F(AddToQueue, ComparesWholeNamesAndTheirCase) {
    Chain chain({"iofpga", "IoFpg", "IoFpga1", ""});
    EXPECT_EQ(add(chain.queue, fpd), 0);
    EXPECT_THAT(names(chain.queue), ElementsAre("iofpga", "IoFpg", "IoFpga1", "", "IoFpga"));
}

TEST_F(AddToQueue, NeedsNoErrorText) {
    FpdQueue queue = nullptr;
    EXPECT_EQ(add_fpd_queue(&queue, &fpd, nullptr, 0), 0);
    Fpd twin{};
    name_record(twin, "IoFpga");
    EXPECT_EQ(add_fpd_queue(&queue, &twin, nullptr, 0), 17);
    twin.next = &fpd;
    EXPECT_EQ(add_fpd_queue(&queue, &twin, nullptr, 0), 22);
}

// Removing ------------------------------------------------------------------------------------------------------------

struct RemoveFromQueue : QueueTest {};

TEST_F(RemoveFromQueue, FailsWhenItIsEmpty) {
    FpdQueue queue = nullptr;
    EXPECT_EQ(rm(queue, fpd), 22);
    EXPECT_STREQ(err_msg, "queue is empty");
    EXPECT_THAT(log_lines(), ElementsAre(log_line(queue_module, "ERROR", "RmFpdQueueEmpty", "queue is empty")));
    EXPECT_EQ(rm_fpd_queue(&queue, &fpd, nullptr, 0), 22);
}

TEST_F(RemoveFromQueue, UnlinksTheHead) {
    Chain chain({"A", "B"});
    EXPECT_EQ(rm(chain.queue, chain[0]), 0);
    EXPECT_THAT(members(chain.queue), ElementsAre(&chain[1]));
    EXPECT_EQ(chain[0].next, nullptr);
    EXPECT_THAT(log_lines(), ElementsAre(log_line(queue_module, "INFO", "RmFpdQueueHead",
                                                  at("FPD A removed from head", chain.queue))));
    EXPECT_EQ(rm(chain.queue, chain[1]), 0);
    EXPECT_EQ(chain.queue, nullptr);
}

TEST_F(RemoveFromQueue, UnlinksARecordFurtherDown) {
    Chain chain({"A", "B", "C"});
    EXPECT_EQ(rm(chain.queue, chain[1]), 0);
    EXPECT_THAT(members(chain.queue), ElementsAre(&chain[0], &chain[2]));
    EXPECT_EQ(chain[1].next, nullptr);
    EXPECT_THAT(log_lines(), ElementsAre(log_line(queue_module, "INFO", "RmFpdQueue",
                                                  at("FPD B removed from queue head", chain.queue))));
    EXPECT_EQ(rm(chain.queue, chain[2]), 0);
    EXPECT_THAT(members(chain.queue), ElementsAre(&chain[0]));
}

TEST_F(RemoveFromQueue, LeavesErrorTextAloneWhenTheNameIsNotThere) {
    Chain chain({"A", "B"});
    EXPECT_EQ(rm(chain.queue, fpd), 2);
    EXPECT_EQ(err_msg, untouched_text);
    EXPECT_THAT(members(chain.queue), ElementsAre(&chain[0], &chain[1]));
    EXPECT_THAT(log_lines(), ElementsAre(log_line(queue_module, "ERROR", "RmFpdQueueNotFound",
                                                  at("Couldn't find FPD IoFpga in the queue head", chain.queue))));
    EXPECT_EQ(rm_fpd_queue(&chain.queue, &fpd, nullptr, 0), 2);
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

// Moving --------------------------------------------------------------------------------------------------------------

struct MoveBetweenQueues : QueueTest {
    FpdQueue to = nullptr;
};

TEST_F(MoveBetweenQueues, TakesTheRecordToTheEndOfTheOther) {
    Chain from({"A", "B", "C"});
    to = &fpd;
    EXPECT_EQ(move(from.queue, to, from[1]), 0);
    EXPECT_STREQ(err_msg, "");
    EXPECT_THAT(members(from.queue), ElementsAre(&from[0], &from[2]));
    EXPECT_THAT(members(to), ElementsAre(&fpd, &from[1]));
    EXPECT_THAT(
        log_lines(),
        ElementsAre(log_line(queue_module, "INFO", "RmFpdQueue", at("FPD B removed from queue head", from.queue)),
                    log_line(queue_module, "INFO", "AddFpdQueueTail", at("FPD B added into a queue tail", to))));
}

TEST_F(MoveBetweenQueues, AddsTheRecordAlsoWhenTheOneIsEmpty) {
    FpdQueue from = nullptr;
    EXPECT_EQ(move(from, to, fpd), 0);
    EXPECT_THAT(members(to), ElementsAre(&fpd));
    expect_log(queue_module, "ERROR", "MoveFpdBetweenQueueRm",
               at("FPD IoFpga failed remove from queue", from) + " error queue is empty");
    expect_no_log("MoveFpdBetweenQueueAdd");
}

TEST_F(MoveBetweenQueues, AddsTheRecordAlsoWhenItIsNotThereAndShowsNoEarlierText) {
    Chain from({"A"});
    EXPECT_EQ(move(from.queue, to, fpd), 0);
    EXPECT_THAT(members(to), ElementsAre(&fpd));
    EXPECT_THAT(members(from.queue), ElementsAre(&from[0]));
    expect_log(queue_module, "ERROR", "MoveFpdBetweenQueueRm",
               at("FPD IoFpga failed remove from queue", from.queue) + " error ");
}

TEST_F(MoveBetweenQueues, TellsOfADuplicateWithTheAddressOfTheQueueItLeft) {
    Chain from({"IoFpga"}), other({"IoFpga"});
    EXPECT_EQ(move(from.queue, other.queue, from[0]), 0);
    EXPECT_EQ(from.queue, nullptr);
    EXPECT_THAT(members(other.queue), ElementsAre(&other[0]));
    expect_no_log("MoveFpdBetweenQueueRm");
    expect_log(queue_module, "ERROR", "AddFpdQueueDupEntry", "adding a Duplicate FPD IoFpga found");
    expect_log(queue_module, "ERROR", "MoveFpdBetweenQueueAdd",
               at("FPD IoFpga failed add into queue", from.queue) + " error Duplicate FPD IoFpga found");
}

TEST_F(MoveBetweenQueues, TellsOfBothFailures) {
    FpdQueue from = nullptr;
    Chain other({"A", "IoFpga"});
    EXPECT_EQ(move(from, other.queue, fpd), 0);
    EXPECT_STREQ(err_msg, "Duplicate FPD IoFpga found");
    expect_log(queue_module, "ERROR", "RmFpdQueueEmpty", "queue is empty");
    expect_log(queue_module, "ERROR", "MoveFpdBetweenQueueRm",
               at("FPD IoFpga failed remove from queue", from) + " error queue is empty");
    expect_log(queue_module, "ERROR", "MoveFpdBetweenQueueAdd",
               at("FPD IoFpga failed add into queue", from) + " error Duplicate FPD IoFpga found");
}

TEST_F(MoveBetweenQueues, NeedsNoErrorText) {
    FpdQueue from = nullptr;
    EXPECT_EQ(move_fpd_between_queue(&from, &to, &fpd, nullptr, 0), 0);
    EXPECT_THAT(members(to), ElementsAre(&fpd));
    Chain other({"IoFpga"});
    EXPECT_EQ(move_fpd_between_queue(&other.queue, &to, &other[0], nullptr, 0), 0);
    expect_log(queue_module, "ERROR", "MoveFpdBetweenQueueAdd",
               at("FPD IoFpga failed add into queue", other.queue) + " error ");
}

// Finding -------------------------------------------------------------------------------------------------------------

struct FindByName : QueueTest {
    FindByName() {
        interpose::reset();
        clear_log();
    }
    Fpd *in(Fpd *first, const char *name) { return get_fpd_by_name_queue(first, name, err_msg, sizeof err_msg); }
    Fpd *find(const char *name) { return get_fpd_by_name(queues, name, err_msg, sizeof err_msg); }

    FpdCardQueues queues{};
};

TEST_F(FindByName, GivesTheFirstOfThatNameInAQueue) {
    Chain chain({"A", "Same", "Same"});
    EXPECT_EQ(in(chain.queue, "A"), &chain[0]);
    EXPECT_EQ(in(chain.queue, "Same"), &chain[1]);
    EXPECT_EQ(in(&chain[2], "Same"), &chain[2]);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(FindByName, MissesWithoutAWord) {
    Chain chain({"A", "B"});
    EXPECT_EQ(in(chain.queue, "a"), nullptr);
    EXPECT_EQ(in(chain.queue, ""), nullptr);
    EXPECT_EQ(in(chain.queue, "AB"), nullptr);
    EXPECT_EQ(in(nullptr, "A"), nullptr);
    EXPECT_EQ(find("A"), nullptr);
    EXPECT_STREQ(err_msg, "");
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(FindByName, RefusesNoNameInAQueue) {
    EXPECT_EQ(in(&fpd, nullptr), nullptr);
    EXPECT_STREQ(err_msg, "Invalid argument name (nil)");
    EXPECT_THAT(log_lines(), ElementsAre(log_line(queue_module, "ERROR", "GetFpdByNameQueueInvldParam",
                                                  "Invalid argument name (nil)")));
    EXPECT_EQ(get_fpd_by_name_queue(&fpd, nullptr, nullptr, 0), nullptr);
}

TEST_F(FindByName, RefusesNoNameInAllQueues) {
    queues.fpd_queue = &fpd;
    EXPECT_EQ(find(nullptr), nullptr);
    EXPECT_STREQ(err_msg, "Invalid argument name (nil)");
    EXPECT_THAT(log_lines(),
                ElementsAre(log_line(queue_module, "ERROR", "GetFpdByNameInvldParam", "Invalid argument name (nil)")));
    EXPECT_EQ(get_fpd_by_name(queues, nullptr, nullptr, 0), nullptr);
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

// Releasing -----------------------------------------------------------------------------------------------------------

struct FreeQueue : QueueTest {};

TEST_F(FreeQueue, LeavesAnEmptyOneNull) {
    FpdQueue queue = nullptr;
    free_fpd_queue(&queue);
    EXPECT_EQ(queue, nullptr);
}

TEST_F(FreeQueue, ReleasesEveryRecordWithoutAWord) {
    FpdQueue queue = nullptr;
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

TEST_F(FindByName, LeavesNoEarlierText) {
    Chain chain({"IoFpga"});
    EXPECT_EQ(in(chain.queue, "IoFpga"), &chain[0]);
    EXPECT_STREQ(err_msg, "");
}

}  // namespace
