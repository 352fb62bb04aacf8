// Change notification across real processes: real inotify, real fcntl locks,
// real files under a private root.

#include "support/agent.h"
#include "support/test_support.h"

using cmtest::Agent;

namespace {

constexpr int kGeneral = 9;

class MultiProcess : public cmtest::LibraryTest {
protected:
    std::string fileOf(int i) const { return cm::storage::pathOf(i); }
};

using cmtest::recordOffset;
using cmtest::rewrite;

TEST_F(MultiProcess, WriteReachesEveryProcessOnceAndEqualWritesReachNobody) {
    Agent master, other;
    ASSERT_EQ(master.call("init 1"), "ok 0");
    ASSERT_EQ(other.call("init 0"), "ok 0");
    for (Agent* a : {&master, &other}) {
        ASSERT_EQ(a->call("reg " + std::to_string(CMS_CONNECT_TIMEOUT)), "ok 0");
        ASSERT_EQ(a->call("reg " + std::to_string(CMS_LINK_INACTIVITY)), "ok 0");
    }
    // The writer is the non-master; both, the writer included, hear of it.
    ASSERT_EQ(other.call("put " + std::to_string(CMS_CONNECT_TIMEOUT) + " 33"), "ok 1");
    ASSERT_TRUE(master.waitCallbacks(1));
    ASSERT_TRUE(other.waitCallbacks(1));

    // Writing the same value again changes nothing and is heard by nobody;
    // the later real change proves both watchers got past it.
    ASSERT_EQ(master.call("put " + std::to_string(CMS_CONNECT_TIMEOUT) + " 33"), "ok 0");
    ASSERT_EQ(master.call("put " + std::to_string(CMS_LINK_INACTIVITY) + " 44"), "ok 1");
    ASSERT_TRUE(master.waitCallbacks(2));
    ASSERT_TRUE(other.waitCallbacks(2));
    const std::vector<int> expected{CMS_CONNECT_TIMEOUT, CMS_LINK_INACTIVITY};
    EXPECT_EQ(master.callbacks(), expected);
    EXPECT_EQ(other.callbacks(), expected);
    EXPECT_EQ(other.call("get " + std::to_string(CMS_LINK_INACTIVITY)), "ok 0 44");

    // A holder of the whole file (a restore) writes while both watchers wait
    // for it, their modify events off: the diff after the wait sees the
    // writes, and writes after it are heard again.
    const int fd = open(fileOf(kGeneral).c_str(), O_RDWR | O_CLOEXEC);
    struct flock whole{};
    whole.l_type = F_WRLCK;
    ASSERT_EQ(fcntl(fd, F_SETLKW, &whole), 0);
    ASSERT_EQ(pwrite(fd, "\x77", 1, recordOffset(CMS_CONNECT_TIMEOUT) + 4), 1);
    const auto waiting = [](const Agent& a) {
        for (const auto& l : cmtest::lines(cmtest::readFile("/proc/locks")))
            if (l.find("-> POSIX") != std::string::npos && l.find(" " + std::to_string(a.pid()) + " ") != std::string::npos)
                return true;
        return false;
    };
    ASSERT_TRUE(cmtest::waitFor([&] { return waiting(master) && waiting(other); }));
    ASSERT_EQ(pwrite(fd, "\x77", 1, recordOffset(CMS_LINK_INACTIVITY) + 4), 1);
    close(fd);
    for (Agent* a : {&master, &other}) ASSERT_TRUE(a->waitCallbacks(4));
    ASSERT_EQ(master.call("put " + std::to_string(CMS_CONNECT_TIMEOUT) + " 34"), "ok 1");
    for (Agent* a : {&master, &other}) {
        ASSERT_TRUE(a->waitCallbacks(5));
        EXPECT_EQ(a->callbacks(), (std::vector<int>{CMS_CONNECT_TIMEOUT, CMS_LINK_INACTIVITY, CMS_CONNECT_TIMEOUT,
                                                    CMS_LINK_INACTIVITY, CMS_CONNECT_TIMEOUT}));
    }
    // A file grown while the watchers wait is cut back by the master all the same.
    const int grown = open(fileOf(kGeneral).c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(fcntl(grown, F_SETLKW, &whole), 0);
    ASSERT_EQ(pwrite(grown, "\x78", 1, recordOffset(CMS_CONNECT_TIMEOUT) + 4), 1);
    ASSERT_TRUE(cmtest::waitFor([&] { return waiting(master) && waiting(other); }));
    ASSERT_EQ(pwrite(grown, "0123456789abcdef", 16, cm::storage::correctLength(kGeneral)), 16);
    close(grown);
    EXPECT_TRUE(cmtest::waitFor([&] { return cmtest::readFile(fileOf(kGeneral)).size() == cm::storage::correctLength(kGeneral); }));
    EXPECT_EQ(master.finish(), 0);
    EXPECT_EQ(other.finish(), 0);
}

TEST_F(MultiProcess, DeletedFileIsRecreatedByTheMasterAndNotifiedEverywhere) {
    constexpr int kWd = 6;  // 11 variables, IDs 3104..3114
    Agent master, other;
    ASSERT_EQ(master.call("init 1"), "ok 0");
    ASSERT_EQ(other.call("init 0"), "ok 0");
    for (Agent* a : {&master, &other}) ASSERT_EQ(a->call("reg 3104 3114"), "ok 0");
    // A changed value that the re-creation must put back to its default.
    ASSERT_EQ(other.call("put " + std::to_string(RED_WD_ENABLE) + " 0"), "ok 1");
    ASSERT_TRUE(master.waitCallbacks(1));
    ASSERT_TRUE(other.waitCallbacks(1));

    ASSERT_EQ(unlink(fileOf(kWd).c_str()), 0);
    for (Agent* a : {&master, &other}) {
        ASSERT_TRUE(a->waitCallbacks(12)) << "pid " << a->pid();
        const auto cbs = a->callbacks();
        std::set<int> ids(cbs.begin() + 1, cbs.end());
        EXPECT_EQ(ids.size(), 11u);
        EXPECT_EQ(*ids.begin(), 3104);
        EXPECT_EQ(*ids.rbegin(), 3114);
    }
    EXPECT_EQ(cmtest::readFile(fileOf(kWd)).size(), cm::storage::correctLength(kWd));
    EXPECT_EQ(other.call("get " + std::to_string(RED_WD_ENABLE)), "ok 0 1");
    EXPECT_EQ(master.finish(), 0);
    EXPECT_EQ(other.finish(), 0);
}

TEST_F(MultiProcess, NonMasterIgnoresWrongLengthUntilTheFileIsRestored) {
    {
        Agent creator;  // a master creates the files, then leaves
        ASSERT_EQ(creator.call("init 1"), "ok 0");
        EXPECT_EQ(creator.finish(), 0);
    }
    Agent other;
    ASSERT_EQ(other.call("init 0"), "ok 0");
    ASSERT_EQ(other.call("reg " + std::to_string(UNIT_LOCATION)), "ok 0");
    ASSERT_EQ(other.call("reg " + std::to_string(CM_TEST123)), "ok 0");

    const std::string good = cmtest::readFile(fileOf(kGeneral));
    ASSERT_EQ(truncate(fileOf(kGeneral).c_str(), static_cast<off_t>(good.size() - 10)), 0);
    // A change in another file is a barrier: once it is heard, the shrink
    // before it has been handled, and it notified nothing.
    ASSERT_EQ(other.call("put " + std::to_string(CM_TEST123) + " 7"), "ok 1");
    ASSERT_TRUE(other.waitCallbacks(1));
    EXPECT_EQ(other.callbacks(), std::vector<int>{CM_TEST123});

    // Restored at its correct length with a new value: reprocessed, and
    // every variable of the file counts as changed.
    std::string restored = good;
    std::memcpy(&restored[recordOffset(UNIT_LOCATION) + 4], "Attic", 6);
    rewrite(fileOf(kGeneral), restored);
    ASSERT_TRUE(other.waitCallbacks(2));
    EXPECT_EQ(other.callbacks().back(), UNIT_LOCATION);
    EXPECT_EQ(other.call("get " + std::to_string(UNIT_LOCATION)), "ok 0 Attic");
    EXPECT_EQ(other.finish(), 0);
}

}  // namespace
