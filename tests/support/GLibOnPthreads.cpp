// SPDX-License-Identifier: Apache-2.0
//
// Implements on pthreads the GLib functions that the library and its tests call. GLib implements them on futexes, where
// ThreadSanitizer sees neither the locks nor the transfer of a queued item from one thread to another. A program that
// is linked with this file uses these functions instead.

#include "GLibOnPthreads.h"

#include <glib.h>
#include <pthread.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <iterator>
#include <list>
#include <mutex>
#include <new>

namespace {

struct PthreadOfGLib : GThread {
    pthread_t handle;
};

/// Aborts the program where GLib would, or where its documentation calls the behaviour undefined.
void Require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

/// Allocates with malloc(), as GLib does: a test that makes `operator new` fail must not reach these functions.
template <class T>
struct MallocAllocator {
    using value_type = T;

    MallocAllocator() = default;
    template <class Other>
    explicit MallocAllocator(const MallocAllocator<Other>& /*other*/) {}

    T* allocate(std::size_t count) {
        auto* memory = static_cast<T*>(std::malloc(count * sizeof(T)));
        Require(memory != nullptr);
        return memory;
    }
    void deallocate(T* memory, std::size_t /*count*/) { std::free(memory); }

    bool operator==(const MallocAllocator& /*other*/) const { return true; }
    bool operator!=(const MallocAllocator& /*other*/) const { return false; }
};

template <class T>
T* Create(const T& value = {}) {
    return new (MallocAllocator<T>().allocate(1)) T(value);
}

template <class T>
void Destroy(T* object) {
    object->~T();
    std::free(object);
}

/// @return the pthread mutex of a GMutex. It is created at the first use, because a static GMutex of zero bytes needs
/// no g_mutex_init().
pthread_mutex_t* Of(GMutex* mutex) {
    auto* existing = static_cast<pthread_mutex_t*>(g_atomic_pointer_get(&mutex->p));
    if (existing != nullptr) {
        return existing;
    }
    auto* created = Create<pthread_mutex_t>();
    Require(pthread_mutex_init(created, nullptr) == 0);
    if (g_atomic_pointer_compare_and_exchange(&mutex->p, nullptr, static_cast<void*>(created))) {
        return created;
    }
    pthread_mutex_destroy(created);
    Destroy(created);
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
    std::list<gpointer, MallocAllocator<gpointer>> items;  ///< the front is popped next
    int waiting = 0;                                       ///< threads inside g_async_queue_pop()

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
        Destroy(existing);
        mutex->p = nullptr;
    }
}

/// Weak, so that a test may replace it.
[[gnu::weak]] void g_mutex_init(GMutex* mutex) {
    GLibOnPthreads_mutex_init(mutex);
}

/// Weak, so that a test may replace it.
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
    auto* thread = Create(PthreadOfGLib{{func, data, TRUE, G_THREAD_PRIORITY_NORMAL}, {}});
    if (pthread_create(&thread->handle, nullptr, RunThread, thread) != 0) {
        Destroy(thread);
        return nullptr;
    }
    return thread;
}

/// Weak, so that a test may replace it with one that fails.
[[gnu::weak]] GThread* g_thread_new(const gchar* name, GThreadFunc func, gpointer data) {
    GThread* thread = g_thread_try_new(name, func, data, nullptr);
    Require(thread != nullptr);
    return thread;
}

gpointer g_thread_join(GThread* thread) {
    auto* joined = static_cast<PthreadOfGLib*>(thread);
    void* result = nullptr;
    Require(pthread_join(joined->handle, &result) == 0);
    Destroy(joined);
    return result;
}

GAsyncQueue* g_async_queue_new() {
    return new (MallocAllocator<_GAsyncQueue>().allocate(1)) _GAsyncQueue;
}

/// Deletes the queue: the library takes no further reference, so this is the last one.
void g_async_queue_unref(GAsyncQueue* queue) {
    Destroy(queue);
}

void g_async_queue_push(GAsyncQueue* queue, gpointer data) {
    const std::lock_guard<std::mutex> lock(queue->mutex);
    queue->items.push_back(data);
    queue->pushed.notify_one();
}

/// As in GLib, the search for the place starts at the end of the queue and stops at the first item that does not
/// compare greater than the new one, even when an item before it does.
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

/// @return the number of items minus the number of waiting threads, as in GLib.
gint g_async_queue_length(GAsyncQueue* queue) {
    const std::lock_guard<std::mutex> lock(queue->mutex);
    return static_cast<gint>(queue->items.size()) - queue->waiting;
}

/// Weak, so that a test may replace it with a sleep that the test controls.
[[gnu::weak]] void g_usleep(gulong microseconds) {
    usleep(static_cast<useconds_t>(microseconds));
}
