// Fixed-size pool of detached worker threads. Diagnostics go straight to
// standard error: the pool is usable before (and independently of) the logger.
#include "common/thpool.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

// Shared by every pool: set while threads are paused by thpool_pause.
volatile sig_atomic_t threads_on_hold;

void err(const char *text) { fputs(text, stderr); }

struct bsem {
    pthread_mutex_t mutex;
    pthread_cond_t cond;
    int v;
};

struct job {
    job *prev; // towards the rear
    void (*function)(void *arg);
    void *arg;
};

struct jobqueue {
    pthread_mutex_t rwmutex;
    job *front;
    job *rear;
    bsem *has_jobs;
    int len;
};

struct thread;

} // namespace

struct thpool_ {
    thread **threads;
    int num_threads;
    int num_threads_alive; // guarded by thcount_lock
    int num_threads_working; // guarded by thcount_lock
    pthread_mutex_t thcount_lock;
    pthread_cond_t threads_all_idle;
    jobqueue queue;
    volatile int threads_keepalive;
};

namespace {

struct thread {
    int id;
    pthread_t pthread;
    thpool_ *pool;
};

void bsem_init(bsem *b, int value) {
    if (value < 0 || value > 1) {
        err("bsem_init(): Binary semaphore can take only values 1 or 0");
        exit(1);
    }
    pthread_mutex_init(&b->mutex, nullptr);
    pthread_cond_init(&b->cond, nullptr);
    b->v = value;
}

void bsem_destroy(bsem *b) {
    pthread_mutex_destroy(&b->mutex);
    pthread_cond_destroy(&b->cond);
}

void bsem_post(bsem *b) {
    pthread_mutex_lock(&b->mutex);
    b->v = 1;
    pthread_cond_signal(&b->cond);
    pthread_mutex_unlock(&b->mutex);
}

void bsem_post_all(bsem *b) {
    pthread_mutex_lock(&b->mutex);
    b->v = 1;
    pthread_cond_broadcast(&b->cond);
    pthread_mutex_unlock(&b->mutex);
}

void bsem_wait(bsem *b) {
    pthread_mutex_lock(&b->mutex);
    while (b->v != 1) pthread_cond_wait(&b->cond, &b->mutex);
    b->v = 0;
    pthread_mutex_unlock(&b->mutex);
}

int jobqueue_init(jobqueue *q) {
    q->len = 0;
    q->front = nullptr;
    q->rear = nullptr;
    q->has_jobs = static_cast<bsem *>(malloc(sizeof(bsem)));
    if (q->has_jobs == nullptr) return -1;
    pthread_mutex_init(&q->rwmutex, nullptr);
    bsem_init(q->has_jobs, 0);
    return 0;
}

void jobqueue_push(jobqueue *q, job *newjob) {
    pthread_mutex_lock(&q->rwmutex);
    newjob->prev = nullptr;
    if (q->len == 0) {
        q->front = newjob;
        q->rear = newjob;
    } else {
        q->rear->prev = newjob;
        q->rear = newjob;
    }
    q->len++;
    bsem_post(q->has_jobs);
    pthread_mutex_unlock(&q->rwmutex);
}

job *jobqueue_pull(jobqueue *q) {
    pthread_mutex_lock(&q->rwmutex);
    job *j = q->front;
    if (q->len == 1) {
        q->front = nullptr;
        q->rear = nullptr;
        q->len = 0;
    } else if (q->len > 1) {
        q->front = j->prev;
        q->len--;
        // more work is waiting: let another thread wake up too
        bsem_post(q->has_jobs);
    }
    pthread_mutex_unlock(&q->rwmutex);
    return j;
}

void jobqueue_clear(jobqueue *q) {
    while (q->len) free(jobqueue_pull(q));
    q->front = nullptr;
    q->rear = nullptr;
    bsem_init(q->has_jobs, 0);
    q->len = 0;
}

void jobqueue_destroy(jobqueue *q) {
    jobqueue_clear(q);
    bsem_destroy(q->has_jobs);
    free(q->has_jobs);
    pthread_mutex_destroy(&q->rwmutex);
}

void thread_hold(int) {
    threads_on_hold = 1;
    while (threads_on_hold) sleep(1);
}

void *thread_do(void *arg) {
    auto *t = static_cast<thread *>(arg);
    char name[16];
    snprintf(name, sizeof name, "thread-pool-%d", t->id);
    prctl(PR_SET_NAME, name);

    thpool_ *pool = t->pool;

    struct sigaction act = {};
    sigemptyset(&act.sa_mask);
    act.sa_flags = 0;
    act.sa_handler = thread_hold;
    if (sigaction(SIGUSR1, &act, nullptr) == -1) err("thread_do(): cannot handle SIGUSR1");

    pthread_mutex_lock(&pool->thcount_lock);
    pool->num_threads_alive += 1;
    pthread_mutex_unlock(&pool->thcount_lock);

    while (pool->threads_keepalive) {
        bsem_wait(pool->queue.has_jobs);
        if (!pool->threads_keepalive) break;

        pthread_mutex_lock(&pool->thcount_lock);
        pool->num_threads_working++;
        pthread_mutex_unlock(&pool->thcount_lock);

        job *j = jobqueue_pull(&pool->queue);
        if (j) {
            j->function(j->arg);
            free(j);
        }

        pthread_mutex_lock(&pool->thcount_lock);
        pool->num_threads_working--;
        if (!pool->num_threads_working) pthread_cond_signal(&pool->threads_all_idle);
        pthread_mutex_unlock(&pool->thcount_lock);
    }

    pthread_mutex_lock(&pool->thcount_lock);
    pool->num_threads_alive--;
    pthread_mutex_unlock(&pool->thcount_lock);
    return nullptr;
}

int thread_init(thpool_ *pool, thread **t, int id) {
    *t = static_cast<thread *>(malloc(sizeof(thread)));
    if (*t == nullptr) {
        err("thread_init(): Could not allocate memory for thread\n");
        return -1;
    }
    (*t)->pool = pool;
    (*t)->id = id;
    pthread_create(&(*t)->pthread, nullptr, thread_do, *t);
    pthread_detach((*t)->pthread);
    return 0;
}

} // namespace

