// Worker pool: jobs run on named threads, wait blocks until they are done.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <pthread.h>
#include <thread>

#include "common/thpool.h"

namespace {

std::atomic<int> ran{0};

void count_job(void *) { ran++; }

void slow_job(void *arg) {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    static_cast<std::atomic<bool> *>(arg)->store(true);
}

void name_job(void *arg) {
    pthread_getname_np(pthread_self(), static_cast<char *>(arg), 16);
}

TEST(ThreadPool, RunsEveryQueuedJobOnNamedThreads) {
    threadpool pool = thpool_init(2);
    ASSERT_NE(pool, nullptr);
    ran = 0;
    for (int i = 0; i < 50; ++i) ASSERT_EQ(thpool_add_work(pool, count_job, nullptr), 0);
    char name[16] = {};
    ASSERT_EQ(thpool_add_work(pool, name_job, name), 0);
    thpool_wait(pool);
    EXPECT_EQ(ran.load(), 50);
    EXPECT_EQ(strncmp(name, "thread-pool-", 12), 0) << name;
    EXPECT_EQ(thpool_num_threads_working(pool), 0);
    thpool_destroy(pool);
}

TEST(ThreadPool, WaitReturnsOnlyAfterTheLongJobReturned) {
    threadpool pool = thpool_init(2);
    std::atomic<bool> done{false};
    auto start = std::chrono::steady_clock::now();
    thpool_add_work(pool, slow_job, &done);
    thpool_wait(pool);
    EXPECT_TRUE(done.load());
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));
    thpool_destroy(pool);
}

TEST(ThreadPool, PoolWithoutThreadsNeverRunsJobs) {
    threadpool pool = thpool_init(-3); // negative counts become 0
    ASSERT_NE(pool, nullptr);
    ran = 0;
    thpool_add_work(pool, count_job, nullptr);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(ran.load(), 0);
    thpool_destroy(pool); // frees the job still queued
    thpool_destroy(nullptr);
}

TEST(ThreadPool, PausedThreadsResumeAndFinishTheirWork) {
    threadpool pool = thpool_init(2);
    thpool_pause(pool);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ran = 0;
    thpool_add_work(pool, count_job, nullptr);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(ran.load(), 0); // both threads sit in their pause handler
    thpool_resume(pool);
    thpool_wait(pool);
    EXPECT_EQ(ran.load(), 1);
    thpool_destroy(pool);
}

} // namespace
