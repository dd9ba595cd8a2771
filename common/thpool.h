// Small fixed-size pool of detached worker threads running queued jobs.
#pragma once

typedef struct thpool_ *threadpool;

threadpool thpool_init(int num_threads);
int thpool_add_work(threadpool pool, void (*function_p)(void *), void *arg_p);
void thpool_wait(threadpool pool);
void thpool_pause(threadpool pool);
void thpool_resume(threadpool pool);
void thpool_destroy(threadpool pool);
int thpool_num_threads_working(threadpool pool);