threadpool thpool_init(int num_threads) {
    threads_on_hold = 0;
    if (num_threads < 0) num_threads = 0;

    auto *pool = static_cast<thpool_ *>(malloc(sizeof(thpool_)));
    if (pool == nullptr) {
        err("thpool_init(): Could not allocate memory for thread pool\n");
        return nullptr;
    }
    pool->num_threads = num_threads;
    pool->num_threads_alive = 0;
    pool->num_threads_working = 0;
    pool->threads_keepalive = 1;

    if (jobqueue_init(&pool->queue) == -1) {
        err("thpool_init(): Could not allocate memory for job queue\n");
        free(pool);
        return nullptr;
    }

    // calloc so that a partial start leaves null slots that destroy can skip
    pool->threads = static_cast<thread **>(calloc(static_cast<size_t>(num_threads ? num_threads : 1),
                                                  sizeof(thread *)));
    if (pool->threads == nullptr) {
        err("thpool_init(): Could not allocate memory for threads\n");
        jobqueue_destroy(&pool->queue);
        free(pool);
        return nullptr;
    }

    pthread_mutex_init(&pool->thcount_lock, nullptr);
    pthread_cond_init(&pool->threads_all_idle, nullptr);

    int started = 0;
    for (int n = 0; n < num_threads; n++)
        if (thread_init(pool, &pool->threads[n], n) == 0) started++;

    for (;;) {
        pthread_mutex_lock(&pool->thcount_lock);
        int alive = pool->num_threads_alive;
        pthread_mutex_unlock(&pool->thcount_lock);
        if (alive == started) break;
        usleep(1000);
    }
    return pool;
}

int thpool_add_work(threadpool pool, void (*function_p)(void *), void *arg_p) {
    auto *newjob = static_cast<job *>(malloc(sizeof(job)));
    if (newjob == nullptr) {
        err("thpool_add_work(): Could not allocate memory for new job\n");
        return -1;
    }
    newjob->function = function_p;
    newjob->arg = arg_p;
    jobqueue_push(&pool->queue, newjob);
    return 0;
}

void thpool_wait(threadpool pool) {
    pthread_mutex_lock(&pool->thcount_lock);
    while (pool->queue.len || pool->num_threads_working)
        pthread_cond_wait(&pool->threads_all_idle, &pool->thcount_lock);
    pthread_mutex_unlock(&pool->thcount_lock);
}

void thpool_destroy(threadpool pool) {
    if (pool == nullptr) return;

    pool->threads_keepalive = 0;

    // Give idle threads one second to notice, then keep nudging once a second.
    constexpr double timeout = 1.0;
    time_t start, end;
    double tpassed = 0.0;
    time(&start);
    auto alive = [pool] {
        pthread_mutex_lock(&pool->thcount_lock);
        int n = pool->num_threads_alive;
        pthread_mutex_unlock(&pool->thcount_lock);
        return n;
    };
    while (tpassed < timeout && alive()) {
        bsem_post_all(pool->queue.has_jobs);
        time(&end);
        tpassed = difftime(end, start);
    }
    while (alive()) {
        bsem_post_all(pool->queue.has_jobs);
        sleep(1);
    }

    jobqueue_destroy(&pool->queue);
    // threads are detached; their records are freed once none is alive
    for (int n = 0; n < pool->num_threads; n++) free(pool->threads[n]);
    free(pool->threads);
    pthread_mutex_destroy(&pool->thcount_lock);
    pthread_cond_destroy(&pool->threads_all_idle);
    free(pool);
}

void thpool_pause(threadpool pool) {
    for (int n = 0; n < pool->num_threads; n++)
        if (pool->threads[n] != nullptr) pthread_kill(pool->threads[n]->pthread, SIGUSR1);
}

void thpool_resume(threadpool) { threads_on_hold = 0; }

int thpool_num_threads_working(threadpool pool) {
    pthread_mutex_lock(&pool->thcount_lock);
    int n = pool->num_threads_working;
    pthread_mutex_unlock(&pool->thcount_lock);
    return n;
}
