// The process-wide lock: results of memm_unlock, nesting, exclusion between
// threads, waiters that are all woken, and a forked child of the holder.
#include <gtest/gtest.h>

#include <errno.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "memm.h"

TEST(Lock, UnlockWithoutHoldingIsRefusedAndNestingCounts) {
    EXPECT_EQ(memm_unlock(), EPERM); // also before memm_init: the lock is ready
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    for (int i = 0; i < 3; i++)
        memm_lock("nested");
    const uint32_t pool = memm_initpool("nested", 2, 8, nullptr); // locks once more
    ASSERT_NE(pool, MEMM_INVALID_POOL);
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(memm_unlock(), 0);
    EXPECT_EQ(memm_unlock(), EPERM);
}

TEST(Lock, AnotherThreadCannotUnlockTheHoldersLock) {
    memm_lock("holder");
    std::atomic<int> other_unlock{-1};
    std::atomic<bool> other_locked{false};
    std::thread other([&] {
        other_unlock = memm_unlock();
        memm_lock("other"); // waits for the holder
        other_locked = true;
        memm_unlock();
    });
    while (other_unlock == -1)
        std::this_thread::yield();
    EXPECT_FALSE(other_locked);
    EXPECT_EQ(memm_unlock(), 0); // still held: the refused unlock changed nothing
    other.join();
    EXPECT_EQ(other_unlock, EPERM);
    EXPECT_TRUE(other_locked);
}

// Threads queue up while the lock is held, then share it with nested locks
// and a plain counter: every round is counted once, and every sleeper is
// woken (no wake-up is lost, or the test would hang).
TEST(Lock, SleepersAreWokenAndExcludeEachOther) {
    const int threads = 4, rounds = 20000;
    long counter = 0;
    memm_lock("main");
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; t++)
        workers.emplace_back([&] {
            for (int i = 0; i < rounds; i++) {
                memm_lock("outer");
                memm_lock("inner");
                counter++;
                memm_unlock();
                memm_unlock();
            }
        });
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // let them fall asleep
    EXPECT_EQ(counter, 0);
    EXPECT_EQ(memm_unlock(), 0);
    for (auto &w : workers)
        w.join();
    EXPECT_EQ(counter, long(threads) * rounds);
}

// The child of a fork made while the forking thread held the lock holds it
// too, and may unlock it and use the library.
TEST(Lock, ForkedChildOfTheHolderGoesOn) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    const uint32_t pool = memm_initpool("forked", 4, 8, nullptr);
    memm_lock("fork");
    fflush(nullptr);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const bool ok = memm_unlock() == 0 && memm_calloc(pool) && memm_unlock() == EPERM;
        _exit(ok ? 0 : 1);
    }
    EXPECT_EQ(memm_unlock(), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}
