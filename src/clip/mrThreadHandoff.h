#pragma once

#if defined(__SANITIZE_THREAD__)
#define MERIDBSP_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define MERIDBSP_TSAN 1
#endif
#endif

#ifdef MERIDBSP_TSAN
#include <sanitizer/tsan_interface.h>
#endif

// Marks where the parallel builds hand work between threads through oneTBB's scheduler.
// The system's oneTBB is not built with ThreadSanitizer, so the ordering its scheduler
// gives (a task runs after it was spawned, a wait returns after the tasks finished) is
// invisible to a sanitized build; these calls tell it. Without the sanitizer they are
// nothing.
class mrThreadHandoff
{
public:
    // Before work goes to the scheduler: what this thread did so far is seen by every task
    // that calls starting() as it begins. A task cannot name a token of its own before it
    // reads what it was handed, so these share one.
    static void handingOver() { send(&startToken()); }
    static void starting() { receive(&startToken()); }
    // At the end of a task: what it did is seen by the thread that calls finished() with
    // the same token once its wait for the task has returned.
    static void finishing(const void* token) { send(token); }
    static void finished(const void* token) { receive(token); }

    // A task body for the scheduler: starting(), the body, finishing(token). The body is
    // held by reference and must outlive the task.
    template <class Body> class Task
    {
    public:
        Task(const Body& body, const void* token) : m_body(&body), m_token(token) {}
        template <class... Args> void operator()(Args&&... args) const
        {
            starting();
            (*m_body)(static_cast<Args&&>(args)...);
            finishing(m_token);
        }

    private:
        const Body* m_body;
        const void* m_token;
    };
    template <class Body> static Task<Body> task(const Body& body, const void* token)
    {
        return Task<Body>(body, token);
    }

private:
    static const char& startToken()
    {
        static const char token = 0;
        return token;
    }
    static void send(const void* token)
    {
#ifdef MERIDBSP_TSAN
        __tsan_release(const_cast<void*>(token));
#else
        (void)token;
#endif
    }
    static void receive(const void* token)
    {
#ifdef MERIDBSP_TSAN
        __tsan_acquire(const_cast<void*>(token));
#else
        (void)token;
#endif
    }
};
