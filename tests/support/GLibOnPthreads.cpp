// SPDX-License-Identifier: Apache-2.0
//
// The GLib calls of the library and its tests, on pthreads. GLib's own sit on futexes, where the race checker sees
// neither the locks nor the hand-over of a queued item. A program that is linked with this file uses these instead.

#include "GLibOnPthreads.h"

#include <glib.h>
#include <pthread.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <iterator>
#include <list>
#include <mutex>

namespace {

struct PthreadOfGLib : GThread {
    pthread_t handle;
};

/// Stops the program where GLib would, or where its documentation calls the behaviour undefined.
void Require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

/// The mutex behind a GMutex, made at its first use: a static GMutex of zero bytes needs no g_mutex_init().
pthread_mutex_t* Of(GMutex* mutex) {
    auto* existing = static_cast<pthread_mutex_t*>(g_atomic_pointer_get(&mutex->p));
    if (existing != nullptr) {
        return existing;
    }
    auto* made = new pthread_mutex_t;
    Require(pthread_mutex_init(made, nullptr) == 0);
    if (g_atomic_pointer_compare_and_exchange(&mutex->p, nullptr, static_cast<void*>(made))) {
        return made;
    }
    pthread_mutex_destroy(made);
    delete made;
    return static_cast<pthread_mutex_t*>(g_atomic_pointer_get(&mutex->p));
}

void* RunThread(void* self) {
    const auto* thread = static_cast<const PthreadOfGLib*>(self);
    return thread->func(thread->data);
}

}  // namespace

struct _GAsyncQueue {
    std::mutex mutex;
    std::condition_variable pushed;
    std::list<gpointer> items;  ///< the next to be popped in front
    int waiting = 0;            ///< threads inside g_async_queue_pop()

    gpointer TakeLocked() {
        gpointer item = items.front();
        items.pop_front();
        return item;
    }
};

void GLibOnPthreads_mutex_init(GMutex* mutex) {
    mutex->p = nullptr;
}

void GLibOnPthreads_mutex_clear(GMutex* mutex) {
    auto* existing = static_cast<pthread_mutex_t*>(mutex->p);
    if (existing != nullptr) {
        Require(pthread_mutex_destroy(existing) == 0);
        delete existing;
        mutex->p = nullptr;
    }
}

/// Weak, so that a test may count the calls.
[[gnu::weak]] void g_mutex_init(GMutex* mutex) {
    GLibOnPthreads_mutex_init(mutex);
}

/// Weak, so that a test may count the calls.
[[gnu::weak]] void g_mutex_clear(GMutex* mutex) {
    GLibOnPthreads_mutex_clear(mutex);
}

void g_mutex_lock(GMutex* mutex) {
    Require(pthread_mutex_lock(Of(mutex)) == 0);
}

gboolean g_mutex_trylock(GMutex* mutex) {
    return pthread_mutex_trylock(Of(mutex)) == 0;
}

void g_mutex_unlock(GMutex* mutex) {
    Require(pthread_mutex_unlock(Of(mutex)) == 0);
}

GThread* g_thread_try_new(const gchar* /*name*/, GThreadFunc func, gpointer data, GError** /*error*/) {
    auto* thread = new PthreadOfGLib{{func, data, TRUE, G_THREAD_PRIORITY_NORMAL}, {}};
    if (pthread_create(&thread->handle, nullptr, RunThread, thread) != 0) {
        delete thread;
        return nullptr;
    }
    return thread;
}

/// Weak, so that a test may supply one that refuses.
[[gnu::weak]] GThread* g_thread_new(const gchar* name, GThreadFunc func, gpointer data) {
    GThread* thread = g_thread_try_new(name, func, data, nullptr);
    Require(thread != nullptr);
    return thread;
}

gpointer g_thread_join(GThread* thread) {
    auto* joined = static_cast<PthreadOfGLib*>(thread);
    void* result = nullptr;
    Require(pthread_join(joined->handle, &result) == 0);
    delete joined;
    return result;
}

GAsyncQueue* g_async_queue_new() {
    return new _GAsyncQueue;
}

/// The library takes no further reference: its first is the last one.
void g_async_queue_unref(GAsyncQueue* queue) {
    delete queue;
}

void g_async_queue_push(GAsyncQueue* queue, gpointer data) {
    const std::lock_guard<std::mutex> lock(queue->mutex);
    queue->items.push_back(data);
    queue->pushed.notify_one();
}

/// Behind every item that does not compare greater than the new one, as seen from the end of the queue: an item that
/// was pushed out of order holds back what is pushed after it.
void g_async_queue_push_sorted(GAsyncQueue* queue, gpointer data, GCompareDataFunc func, gpointer user_data) {
    const std::lock_guard<std::mutex> lock(queue->mutex);
    auto place = queue->items.end();
    while (place != queue->items.begin() && func(*std::prev(place), data, user_data) > 0) {
        --place;
    }
    queue->items.insert(place, data);
    queue->pushed.notify_one();
}

gpointer g_async_queue_pop(GAsyncQueue* queue) {
    std::unique_lock<std::mutex> lock(queue->mutex);
    ++queue->waiting;
    queue->pushed.wait(lock, [queue] { return !queue->items.empty(); });
    --queue->waiting;
    return queue->TakeLocked();
}

gpointer g_async_queue_try_pop(GAsyncQueue* queue) {
    const std::lock_guard<std::mutex> lock(queue->mutex);
    return queue->items.empty() ? nullptr : queue->TakeLocked();
}

/// @return the number of items less that of the waiting threads, as GLib counts.
gint g_async_queue_length(GAsyncQueue* queue) {
    const std::lock_guard<std::mutex> lock(queue->mutex);
    return static_cast<gint>(queue->items.size()) - queue->waiting;
}

/// Weak, so that a test may supply a sleep that it drives.
[[gnu::weak]] void g_usleep(gulong microseconds) {
    usleep(static_cast<useconds_t>(microseconds));
}
