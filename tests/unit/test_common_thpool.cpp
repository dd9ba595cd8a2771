// Worker pool: every job runs on a named pool thread; wait returns only when the work is done.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <pthread.h>
#include <thread>

#include "common/thpool.h"

namespace {

std::atomic<int> ran{0};

void slow_count_job(void *) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    ran++;
}

void name_job(void *arg) { pthread_getname_np(pthread_self(), static_cast<char *>(arg), 16); }

TEST(ThreadPool, WaitReturnsAfterEveryQueuedJobRanOnAPoolThread) {
    threadpool pool = thpool_init(2);
    ASSERT_NE(pool, nullptr);
    for (int i = 0; i < 50; ++i)
        ASSERT_EQ(thpool_add_work(pool, slow_count_job, nullptr), 0);
    char name[16] = {};
    ASSERT_EQ(thpool_add_work(pool, name_job, name), 0);
    thpool_wait(pool);
    EXPECT_EQ(ran.load(), 50);
    EXPECT_EQ(strncmp(name, "thread-pool-", 12), 0) << name;
    thpool_destroy(pool);
}

} // namespace
